// orv_internal_auth.cpp - user authentication.
//
// orvlib_authenticate_user checks a login name and password in the way the
// server's operation mode asks for:
//   operating-system mode   the server checks the account through PAM
//                           (extended operation 1.2.3.4); the session is
//                           left as it is.
//   corporate mode          the user is looked up on the corporate partition
//                           and bound there; a user the partition does not
//                           know (any failure but a wrong password) is tried
//                           in the library's own directory.
//   standalone mode         the library's own directory only.
// A local password is checked by a bind on a short-lived connection that
// asks for the password policy response, so that an expired password or a
// locked account is told apart from a wrong password.
//
// Every check fails closed: a password is accepted only on a bind result
// that the directory sent and the library parsed.  A connection that cannot
// be opened, a bind without an answer in time, or an inactive-user or
// reset-flag check that could not be made refuses the user with that status
// (81, 85, 91, the search's own code).  An empty password authenticates
// nobody, whatever the partition allows.  Login names and DNs go into
// filters as escaped values.
//
// The credentials of a user the directory answered for are kept in _user_id
// and _pwd for binding again after a reconnect; a check that could not be
// made leaves them as they were.  A password copy is wiped before it is
// freed.  Users are bound on connections of their own: the corporate
// administrative connection stays bound as the partition administrator.

#include <sys/time.h>

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "orvplatforms.h"

namespace {

const char kOsAuthOid[] = "1.2.3.4";
const char kPasswordMustChangeAttr[] = "orvPasswordMustChange";
const char kInactiveRoleFilter[] = "(&(objectclass=morvaneRole)(cn=Inactive User)(";

// Stores a status without writing the status line (the checks whose outcome
// the caller reports itself).
int store(int status) {
    ldapErrCode = status;
    return status;
}

// Keeps the credentials of a user the directory answered for.  The old
// password is wiped before its memory goes back.
void keep_credentials(const char* dn, const char* password) {
    char* id = _orvlib_dupString(dn);
    char* pw = _orvlib_dupString(password ? password : "");
    orvlib_memfree(_user_id);
    _user_id = id;
    orv::free_secret(_pwd);
    _pwd = pw;
}

// Closes the corporate user connection unless it is the administrative one.
void release_corporate_user_connection() {
    if (corporate_user_ld == corporate_admin_ld)
        corporate_user_ld = nullptr;
    else
        orv::unbind(corporate_user_ld);
}

// A new handle to host:port, prepared (protocol, time-outs, no referrals),
// over SSL when ssl is set.  Status in *status (91 when no handle).
LDAP* open_handle(const char* host, int port, bool ssl, int* status) {
    LDAP* ld = ssl ? create_ssl_connection(host, port) : orv::open_plain(host, port);
    if (!ld) {
        *status = orv::kConnectError;
        return nullptr;
    }
    *status = orv::prepare_handle(ld);
    if (*status != LDAP_SUCCESS) {
        ORV_DEBUG("Failed in ldap_set_option", *status);
        orv::unbind(ld);
    }
    return ld;
}

// The corporate user's own connection: a new connection to the partition,
// bound as dn with password.  Status of the attempt; *out is set on success
// only.
int bind_corporate_user(const partition_info* p, const char* dn, const char* password, LDAP** out) {
    int status = LDAP_SUCCESS;
    LDAP* ld = open_handle(p->hostname, p->port_num, p->orv_ssl_enabled == 1, &status);
    if (!ld) return status;
    int deref = LDAP_DEREF_NEVER;
    status = orv::status_from_ldap(ldap_set_option(ld, LDAP_OPT_DEREF, &deref));
    if (status == LDAP_SUCCESS) status = orv::simple_bind(ld, dn, password);
    if (status != LDAP_SUCCESS) {
        orv::unbind(ld);
        return status;
    }
    *out = ld;
    return LDAP_SUCCESS;
}

// A temporary connection to the library's own server, connected now so that
// an unreachable server shows here and not as an unsent bind.  *status: 0,
// or why there is no connection.
LDAP* open_temporary_connection(int* status) {
    const bool ssl = _orvSSLEnabled == 1;
    LDAP* ld = open_handle(orv_Srv, orv_Port, ssl, status);
    if (ld) {
        *status = orv::status_from_ldap(ldap_connect(ld));
        if (*status != LDAP_SUCCESS) orv::unbind(ld);
    }
    if (!ld)
        ORV_DEBUG(ssl ? "SSL Connection couldn't be created" : "non-SSL Connection couldn't be created",
                  *status);
    return ld;
}

// What one bind on the temporary connection came to.
struct BindOutcome {
    int status = LDAP_SUCCESS;  // the bind's result, or why there is none
    int policyError = ORV_PWDPOLICY_NO_ERROR;
    int warningKind = ORV_PWDPOLICY_WARNING_NONE;
    int warningValue = 0;
};

// Simple bind as dn with the password policy request control, waiting at
// most the library's time-out for the answer (the request is abandoned
// then: 85).  Only a result the server sent and the library parsed sets the
// status from the server.
BindOutcome bind_with_policy_control(LDAP* ld, const char* dn, const char* password) {
    BindOutcome out;
    berval cred{static_cast<ber_len_t>(std::strlen(password)), const_cast<char*>(password)};
    LDAPControl policyRequest{};
    policyRequest.ldctl_oid = const_cast<char*>(LDAP_CONTROL_PASSWORDPOLICYREQUEST);
    policyRequest.ldctl_iscritical = 0;
    LDAPControl* requestControls[] = {&policyRequest, nullptr};

    int msgid = 0;
    out.status = orv::status_from_ldap(
        ldap_sasl_bind(ld, dn, LDAP_SASL_SIMPLE, &cred, requestControls, nullptr, &msgid));
    ORV_DEBUG("ldap_sasl_bind:", out.status);
    if (out.status != LDAP_SUCCESS) return out;

    timeval limit{orv::g_timeout_seconds, 0};
    LDAPMessage* raw = nullptr;
    const int type = ldap_result(ld, msgid, LDAP_MSG_ALL, orv::g_timeout_seconds > 0 ? &limit : nullptr, &raw);
    orv::LdapMsg result(raw);
    if (type == 0) {
        ORV_DEBUG("No answer to the bind in time; seconds: ", orv::g_timeout_seconds);
        int rc = orv::status_from_ldap(ldap_abandon_ext(ld, msgid, nullptr, nullptr));
        if (rc != LDAP_SUCCESS) ORV_DEBUG("Abandon of the bind: ", rc);
        out.status = orv::kTimeout;
        return out;
    }
    if (type < 0 || !result) {
        out.status = orv::last_error(ld);
        if (out.status == LDAP_SUCCESS) out.status = orv::kServerDown;
        ORV_DEBUG("No bind result: ", out.status);
        return out;
    }
    int code = LDAP_OTHER;
    char* message = nullptr;
    LDAPControl** controls = nullptr;
    const int parsed =
        orv::status_from_ldap(ldap_parse_result(ld, result.get(), &code, nullptr, &message, nullptr, &controls, 0));
    orv::LdapString messageOwner(message);
    orv::LdapControls controlsOwner(controls);
    if (parsed != LDAP_SUCCESS) {
        ORV_DEBUG("Bind result not readable: ", parsed);
        out.status = parsed;
        return out;
    }
    out.status = orv::status_from_ldap(code);
    if (message && *message) ORV_DEBUG("Bind message: ", message);
    if (controls) ldap_parse_pwdpolicy_response(ld, controls, &out.policyError, &out.warningKind, &out.warningValue);
    return out;
}

}  // namespace

namespace orv {

bool check_not_made(int status) { return status >= kServerDown && status <= kReferralLimitExceeded; }

bool corporate_answer_is_final(int status) {
    return status == LDAP_SUCCESS || status == LDAP_INVALID_CREDENTIALS || check_not_made(status);
}

int inactive_user_check(LDAP* ld, const char* userDn, bool* inactive) {
    *inactive = false;
    if (!userDn) return ORV_LDAPLIB_INVALID_INPUT;
    const std::string filter = std::string(kInactiveRoleFilter) + "member" + ORV_CONSTANT_EQUALS +
                               filter_value(userDn) + "))";
    ORV_DEBUG("Search Filter: ", filter);
    const char* noAttrs[] = {LDAP_NO_ATTRS, nullptr};
    LdapMsg res;
    int rc = search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(), noAttrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    const int count = res ? ldap_count_entries(ld, res.get()) : -1;
    if (count < 0) return last_error(ld) != LDAP_SUCCESS ? last_error(ld) : kDecodingError;
    // One or more such roles make the user inactive.
    *inactive = count > 0;
    return LDAP_SUCCESS;
}

int password_reset_check(LDAP* ld, const char* userDn, bool* reset) {
    *reset = false;
    const char* attrs[] = {kPasswordMustChangeAttr, nullptr};
    LdapMsg res;
    int rc = search(ld, userDn, LDAP_SCOPE_BASE, "objectclass=*", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    ORV_DEBUG("Search Finished, Reading other entries", "");
    LDAPMessage* entry = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) {
        // The user's own entry must be readable to know that it is not reset.
        ORV_DEBUG("Entry Failed", "");
        rc = last_error(ld);
        return rc != LDAP_SUCCESS ? rc : LDAP_NO_SUCH_OBJECT;
    }
    BerElement* ber = nullptr;
    LdapString attr(ldap_first_attribute(ld, entry, &ber));
    BerPtr berOwner(ber);
    if (!attr) return LDAP_SUCCESS;
    ORV_DEBUG("Attribute found: ", attr.get());
    LdapBerValues vals(ldap_get_values_len(ld, entry, attr.get()));
    for (berval** v = vals.get(); v && *v; ++v) {
        if (std::string((*v)->bv_val, (*v)->bv_len) == "on") {
            ORV_DEBUG("Password is resetted", "");
            *reset = true;
            break;
        }
    }
    return LDAP_SUCCESS;
}

// Corporate mode: the check in the library's own directory for a user the
// corporate partition could not authenticate.  The search mechanism and the
// mode are those of standalone mode for the duration of the check.
int authenticate_locally_in_corporate_mode(const char* uid, const char* passwd) {
    mechanism = 0;
    ORV_OPERATION_MODE = 0;
    int r = _authenticateNonCorporateUser(orv_ld, uid, passwd);
    mechanism = operatingMechanism == 1 ? 1 : 0;
    ORV_OPERATION_MODE = 1;
    if (r != 0) {
        ORV_DEBUG("Local user authentication failed", "");
    } else {
        release_corporate_user_connection();
        corporate_user_ld = corporate_admin_ld;
    }
    return r;
}

}  // namespace orv

extern "C" {

int orvlib_authenticate_user(LDAP* ld, const char* uid, const char* passwd) {
    ORV_TRACE();
    if (!ld || !orv_ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    ORV_DEBUG("Uid: ", uid ? uid : "");
    ORV_DEBUG("Password", passwd ? passwd : "");

    if (ORV_OS_AUTH == 1) return _authenticateOSUser(orv_ld, uid, passwd);

    if (ORV_OPERATION_MODE == 1) {
        user_authenticated = 1;
        int r = _authenticateCorporateUser(orv_ld, uid, passwd);
        // A user the partition knows is never tried locally: not with a
        // wrong password, nor when the bind could not be made.
        if (orv::corporate_answer_is_final(r)) return r;
        return orv::authenticate_locally_in_corporate_mode(uid, passwd);
    }
    if (ORV_OPERATION_MODE == 0) return _authenticateNonCorporateUser(orv_ld, uid, passwd);
    return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
}

int _authenticateCorporateUser(LDAP* /*ld*/, const char* uid, const char* passwd) {
    ORV_TRACE();
    const partition_info* p = PARTITION_INFO;
    const bool blankAllowed = p && p->partition_allows_blank_password != 0;
    if (!passwd || !*passwd) {
        if (!blankAllowed) {
            ORV_DEBUG("Make sure password is not NULL or empty", "");
            return store(ORV_LDAPLIB_INVALID_INPUT);
        }
        // A bind with a DN and no password is an unauthenticated bind, which
        // servers answer with success: it proves nothing.
        ORV_DEBUG("An empty password authenticates nobody", "");
        return orv::report(LDAP_INVALID_CREDENTIALS);
    }
    const std::string login = uid ? uid : "";
    if (login.find('*') != std::string::npos) {
        ORV_DEBUG("Username can not have a wild card character while login", login);
        return store(ORV_LDAPLIB_INVALID_INPUT);
    }
    if (!corporate_admin_ld || !p) {
        ORV_DEBUG("corporate_admin_ld is NULL", "");
        return store(ORV_LDAPLIB_INVALID_PARTITION_INFO);
    }

    const std::string filter = std::string("(") + (p->user_logon_attribute_name ? p->user_logon_attribute_name : "") +
                               ORV_CONSTANT_EQUALS + orv::filter_value(login) + ")";
    ORV_DEBUG("Search Filter: ", filter);
    orv::LdapMsg res;
    int rc = orv::search(corporate_admin_ld, CORP_PEOPLE_SEARCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(),
                         nullptr, 1, res);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Search for the user failed", rc);
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    LDAPMessage* entry = res ? ldap_first_entry(corporate_admin_ld, res.get()) : nullptr;
    if (!entry) {
        ORV_DEBUG("Unable to read first entry from corporate ldap", "");
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    std::string dn = orv::entry_dn(corporate_admin_ld, entry);
    res.reset();
    if (dn.empty()) {
        ORV_DEBUG("Unable to get the DN for the user", "");
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    if (isValidMetaGroupMember(dn.c_str(), 0) != 0) {
        ORV_DEBUG("User not found", dn);
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    ORV_DEBUG("Corporate DN:", dn);

    // The user is bound on a connection of its own; the administrative
    // connection keeps the administrator's identity.
    LDAP* userLd = nullptr;
    rc = bind_corporate_user(p, dn.c_str(), passwd, &userLd);
    if (orv::check_not_made(rc)) {
        ORV_DEBUG("The corporate server did not answer the bind", rc);
        return orv::report(rc);
    }
    keep_credentials(dn.c_str(), passwd);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Password for the user is wrong", rc);
        return orv::report(LDAP_INVALID_CREDENTIALS);
    }
    release_corporate_user_connection();
    corporate_user_ld = userLd;
    return orv::report(LDAP_SUCCESS);
}

int _authenticateNonCorporateUser(LDAP* ld, const char* uid, const char* passwd) {
    ORV_TRACE();
    if (!passwd || !*passwd) {
        ORV_DEBUG("Make sure password is not NULL or empty", "");
        return store(ORV_LDAPLIB_INVALID_INPUT);
    }
    orv::OrvString userDn(orvlib_get_user_dn(uid));
    if (!userDn) {
        ORV_DEBUG("Make sure user id is not NULL", "");
        return store(ORV_LDAPLIB_INVALID_INPUT);
    }
    ORV_DEBUG("user id: ", userDn.get());
    ORV_DEBUG("Password", passwd);

    bool inactive = false;
    int rc = orv::inactive_user_check(ld, userDn.get(), &inactive);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Inactive user check failed", rc);
        return orv::report(rc);
    }
    if (inactive) {
        keep_credentials(userDn.get(), passwd);
        ORV_DEBUG("User is Inactive", userDn.get());
        return store(ORV_LDAPLIB_INACTIVE_USER);
    }
    rc = _authenticateUserTempConn(userDn.get(), passwd);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Temporary connection did not authenticate the user", rc);
        if (!orv::check_not_made(rc)) keep_credentials(userDn.get(), passwd);
        return store(rc);
    }
    bool reset = false;
    rc = orv::password_reset_check(ld, userDn.get(), &reset);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Password reset check failed", rc);
        return orv::report(rc);
    }
    keep_credentials(userDn.get(), passwd);
    if (reset) {
        ORV_DEBUG("User's Password has been reset", "");
        return store(ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET);
    }
    if (ORV_OPERATION_MODE == 0 && isServerInStandaloneMode == 1 && corporate_admin_ld) {
        if (corporate_user_ld == corporate_admin_ld) corporate_user_ld = nullptr;
        orv::unbind(corporate_admin_ld);
    }
    return orv::report(LDAP_SUCCESS);
}

int _authenticateUserTempConn(const char* userDn, const char* password) {
    ORV_TRACE();
    if (!password || !*password) {
        // An unauthenticated bind would succeed without any password check.
        ORV_DEBUG("An empty password authenticates nobody", "");
        return orv::report(LDAP_INVALID_CREDENTIALS);
    }
    int status = LDAP_SUCCESS;
    LDAP* tmp = open_temporary_connection(&status);
    if (!tmp) return orv::report(status);

    const BindOutcome bind = bind_with_policy_control(tmp, userDn, password);
    orv::unbind(tmp);
    if (bind.policyError == ORV_PWDPOLICY_PASSWORD_EXPIRED) {
        ORV_DEBUG("Password has expired", "");
        return store(ORV_LDAPLIB_PASSWORD_HAS_EXPIRED);
    }
    if (bind.policyError == ORV_PWDPOLICY_ACCOUNT_LOCKED) {
        ORV_DEBUG("Account is locked", "");
        return store(ORV_LDAPLIB_ACCOUNT_LOCKED);
    }
    if (bind.warningKind == ORV_PWDPOLICY_WARNING_EXPIRY) {
        password_expiry_time = bind.warningValue;
        ORV_DEBUG("Password expires in seconds: ", bind.warningValue);
    }
    return orv::report(bind.status);
}

int _isUsersPasswordReset(LDAP* ld, const char* user_dn) {
    ORV_TRACE();
    bool reset = false;
    const int rc = orv::password_reset_check(ld, user_dn, &reset);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    return reset ? 1 : 0;
}

int _isUserInactive(LDAP* ld, const char* userDn) {
    ORV_TRACE();
    bool inactive = false;
    const int rc = orv::inactive_user_check(ld, userDn, &inactive);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    return inactive ? 1 : 0;
}

int _authenticateOSUser(LDAP* ld, const char* uid, const char* passwd) {
    ORV_TRACE();
    if (!passwd || !*passwd) {
        ORV_DEBUG("Make sure password is not NULL or empty", "");
        return store(ORV_LDAPLIB_INVALID_INPUT);
    }
    std::string value = std::string(uid ? uid : "") + ":" + passwd;
    orv::ExtendedResponse answer;
    int rc = orv::extended_operation(ld, kOsAuthOid, value, &answer);
    orv::wipe(value);
    if (orv::check_not_made(rc)) {
        ORV_DEBUG("The server did not answer the check", rc);
        return orv::report(rc);
    }
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Password for the user is wrong", rc);
        return orv::report(LDAP_INVALID_CREDENTIALS);
    }
    ORV_DEBUG("Operation Successfull", "");
    if (answer.hasOid)
        ORV_DEBUG("OID returned:", answer.oid);
    else
        ORV_DEBUG("No OID returned:", "");
    return orv::report(LDAP_SUCCESS);
}

int attempt_simple_bind(LDAP* ld) {
    ORV_TRACE();
    ORV_DEBUG("User DN: ", _user_id ? _user_id : "");
    // Without a DN and a password the bind would be anonymous or
    // unauthenticated: it would succeed and prove nothing.
    if (!_user_id || !*_user_id || !_pwd || !*_pwd) return orv::report(LDAP_INVALID_CREDENTIALS);
    return orv::report(orv::simple_bind(ld, _user_id, _pwd));
}

}  // extern "C"
