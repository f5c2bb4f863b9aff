// orvldap_utils.cpp - filter and DN utilities.
//
// Client applications pass nearly-filters: a bare name, a filter missing its
// outer parentheses, a DN.  These helpers repair such text in a few fixed,
// simple ways (add the outer parentheses, escape unbalanced parentheses,
// escape DN special characters) instead of parsing it, build the search
// filters of the people and group searches, and tell whether a text names a
// DN under one of the configured search bases.
//
// Every string handed back is a new allocation from the library allocator
// (freed with orvlib_memfree); inputs are never modified.  Strings are built
// with std::string, so no input length is too long.

#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap_utils.h"

using orv::lowered;

namespace {

// Copy of text through the library allocator (NULL if allocation fails).
char* orv_copy(const std::string& text) {
    return _orvlib_dupString(text.c_str());
}

std::string without_spaces(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text)
        if (ch != ' ') out.push_back(ch);
    return out;
}

// The parenthesis repair of remove_paranthesis_from_string, without logging.
std::string escape_unbalanced(const std::string& text) {
    int depth = 0;
    for (char ch : text) {
        if (ch == '(') ++depth;
        else if (ch == ')') --depth;
        if (depth == -1) break;
    }
    if (depth == 0) return text;

    std::string out;
    out.reserve(text.size() + 16);
    for (char ch : text) {
        if (ch == '(') out += "\\28";
        else if (ch == ')') out += "\\29";
        else out.push_back(ch);
    }
    return out;
}

// Lower-cased, space-free form used to compare a text with a search base.
std::string dn_key(const std::string& text) {
    return lowered(without_spaces(text));
}

// dn_key of a client text after its unbalanced parentheses are escaped.
std::string dn_key_of_input(const char* text) {
    orv::OrvString cleaned(remove_paranthesis_from_string(text));
    return cleaned ? dn_key(cleaned.get()) : std::string();
}

// True when haystack contains the normalised base.  A base that is missing or
// normalises to nothing matches no text.
bool contains_base(const std::string& haystack, const char* base) {
    if (base == nullptr) return false;
    std::string key = dn_key(base);
    if (key.empty()) return false;
    return haystack.find(key) != std::string::npos;
}

const char* class_filter_for(int searchType) {
    if (searchType == ORV_SEARCH_PEOPLE) return ORV_CONSTANT_PEOPLE_CLASSFILTER_STR;
    if (searchType == ORV_SEARCH_GROUPS)
        return TIER2_GROUP_SEARCH != 0 ? ORV_CONSTANT_GROUP_CLASSFILTER_STR
                                       : ORV_CONSTANT_CORP_GROUP_CLASSFILTER_STR;
    // No other search type reaches the filter builders with a value.
    return "";
}

// Logon attribute of the configured partition, or NULL.
const char* logon_attribute() {
    if (PARTITION_INFO == nullptr) return nullptr;
    const char* name = PARTITION_INFO->user_logon_attribute_name;
    return (name != nullptr && *name != '\0') ? name : nullptr;
}

// Normalised form of a filter that contains "=", as defined by
// is_filter_ldap_complaint.
std::string normalise_compliant(const std::string& filter) {
    std::string result;
    std::string::size_type open = filter.find('(');
    std::string::size_type close = filter.find(')');
    if (open != 0) result = "(" + filter;
    else result = filter;
    if (close == std::string::npos || close != filter.size() - 1) result += ")";
    return result;
}

// Shared body of _setFilter and _setFilterPaging.
void build_filter(const char* filter, int searchType, char** out, bool paging) {
    const char* class_filter = class_filter_for(searchType);
    if (filter == nullptr) {
        ORV_DEBUG("filter is NULL. Return the class filter", class_filter);
        *out = _orvlib_dupString(class_filter);
        return;
    }

    std::string result;
    char* compliant = nullptr;
    if (is_filter_ldap_complaint(filter, &compliant) == 1) {
        if (compliant == nullptr) return;  // allocation failed
        result = std::string("(&") + compliant + class_filter + ")";
        orvlib_memfree(compliant);
    } else {
        orv::OrvString bare(remove_paranthesis_from_string(filter));
        if (!bare) return;  // allocation failed
        const std::string value(bare.get());
        const char* logon = logon_attribute();
        if (searchType == ORV_SEARCH_PEOPLE && paging) {
            result = "(&(!(objectclass=computer))(!(objectclass=contact))(|(cn=" + value + ")";
            if (logon != nullptr) result += std::string("(") + logon + ORV_CONSTANT_EQUALS + value + ")";
            result += std::string(")") + class_filter + ")";
        } else if (searchType == ORV_SEARCH_PEOPLE) {
            result = "(&(|(cn=" + value + ")(uid=" + value + ")";
            if (ORV_OPERATION_MODE == 1 && logon != nullptr)
                result += std::string("(") + logon + ORV_CONSTANT_EQUALS + value + ")";
            result += std::string(")") + class_filter + ")";
        } else {
            result = "(&(cn=" + value + ")" + class_filter + ")";
        }
    }

    ORV_DEBUG(paging ? "filter: " : "Filter: ", result);
    *out = orv_copy(result);
}

}  // namespace

namespace orv {

namespace {

bool is_hex(char ch) { return std::isxdigit(static_cast<unsigned char>(ch)) != 0; }

void append_escaped(std::string& out, char ch) {
    switch (ch) {
    case '*': out += "\\2a"; break;
    case '(': out += "\\28"; break;
    case ')': out += "\\29"; break;
    case '\\': out += "\\5c"; break;
    default: out.push_back(ch);
    }
}

}  // namespace

std::string lowered(const std::string& text) {
    std::string out(text);
    for (char& ch : out) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    return out;
}

std::string filter_value(const std::string& value) {
    std::string out;
    out.reserve(value.size() + 8);
    for (char ch : value) append_escaped(out, ch);
    return out;
}

std::string filter_value_from_text(const std::string& value) {
    std::string out;
    out.reserve(value.size() + 8);
    for (std::string::size_type i = 0; i < value.size(); ++i) {
        const char ch = value[i];
        if (ch == '\\' && i + 2 < value.size() && is_hex(value[i + 1]) && is_hex(value[i + 2])) {
            out.append(value, i, 3);
            i += 2;
            continue;
        }
        append_escaped(out, ch);
    }
    return out;
}

}  // namespace orv

extern "C" {

// ------------------------------------------------------------------ plain string helpers

// Case-insensitive comparison as strcasecmp; a NULL text sorts before any
// other text and equals only NULL.
int strcmp_case_insensitive(const char* a, const char* b) {
    ORV_TRACE();
    if (a == nullptr || b == nullptr) return (a == b) ? 0 : (a == nullptr ? -1 : 1);
    return strcasecmp(a, b);
}

char* string_to_lower(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    return orv_copy(lowered(s));
}

char* stringToLower(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    return orv_copy(lowered(s));
}

char* remove_spaces_from_string(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    return orv_copy(without_spaces(s));
}

int contains_char(const char* s, char c) {
    ORV_TRACE();
    if (s == nullptr || c == '\0') return 0;
    const char* found = std::strchr(s, c);
    return found == nullptr ? 0 : static_cast<int>(found - s) + 1;
}

void add_char_at(char* buffer, char c, int* position) {
    ORV_TRACE();
    if (buffer == nullptr || position == nullptr || *position < 0) return;
    buffer[*position] = c;
    ++*position;
    buffer[*position] = '\0';
}

int contains_string(char** list, const char* s) {
    ORV_TRACE();
    if (list == nullptr || s == nullptr) return 0;
    for (char** item = list; *item != nullptr; ++item)
        if (std::strcmp(*item, s) == 0) return 1;
    return 0;
}

int count_array_elements(char** list) {
    ORV_TRACE();
    if (list == nullptr) return 0;
    int count = 0;
    while (list[count] != nullptr) ++count;
    return count;
}

int orvlib_utils_num_digits(int n) {
    ORV_TRACE();
    int digits = 0;
    for (; n > 0; n /= 10) ++digits;
    return digits;
}

// Decimal text of a positive number; 0 and negative numbers give "" (callers
// format only positive counts and flags).
char* orvlib_utils_itoa(int n) {
    ORV_TRACE();
    return orv_copy(n > 0 ? std::to_string(n) : std::string());
}

char* add_opening_paranthesis(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    return orv_copy(std::string("(") + s);
}

char* add_closing_paranthesis(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    return orv_copy(std::string(s) + ")");
}

// ------------------------------------------------------------------ filter and DN helpers

// A filter counts as LDAP compliant when it contains "=".  Only the first
// "(" and the first ")" of the input are looked at, so '(a=b)(c=d)' becomes
// '(a=b)(c=d))' and 'x=(y)' becomes '(x=(y)'.
int is_filter_ldap_complaint(const char* filter, char** out) {
    ORV_TRACE();
    if (filter == nullptr || out == nullptr) return 0;
    if (std::strchr(filter, '=') == nullptr) return 0;

    std::string result = normalise_compliant(filter);
    ORV_DEBUG("Filter is LDAP Compliant:", "1");
    *out = orv_copy(result);
    return 1;
}

// Escapes every parenthesis as \28 / \29 when the parentheses do not balance
// (a ")" before its "(" counts as unbalanced); otherwise an unchanged copy.
char* remove_paranthesis_from_string(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    ORV_DEBUG("Entery String ", s);
    std::string result = escape_unbalanced(s);
    ORV_DEBUG("Without unbalanced Parenthesis: ", result);
    return orv_copy(result);
}

// Puts a backslash before each DN special character, except one that sits
// between two backslashes.  An already escaped character is escaped again.
char* add_backslash_to_cn(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return nullptr;
    ORV_DEBUG("Entery String ", s);

    static const char kSpecial[] = ",\\=><+\"#;";
    const std::size_t length = std::strlen(s);
    std::string result;
    result.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        const char ch = s[i];
        const bool special = std::strchr(kSpecial, ch) != nullptr;
        const bool between_backslashes = i > 0 && s[i - 1] == '\\' && s[i + 1] == '\\';
        if (special && !between_backslashes) result.push_back('\\');
        result.push_back(ch);
    }
    ORV_DEBUG("With Added BackSlash: ", result);
    return orv_copy(result);
}

// Filter of ordinary (unpaged and VLV) people and group searches.
void _setFilter(const char* filter, int searchType, char** out) {
    ORV_TRACE();
    if (out == nullptr) return;
    build_filter(filter, searchType, out, false);
}

// Filter of searches that use the simple paged-results control: computer and
// contact objects are excluded and a bare value is matched by cn and the
// partition's logon attribute only.
void _setFilterPaging(const char* filter, int searchType, char** out) {
    ORV_TRACE();
    if (out == nullptr) return;
    build_filter(filter, searchType, out, true);
}

// The bare user id of a client filter; with "=", *rdn receives the attribute
// name.  '(jsmith)' gives 'jsmith)' on purpose.
char* getUIDFromFilter(const char* filter, char** rdn) {
    ORV_TRACE();
    if (filter == nullptr) return nullptr;
    orv::OrvString cleaned(remove_paranthesis_from_string(filter));
    if (!cleaned) return nullptr;
    const std::string text(cleaned.get());

    std::string value;
    const std::string::size_type equals = text.find('=');
    if (equals != std::string::npos) {
        std::string name = text.substr(0, equals);
        name.erase(0, name.find_first_not_of('('));
        if (rdn != nullptr) *rdn = orv_copy(name);
        const std::string::size_type close = text.find(')', equals + 1);
        value = text.substr(equals + 1, close == std::string::npos ? std::string::npos
                                                                   : close - equals - 1);
    } else {
        std::string::size_type start = text.find_first_not_of('(');
        if (start == std::string::npos) start = text.size();
        if (text.find('(') != std::string::npos) {
            value = text.substr(start);
        } else {
            const std::string::size_type close = text.find(')', start);
            value = text.substr(start, close == std::string::npos ? std::string::npos
                                                                  : close - start);
        }
    }
    ORV_DEBUG("uid:", value);
    return orv_copy(value);
}

// The value after "groupCN" and the character after it (normally "="), up to
// the next ")".  Without "groupCN", or without a ")" after it, NULL.
char* getGroupCN(const char* filter) {
    ORV_TRACE();
    if (filter == nullptr) return nullptr;
    static const char kKey[] = "groupCN";
    const char* found = std::strstr(filter, kKey);
    if (found == nullptr) return nullptr;
    const char* start = found + (sizeof(kKey) - 1);
    if (*start == '\0') return nullptr;
    ++start;
    const char* end = std::strchr(start, ')');
    if (end == nullptr) return nullptr;
    std::string value(start, static_cast<std::size_t>(end - start));
    ORV_DEBUG("Group CN", value);
    return orv_copy(value);
}

// 1 when the text contains one of the configured search bases (compared
// lower-cased and without spaces), else 0.
int string_is_dn(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return 0;
    const std::string key = dn_key_of_input(s);

    if (ORV_OPERATION_MODE == 1) {
        if (PARTITION_INFO == nullptr) return 0;
        if (PARTITION_INFO->partition_search_base_type != 0)
            return (contains_base(key, CORP_PEOPLE_SEARCH_BASE) ||
                    contains_base(key, CORP_GROUP_SEARCH_BASE)) ? 1 : 0;
        return contains_base(key, PARTITION_INFO->search_base) ? 1 : 0;
    }
    if (ORV_OPERATION_MODE == 0) return contains_base(key, ORV_GROUP_SRCH_BASE) ? 1 : 0;
    return 0;
}

// 1 when the text is a DN under the library's own group base (or, in
// corporate mode, under the partition's search base).
int is_filter_tier2_group_dn(const char* s) {
    ORV_TRACE();
    if (s == nullptr) return 0;
    const std::string key = dn_key_of_input(s);

    int result = 0;
    if (ORV_OPERATION_MODE == 1) {
        if (PARTITION_INFO != nullptr && contains_base(key, PARTITION_INFO->search_base)) result = 1;
        else if (contains_base(key, ORV_GROUP_SRCH_BASE)) result = 1;
    } else if (ORV_OPERATION_MODE == 0) {
        result = contains_base(key, ORV_GROUP_SRCH_BASE) ? 1 : 0;
    }

    orv::OrvString text(orvlib_utils_itoa(result));
    ORV_DEBUG("Filter is valid standalone group DN:", text ? text.get() : "");
    return result;
}

// Sets the corporate people and group search bases from the partition.
void populate_search_base(void) {
    ORV_TRACE();
    if (PARTITION_INFO == nullptr) return;
    const bool separate = PARTITION_INFO->partition_search_base_type != 0;
    char* people = _orvlib_dupString(separate ? PARTITION_INFO->people_search_base_suffix
                                              : PARTITION_INFO->search_base);
    char* groups = _orvlib_dupString(separate ? PARTITION_INFO->group_search_base_suffix
                                              : PARTITION_INFO->search_base);
    orvlib_memfree(CORP_PEOPLE_SEARCH_BASE);
    orvlib_memfree(CORP_GROUP_SEARCH_BASE);
    CORP_PEOPLE_SEARCH_BASE = people;
    CORP_GROUP_SEARCH_BASE = groups;
}

// 1 when the filter asks for a Windows system user; sets ORV_WIN_USER_SEARCH
// accordingly.
int systemLoginFilterCheck(const char* filter) {
    ORV_TRACE();
    ORV_WIN_USER_SEARCH = 0;
    if (filter == nullptr) return 0;
    ORV_DEBUG("Filter before entering:", filter);
    const std::string key = lowered(filter);
    int result = 0;
    if (ORVLIB_WIN_SYSTEM_USER_NAME != nullptr &&
        key.find(lowered(ORVLIB_WIN_SYSTEM_USER_NAME)) != std::string::npos) {
        ORV_WIN_USER_SEARCH = 1;
        result = 1;
    }
    ORV_DEBUG("Filter at exit:", key);
    return result;
}

// Enabled state of a corporate account: "OFF" when userAccountControl (44)
// has the disabled bit, or, without that attribute, when nsAccountlock (54)
// is exactly "true"; "ON" otherwise.
void get_User_State(ORVLibEntry* entry, char** out) {
    ORV_TRACE();
    if (entry == nullptr || out == nullptr) return;

    const ORVLibAttribute* control = nullptr;
    const ORVLibAttribute* lock = nullptr;
    if (entry->orvlibEntryAttrData != nullptr) {
        for (ORVLibAttribute** item = entry->orvlibEntryAttrData; *item != nullptr; ++item) {
            if ((*item)->attrId == 44 && control == nullptr) control = *item;
            if ((*item)->attrId == 54 && lock == nullptr) lock = *item;
        }
    }

    const char* state = "ON";
    if (control != nullptr) {
        const char* value = control->attrVals != nullptr ? control->attrVals[0] : nullptr;
        if (value != nullptr) {
            ORV_DEBUG("userAccountControl_attribute", value);
            if (std::strtol(value, nullptr, 10) & 2) state = "OFF";  // bit 2: disabled
        }
    } else if (lock != nullptr && lock->attrVals != nullptr && lock->attrVals[0] != nullptr) {
        if (std::strcmp(lock->attrVals[0], "true") == 0) state = "OFF";
    }
    *out = _orvlib_dupString(state);
}

}  // extern "C"

// ------------------------------------------------------------------ helpers that ask a directory
//
// These resolve user ids and group names to DNs and test what a DN names.
// Every search goes through the NULL-safe wrappers of orv_ldap.hpp, so a
// missing connection answers like a failed search instead of aborting.

namespace {

// "(" name "=" value ")" for the partition's logon attribute, or "" when no
// logon attribute is configured.
std::string logon_term(const char* value) {
    const char* logon = logon_attribute();
    if (logon == nullptr) return std::string();
    return std::string("(") + logon + ORV_CONSTANT_EQUALS + value + ")";
}

using orv::corporate_search_mode;

// An attribute description as a filter may name it: letters, digits, "-",
// "." and ";" (options), nothing else.
bool is_attribute_name(const char* name) {
    if (*name == '\0') return false;
    for (const char* p = name; *p != '\0'; ++p) {
        const unsigned char ch = static_cast<unsigned char>(*p);
        if (!std::isalnum(ch) && ch != '-' && ch != '.' && ch != ';') return false;
    }
    return true;
}

// Hands the result message to the caller when it asked for it; otherwise it
// is released here.
void hand_back(orv::LdapMsg& result, LDAPMessage** out) {
    if (out != nullptr) *out = result.release();
}

}  // namespace

extern "C" {

// DN of the first person whose uid or cn (or the given naming attribute, or in
// corporate search mode the partition's logon attribute) equals id.  The id
// is a value: wildcards and parentheses in it match themselves (escapes it
// already holds are kept).  NULL when nothing is found, with the search's
// status stored (0 when it found nothing); a naming attribute that is no
// attribute name gives 87 without a search.
char* getDNFromUid(LDAP* ld, const char* id, const char* base, const char* rdn) {
    ORV_TRACE();
    const std::clock_t started = std::clock();
    if (id == nullptr) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    if (rdn != nullptr && !is_attribute_name(rdn)) {
        ORV_DEBUG("Not an attribute name: ", rdn);
        orv::report(orv::kFilterError);
        return nullptr;
    }
    const std::string value = orv::filter_value_from_text(id);
    id = value.c_str();
    if (base == nullptr)
        base = (corporate_search_mode() && CORP_PEOPLE_SEARCH_BASE != nullptr)
                   ? CORP_PEOPLE_SEARCH_BASE
                   : ORV_ROOT_SUFFIX;

    std::string filter;
    if (rdn != nullptr) {
        filter = std::string("(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact))(") +
                 rdn + ORV_CONSTANT_EQUALS + id + "))";
    } else if (corporate_search_mode() && mechanism == ORV_PAGING) {
        filter = std::string("(&(objectclass=person)(!(objectclass=computer))(!(objectclass=contact))") +
                 "(|(cn" + ORV_CONSTANT_EQUALS + id + ")" + logon_term(id) + "))";
    } else {
        filter = std::string("(&(objectclass=person)(|(uid") + ORV_CONSTANT_EQUALS + id + ")(cn" +
                 ORV_CONSTANT_EQUALS + id + ")";
        if (corporate_search_mode()) filter += logon_term(id);
        filter += "))";
    }
    ORV_DEBUG("Search Filter:", filter);

    orv::LdapMsg result;
    const int rc = orv::search(ld, base, LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, result);
    orv::report(rc);
    if (rc != LDAP_SUCCESS) return nullptr;

    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) return nullptr;
    // "%lf" of the CPU seconds (std::to_string formats a double so).
    ORV_DEBUG("Time elapsed for search:",
              std::to_string(static_cast<double>(std::clock() - started) / 1000000.0));
    orv::LdapString dn(ldap_get_dn(ld, first));
    return dn ? _orvlib_dupString(dn.get()) : nullptr;
}

// DN of the group named cn (a bare name, or "cn=" name, with or without outer
// parentheses); a text that is already a DN is handed back with its
// unbalanced parentheses escaped.  The name is compared as a value.
char* getDNFromGroupCN(LDAP* ld, const char* cn, const char* base) {
    ORV_TRACE();
    if (cn == nullptr) return nullptr;
    if (string_is_dn(cn) == 1) return remove_paranthesis_from_string(cn);
    if (ld == nullptr) return nullptr;

    std::string name(cn);
    if (!name.empty() && name.front() == '(') name.erase(0, 1);
    if (!name.empty() && name.back() == ')') name.pop_back();
    if (lowered(name).compare(0, 3, "cn=") == 0) name.erase(0, 3);
    const std::string filter =
        "(&(|(objectclass=morvaneGroup)(objectclass=group)(objectclass=groupofUniqueNames)"
        "(objectclass=groupOfNames))(cn=" + orv::filter_value_from_text(name) + "))";
    ORV_DEBUG("CN: ", filter);

    if (base == nullptr)
        base = (corporate_search_mode() && PARTITION_INFO != nullptr &&
                PARTITION_INFO->search_base != nullptr)
                   ? PARTITION_INFO->search_base
                   : ORV_GROUP_SRCH_BASE;

    static const char* const kAttrs[] = {"entrydn", "distinguishedName", nullptr};
    orv::LdapMsg result;
    const int rc = orv::search(ld, base, LDAP_SCOPE_SUBTREE, filter.c_str(), kAttrs, 0, result);
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return nullptr;
    }
    LDAPMessage* first = ldap_first_entry(ld, result.get());
    if (first == nullptr) {
        ORV_DEBUG("Entry is NULL", "");
        return nullptr;
    }
    orv::LdapString dn(ldap_get_dn(ld, first));
    if (!dn) return nullptr;
    ORV_DEBUG("Group DN: ", dn.get());
    return _orvlib_dupString(dn.get());
}

// 1 when the entry at dn has an object class containing "group" (any case).
// *entry receives the entry read and *res its result message (freed by the
// caller with ldap_msgfree); when res is NULL the message is released here
// and *entry is not set.
int isGroupDN(LDAP* ld, const char* dn, LDAPMessage** entry, LDAPMessage** res) {
    ORV_TRACE();
    if (entry != nullptr) *entry = nullptr;
    if (res != nullptr) *res = nullptr;
    ORV_DEBUG("DN:", dn);
    if (dn == nullptr) {
        ldapErrCode = ORV_LDAPLIB_INVALID_INPUT;
        return 0;
    }
    orv::LdapMsg result;
    const int rc = orv::search(ld, dn, LDAP_SCOPE_SUBTREE, "objectclass=*", nullptr, 0, result);
    if (rc != LDAP_SUCCESS) {
        ldapErrCode = rc;
        return 0;
    }
    LDAPMessage* first = ldap_first_entry(ld, result.get());
    int answer = 0;
    if (first != nullptr) {
        BerElement* raw_ber = nullptr;
        for (char* name = ldap_first_attribute(ld, first, &raw_ber); name != nullptr;
             name = ldap_next_attribute(ld, first, raw_ber)) {
            orv::LdapString owned(name);
            if (strcasecmp(name, "objectclass") != 0) continue;
            orv::LdapBerValues values(ldap_get_values_len(ld, first, name));
            for (berval** v = values.get(); v != nullptr && *v != nullptr; ++v) {
                if (lowered(std::string((*v)->bv_val, (*v)->bv_len)).find("group") !=
                    std::string::npos) {
                    answer = 1;
                    break;
                }
            }
            break;
        }
        orv::BerPtr ber(raw_ber);
    }
    if (res != nullptr) {
        if (entry != nullptr) *entry = first;
        hand_back(result, res);
    }
    return answer;
}

// 1 when the group named by filter lives in the library's own directory
// (*groupDN: its DN, or NULL when it cannot be found); 0 when it is a group of
// the corporate directory (*groupDN: the corporate DN).
int is_standalone_group(LDAP* ld, const char* filter, char** groupDN) {
    ORV_TRACE();
    if (groupDN == nullptr) return 0;
    if (ORV_OPERATION_MODE == 1) {
        char* corporate = getDNFromGroupCN(corporate_user_ld, filter, nullptr);
        if (corporate != nullptr) {
            *groupDN = corporate;
            return 0;
        }
    }
    if (is_filter_tier2_group_dn(filter) == 1)
        *groupDN = _orvlib_dupString(filter);
    else
        *groupDN = getDNFromGroupCN(ld, filter, ORV_GROUP_SRCH_BASE);
    ORV_DEBUG("Group DN: ", *groupDN);
    return 1;
}

// Whether a corporate user (kind other than 1) or group (kind 1) belongs to
// the partition's meta group for its kind: 0 allowed (or no restriction), 32
// not a member, -1 when it cannot be checked.
int isValidMetaGroupMember(const char* dn, int kind) {
    ORV_TRACE();
    ORV_DEBUG("Corporate Message DN ", dn ? dn : "");
    if (corporate_admin_ld == nullptr || dn == nullptr || PARTITION_INFO == nullptr) return -1;
    const std::string member = orv::filter_value(dn);
    ORV_DEBUG("Modified DN:", member);
    if (PARTITION_INFO->partition_search_base_type != 2) return 0;

    const char* meta_group;
    if (kind == 1) {
        ORV_DEBUG("Meta group for Groups", PARTITION_INFO->meta_group_for_groups);
        meta_group = PARTITION_INFO->meta_group_for_groups;
    } else {
        ORV_DEBUG("Meta group for users", PARTITION_INFO->meta_group_for_users);
        meta_group = PARTITION_INFO->meta_group_for_users;
    }
    if (meta_group == nullptr || *meta_group == '\0') return 32;  // no group to be a member of

    const bool vlv = mechanism == ORV_VLV;
    const std::string filter =
        std::string(vlv ? "uniquemember" : "member") + ORV_CONSTANT_EQUALS + member;
    ORV_DEBUG("Metagroup Member Filter: ", filter);
    ORV_DEBUG("Meta group object DN", meta_group);

    orv::LdapMsg result;
    int rc = orv::search(corporate_admin_ld, meta_group, LDAP_SCOPE_BASE, filter.c_str(), nullptr,
                         1, result);
    if (rc != LDAP_SUCCESS && vlv) {
        LDAPMessage* other = nullptr;
        rc = searchForOtherMemberAttribute(meta_group, dn, &other);
        result.reset(other);
    }
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return 32;
    }
    if (ldap_first_entry(corporate_admin_ld, result.get()) != nullptr) return 0;
    if (!vlv) return 32;

    LDAPMessage* other = nullptr;
    rc = searchForOtherMemberAttribute(meta_group, dn, &other);
    result.reset(other);
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return rc;
    }
    return ldap_first_entry(corporate_admin_ld, result.get()) != nullptr ? 0 : 32;
}

// Base search of the meta group for "member=" memberDN (escaped here) on the
// corporate administrative connection.  *res receives the result (caller
// frees).
int searchForOtherMemberAttribute(const char* metaGroupDN, const char* memberDN,
                                  LDAPMessage** res) {
    ORV_TRACE();
    if (res != nullptr) *res = nullptr;
    if (metaGroupDN == nullptr || memberDN == nullptr) return ORV_LDAPLIB_INVALID_INPUT;
    const std::string filter =
        std::string("member") + ORV_CONSTANT_EQUALS + orv::filter_value(memberDN);
    ORV_DEBUG("Filter: ", filter);
    orv::LdapMsg result;
    const int rc = orv::search(corporate_admin_ld, metaGroupDN, LDAP_SCOPE_BASE, filter.c_str(),
                               nullptr, 0, result);
    hand_back(result, res);
    return rc;
}

// Makes backslashes of a DN safe inside a filter value by following them
// with "5c" (the filter escape of a backslash).  Mode 0: every backslash.
// Mode 1: only a backslash that is neither doubled nor escaping one of the DN
// special characters , = > < + " # ;
char* dn_contains_backslash(const char* dn, int mode) {
    ORV_TRACE();
    if (dn == nullptr) return nullptr;
    static const char kEscaped[] = ",=><+\"#;";
    const std::size_t length = std::strlen(dn);
    std::string result;
    result.reserve(length + 16);
    for (std::size_t i = 0; i < length; ++i) {
        const char ch = dn[i];
        result.push_back(ch);
        if (ch != '\\') continue;
        if (mode == 0) {
            result += "5c";
            continue;
        }
        const char next = dn[i + 1];
        const bool doubled = next == '\\' || (i > 0 && dn[i - 1] == '\\');
        const bool escapes_special = next != '\0' && std::strchr(kEscaped, next) != nullptr;
        if (!doubled && !escapes_special) result += "5c";
    }
    return orv_copy(result);
}

}  // extern "C"
