// orvldap_password.cpp - password policy: syntax checks of new passwords,
// the policy as clients see it, whether and when a user must or may change a
// password, and the change itself.
//
// ---------------------------------------------------------------------------
// Character checks
// ---------------------------------------------------------------------------
// Each check counts over the bytes of the new password up to its
// terminating zero and answers 3003 (passes) or 3004 (fails); limits and
// counts are compared as signed integers, so a negative limit makes the
// "at least" checks pass and the "at most" check fail.
//
//   numeric       bytes '0'..'9'                      passes when count >= limit
//   symbol        bytes that are not alphanumeric     passes when count >= limit
//                 (blanks, punctuation, every byte above 127)
//   non-alpha     bytes that are not alphabetic       passes when count >= limit
//   max repeated  most occurrences of any one byte    passes when count <= limit
//                 anywhere in the password (not runs)
//   min diff      distinct bytes, 0 when fewer than   passes when count >= limit
//                 two (one repeated byte, empty)
//
// So with a limit of 0 the repetition check refuses every non-empty
// password, and "a" fails a minimum of one different character.  Counting
// uses per-byte tables, so passwords of any length are handled.
// ---------------------------------------------------------------------------
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_password.h"
#include "orvldap_utils.h"

namespace orv {
namespace {

// Bytes above 127 are symbols and non-letters whatever the caller's locale.
bool is_alnum_byte(unsigned char c) { return c < 128 && std::isalnum(c) != 0; }
bool is_alpha_byte(unsigned char c) { return c < 128 && std::isalpha(c) != 0; }

int clamp_count(long long n) { return n > INT_MAX ? INT_MAX : static_cast<int>(n); }

template <typename Pred>
int count_bytes(const char* password, Pred pred) {
    long long count = 0;
    if (password == nullptr) return 0;
    for (const char* p = password; *p != '\0'; ++p)
        if (pred(static_cast<unsigned char>(*p))) ++count;
    return clamp_count(count);
}

std::array<long long, 256> occurrences(const char* password) {
    std::array<long long, 256> seen{};
    if (password != nullptr)
        for (const char* p = password; *p != '\0'; ++p) ++seen[static_cast<unsigned char>(*p)];
    return seen;
}

int verdict(bool passes) { return passes ? ORV_LDAPLIB_CHECK_PASSED : ORV_LDAPLIB_CHECK_FAILED; }

}  // namespace

int count_numeric_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return c >= '0' && c <= '9'; });
}

int count_symbol_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return !is_alnum_byte(c); });
}

int count_non_alpha_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return !is_alpha_byte(c); });
}

int count_max_repeated_characters(const char* password) {
    long long highest = 0;
    for (long long n : occurrences(password))
        if (n > highest) highest = n;
    return clamp_count(highest);
}

int count_different_characters(const char* password) {
    int distinct = 0;
    for (long long n : occurrences(password))
        if (n > 0) ++distinct;
    return distinct < 2 ? 0 : distinct;
}

}  // namespace orv

extern "C" {

int check_numeric_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_numeric_characters(new_password);
    ORV_DEBUG("Numeric characters: ", count);
    return orv::verdict(count >= limit);
}

int check_symbol_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_symbol_characters(new_password);
    ORV_DEBUG("Symbol characters: ", count);
    return orv::verdict(count >= limit);
}

int check_non_alpha_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_non_alpha_characters(new_password);
    ORV_DEBUG("Non-alphabetic characters: ", count);
    return orv::verdict(count >= limit);
}

int check_max_repeated_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_max_repeated_characters(new_password);
    ORV_DEBUG("Maximum repeated characters: ", count);
    return orv::verdict(count <= limit);
}

int check_min_diff_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_different_characters(new_password);
    ORV_DEBUG("Different characters: ", count);
    return orv::verdict(count >= limit);
}

}  // extern "C"

// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Password policy and password change
// ---------------------------------------------------------------------------
// Two policies govern passwords of the library's own directory:
//   "cn=Password Policy,<suffix>"       syntax rules the library checks
//                                       itself before a change
//                                       (pwdchecksyntax "0" switches them off)
//   "cn=ORVPasswordPolicy,cn=nuvpolicies"  the server's policy (length,
//                                       history, lockout), reported to
//                                       clients; the server enforces it and
//                                       its refusals are translated here.
// A user may change a password when "orvChangePassword" is "on", or when an
// administrator reset it ("orvPasswordMustChange" "on"); the reset flag goes
// back to "off" after a change that the server accepted.
//
// A change is made only after every check was made and passed: the old
// password bound (or was refused as expired), the reset flag and the right
// to change were read.  A check that could not be made refuses the change
// with its own status.  A refusal by the server is never success: "too
// short" and 389 DS's "must be at least N characters long" are 3021,
// "history" 3015, anything else the server's own code.
// ---------------------------------------------------------------------------

namespace {

const char kServerPolicyBase[] = "cn=ORVPasswordPolicy,cn=nuvpolicies";

std::string library_policy_dn() { return std::string("cn=Password Policy,") + ORV_ROOT_SUFFIX; }

int store(int status) {
    ldapErrCode = status;
    return status;
}

// One replace of attribute `name` by the single value `value` on dn.
int replace_value(LDAP* ld, const char* dn, const char* name, const char* value) {
    char* vals[] = {const_cast<char*>(value ? value : ""), nullptr};
    LDAPMod mod{};
    mod.mod_op = LDAP_MOD_REPLACE;
    mod.mod_type = const_cast<char*>(name);
    mod.mod_values = vals;
    LDAPMod* mods[] = {&mod, nullptr};
    return orv::modify(ld, dn, mods);
}

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

}  // namespace

namespace orv {

int password_refusal_status(int rc, const std::string& serverText) {
    if (rc != LDAP_CONSTRAINT_VIOLATION) return rc;
    const std::string text = orv::lowered(serverText);
    if (contains(text, "history")) return ORV_LDAPLIB_PASSWORD_IN_HISTORY;
    if (contains(text, "short") || (contains(text, "must be at least") && contains(text, "characters long")))
        return ORV_LDAPLIB_PASSWORD_TOO_SHORT;
    return rc;
}

int change_right_check(LDAP* ld, const char* userDn, bool* may) {
    *may = false;
    const char* attrs[] = {"orvChangePassword", nullptr};
    LdapMsg res;
    int rc = search(ld, userDn, LDAP_SCOPE_BASE, "objectclass=*", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* entry = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) {
        rc = last_error(ld);
        return rc != LDAP_SUCCESS ? rc : LDAP_NO_SUCH_OBJECT;
    }
    BerElement* ber = nullptr;
    LdapString attr(ldap_first_attribute(ld, entry, &ber));
    BerPtr berOwner(ber);
    // Only the first value of the first attribute counts.
    if (attr && first_value(ld, entry, attr.get()) == "on") {
        ORV_DEBUG("User can change password", "");
        *may = true;
    }
    return LDAP_SUCCESS;
}

int password_expiry_days(int seconds) {
    const int days = seconds / 86400;  // truncates toward zero
    const float fraction = static_cast<float>(seconds / 86400.0 - days);
    return fraction > 0 ? days + 1 : days;
}

}  // namespace orv

extern "C" {

ORVLibEntry* orvlib_get_password_policy(LDAP* ld) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (ORV_OPERATION_MODE != 0) {
        orv::report(ORV_LDAPLIB_PASSWORD_POLICY_NA);
        return nullptr;
    }
    std::string dn = library_policy_dn();
    orv::LdapMsg res;
    int rc = orv::search(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=*",
                         ORVLIB_MORVANE_PASSWORD_POLICY_ATTR_LIST, 0, res);
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return nullptr;
    }
    LDAPMessage* first = res ? ldap_first_entry(orv_ld, res.get()) : nullptr;
    if (!first) {
        store(orv::last_error(orv_ld));
        return nullptr;
    }
    ORVLibEntry* entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &first);
    res.reset();
    ldapErrCode = add_server_password_attributes(orv_ld, &entry);
    return entry;
}

int add_server_password_attributes(LDAP* ld, ORVLibEntry** entry) {
    ORV_TRACE();
    if (!ld || !entry || !*entry || !(*entry)->orvlibEntryAttrData)
        return store(ORV_LDAPLIB_INVALID_INPUT);
    orv::LdapMsg res;
    int rc = orv::search(ld, kServerPolicyBase, LDAP_SCOPE_SUBTREE, "objectclass=pwdPolicy",
                         ORVLIB_PASSWORD_POLICY_ATTR_LIST, 0, res);
    LDAPMessage* first = rc == LDAP_SUCCESS && res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!first) return store(rc != LDAP_SUCCESS ? rc : orv::last_error(ld));

    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, first, &ber); attr;
         attr = ldap_next_attribute(ld, first, ber)) {
        orv::LdapString attrOwner(attr);
        orv::LdapValues vals(ldap_get_values(ld, first, attr));
        ORV_DEBUG("Server policy attribute: ", attr);
        orv::append_attribute(*entry, getMappedAttrId(attr), attr, vals.get());
    }
    orv::BerPtr berOwner(ber);
    return 0;
}

int orvlib_can_user_change_password(LDAP* ld, const char* uid) {
    ORV_TRACE();
    if (!ld) return ORV_LDAPLIB_SESSION_INVALID;
    orv::OrvString dn(orvlib_get_user_dn(uid));
    return can_user_change_password(orv_ld, dn.get());
}

int can_user_change_password(LDAP* ld, const char* user_dn) {
    ORV_TRACE();
    bool may = false;
    const int rc = orv::change_right_check(ld, user_dn, &may);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    return may ? 1 : 0;
}

int orvlib_get_password_expiry_time(LDAP* ld) {
    ORV_TRACE();
    if (!ld) {
        store(ORV_LDAPLIB_SESSION_INVALID);
        return -1;
    }
    // What the last password check reported; the server is not asked.
    int days = orv::password_expiry_days(password_expiry_time);
    ORV_DEBUG("Days for password expiry", days);
    return days;
}

int orvlib_change_user_password(LDAP* ld, const char* uid, const char* old_password,
                                const char* new_password) {
    ORV_TRACE();
    ldapErrCode = 0;
    if (!ld || !orv_ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);

    orv::OrvString dn;
    if (ORV_OPERATION_MODE == 1) {
        // The old password is checked before anything else; an expired one
        // still allows the change.
        dn.reset(orvlib_get_user_dn(uid));
        int r = _authenticateUserTempConn(dn.get(), old_password);
        if (r != 0 && r != ORV_LDAPLIB_PASSWORD_HAS_EXPIRED) return r;
    }
    if (!old_password || !*old_password) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (!new_password || !*new_password) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (!dn) dn.reset(orvlib_get_user_dn(uid));
    if (!dn) return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    bool reset = false;
    int rc = orv::password_reset_check(orv_ld, dn.get(), &reset);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Password reset check failed", rc);
        return orv::report(rc);
    }
    if (!reset) {
        bool may = false;
        rc = orv::change_right_check(orv_ld, dn.get(), &may);
        if (rc != LDAP_SUCCESS) {
            ORV_DEBUG("Change right check failed", rc);
            return orv::report(rc);
        }
        if (!may) return orv::report(ORV_LDAPLIB_NO_PRIVILEGE);
    }

    if (ORV_OPERATION_MODE != 1) {
        int r = _authenticateUserTempConn(dn.get(), old_password);
        if (r != 0 && r != ORV_LDAPLIB_PASSWORD_HAS_EXPIRED) return store(r);
    }

    ldapErrCode = 0;
    const int verdict = validate_password(orv_ld, new_password);
    if (ldapErrCode != 0) return orv::report(ldapErrCode);
    if (verdict != 1) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);

    rc = change_password_at_server(orv_ld, new_password, dn.get());
    if (rc != 0) return rc;  // reported there; the reset flag stays
    if (reset) {
        rc = change_reset_flag(orv_ld, dn.get(), "off");
        if (rc != 0) return rc;  // reported there
    }
    return orv::report(LDAP_SUCCESS);
}

int validate_password(LDAP* ld, const char* new_password) {
    ORV_TRACE();
    int maxRepeated = 0, minDifferent = 0, minNumbers = 0, minSymbols = 0;
    int r = get_password_check_syntax_attr_value(ld, &maxRepeated, &minDifferent, &minNumbers, &minSymbols);
    if (r == ORV_LDAPLIB_CHECK_FAILED) {  // syntax checks are off
        store(0);
        return 1;
    }
    // Checks on: the status starts clean.  When the rules could not be read
    // the search's code stays and the limits read so far apply.
    if (r == ORV_LDAPLIB_CHECK_PASSED) store(0);
    if (check_numeric_characters(minNumbers, new_password) != ORV_LDAPLIB_CHECK_PASSED)
        return orv::report(ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS);
    if (check_symbol_characters(minSymbols, new_password) != ORV_LDAPLIB_CHECK_PASSED)
        return orv::report(ORV_LDAPLIB_PASSWORD_MIN_SYM_CHARS);
    if (check_max_repeated_characters(maxRepeated, new_password) != ORV_LDAPLIB_CHECK_PASSED)
        return orv::report(ORV_LDAPLIB_PASSWORD_MAX_REPEATED);
    if (check_min_diff_characters(minDifferent, new_password) != ORV_LDAPLIB_CHECK_PASSED)
        return orv::report(ORV_LDAPLIB_PASSWORD_MIN_DIFF);
    return 1;
}

int get_password_check_syntax_attr_value(LDAP* ld, int* orv_password_max_repeated_chars,
                                         int* orv_password_min_diff_chars,
                                         int* orv_password_min_num_chars,
                                         int* orv_password_min_symbol_chars) {
    ORV_TRACE();
    const char* attrs[] = {"pwdchecksyntax", "orvpasswordmaxrepeatedchars", "orvpasswordmindiffchars",
                           "orvpasswordminnumbers", "orvpasswordminsymbols", nullptr};
    std::string dn = library_policy_dn();
    orv::LdapMsg res;
    int rc = orv::search(ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=orvPasswordPolicy", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    LDAPMessage* entry = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) return store(orv::last_error(ld));

    int result = ORV_LDAPLIB_CHECK_FAILED;  // no "pwdchecksyntax": checks off
    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &ber); attr;
         attr = ldap_next_attribute(ld, entry, ber)) {
        orv::LdapString attrOwner(attr);
        const std::string value = orv::first_value(ld, entry, attr);
        ORV_DEBUG(attr, value);
        // Names are compared exactly as written here.
        if (!std::strcmp(attr, "pwdchecksyntax")) {
            result = value == "0" ? ORV_LDAPLIB_CHECK_FAILED : ORV_LDAPLIB_CHECK_PASSED;
        } else if (!std::strcmp(attr, "orvpasswordmaxrepeatedchars")) {
            if (orv_password_max_repeated_chars) *orv_password_max_repeated_chars = std::atoi(value.c_str());
        } else if (!std::strcmp(attr, "orvpasswordmindiffchars")) {
            if (orv_password_min_diff_chars) *orv_password_min_diff_chars = std::atoi(value.c_str());
        } else if (!std::strcmp(attr, "orvpasswordminnumbers")) {
            if (orv_password_min_num_chars) *orv_password_min_num_chars = std::atoi(value.c_str());
        } else if (!std::strcmp(attr, "orvpasswordminsymbols")) {
            if (orv_password_min_symbol_chars) *orv_password_min_symbol_chars = std::atoi(value.c_str());
        }
    }
    orv::BerPtr berOwner(ber);
    return result;
}

int change_password_at_server(LDAP* ld, const char* new_password, const char* user_dn) {
    ORV_TRACE();
    ORV_DEBUG("User DN: ", user_dn ? user_dn : "");
    const int rc = replace_value(ld, user_dn, "userpassword", new_password);
    if (rc == LDAP_SUCCESS) return orv::report(LDAP_SUCCESS);
    // The server's own words tell the refusals apart; one that names no
    // known reason is the server's code.
    const std::string text = orv::diagnostic_message(ld);
    ORV_DEBUG("Server message: ", text);
    return orv::report(orv::password_refusal_status(rc, text));
}

int change_reset_flag(LDAP* ld, const char* user_dn, const char* newval) {
    ORV_TRACE();
    ORV_DEBUG("Changing password reset flag of the user", user_dn ? user_dn : "");
    int rc = replace_value(ld, user_dn, "orvPasswordMustChange", newval);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Ldap modify of reset flag failed. Errorcode:", rc);
        return orv::report(rc);
    }
    return rc;
}

}  // extern "C"
