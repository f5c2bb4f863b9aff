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
// The last credentials tried are kept in _user_id and _pwd (replaced before
// the password is known to be right) for binding again after a reconnect.

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

void replace_owned(char*& target, const char* value) {
    orvlib_memfree(target);
    target = _orvlib_dupString(value);
}

// Stores a status without writing the status line (the checks whose outcome
// the caller reports itself).
int store(int status) {
    ldapErrCode = status;
    return status;
}

// Closes the corporate user connection unless it is the administrative one.
void release_corporate_user_connection() {
    if (corporate_user_ld == corporate_admin_ld)
        corporate_user_ld = nullptr;
    else
        orv::unbind(corporate_user_ld);
}

// A temporary connection to the library's own server, connected now so that
// an unreachable server shows here and not as an unsent bind.
LDAP* open_temporary_connection() {
    LDAP* ld = nullptr;
    if (_orvSSLEnabled == 1) {
        ld = create_ssl_connection(orv_Srv, orv_Port);
        if (!ld) ORV_DEBUG("SSL Connection couldn't be created", "");
    } else {
        ld = orv::open_plain(orv_Srv, orv_Port);
        if (!ld) ORV_DEBUG("non-SSL Connection couldn't be created", "");
    }
    return ld;
}

}  // namespace

namespace orv {

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
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    ORV_DEBUG("Uid: ", uid ? uid : "");
    ORV_DEBUG("Password", passwd ? passwd : "");

    if (ORV_OS_AUTH == 1) return _authenticateOSUser(orv_ld, uid, passwd);

    if (ORV_OPERATION_MODE == 1) {
        user_authenticated = 1;
        int r = _authenticateCorporateUser(orv_ld, uid, passwd);
        // A user the partition knows, with a wrong password, is never tried
        // locally.
        if (r == LDAP_SUCCESS || r == LDAP_INVALID_CREDENTIALS) return r;
        return orv::authenticate_locally_in_corporate_mode(uid, passwd);
    }
    if (ORV_OPERATION_MODE == 0) return _authenticateNonCorporateUser(orv_ld, uid, passwd);
    return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
}

int _authenticateCorporateUser(LDAP* /*ld*/, const char* uid, const char* passwd) {
    ORV_TRACE();
    const partition_info* p = PARTITION_INFO;
    const bool blankAllowed = p && p->partition_allows_blank_password != 0;
    if (!blankAllowed && (!passwd || !*passwd)) {
        ORV_DEBUG("Make sure password is not NULL or empty", "");
        return store(ORV_LDAPLIB_INVALID_INPUT);
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

    // The login name goes into the filter exactly as given.
    std::string filter = std::string(p->user_logon_attribute_name ? p->user_logon_attribute_name : "") +
                         ORV_CONSTANT_EQUALS + login;
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
    if (dn.empty()) {
        ORV_DEBUG("Unable to get the DN for the user", "");
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }
    if (isValidMetaGroupMember(dn.c_str(), 0) != 0) {
        res.reset();
        ORV_DEBUG("User not found", dn);
        return orv::report(LDAP_NO_SUCH_OBJECT);
    }

    replace_owned(_user_id, dn.c_str());
    replace_owned(_pwd, passwd);
    ORV_DEBUG("Corporate DN:", dn);

    // The administrative connection stays bound as the user afterwards.
    rc = orv::simple_bind(corporate_admin_ld, dn.c_str(), passwd ? passwd : "");
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Password for the user is wrong", rc);
        return orv::report(LDAP_INVALID_CREDENTIALS);
    }

    release_corporate_user_connection();
    corporate_user_ld = create_ldap_connection(p->hostname, p->port_num, dn.c_str(), passwd ? passwd : "");
    // Whether or not the user connection could be made, the bind succeeded.
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
    replace_owned(_user_id, userDn.get());
    replace_owned(_pwd, passwd);
    ORV_DEBUG("user id: ", _user_id);
    ORV_DEBUG("Password", _pwd);

    if (_isUserInactive(ld, userDn.get()) == 1) {
        ORV_DEBUG("User is Inactive", userDn.get());
        return store(ORV_LDAPLIB_INACTIVE_USER);
    }
    if (_authenticateUserTempConn(userDn.get(), passwd) != 0) {
        // The status the check stored; a connection that could not be opened
        // stored nothing, and the previous status stands.
        ORV_DEBUG("Temporary connection did not authenticate the user", "");
        return ldapErrCode;
    }
    if (_isUsersPasswordReset(ld, userDn.get()) == 1) {
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
    LDAP* tmp = open_temporary_connection();
    if (!tmp) return LDAP_OTHER;  // 80, not stored

    int version = LDAP_VERSION3;
    int rc = ldap_set_option(tmp, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS) {
        ORV_DEBUG("Failed in ldap_set_option", rc);
        orv::unbind(tmp);
        return store(rc);
    }
    if (ldap_connect(tmp) != LDAP_SUCCESS) {
        ORV_DEBUG(_orvSSLEnabled == 1 ? "SSL Connection couldn't be created"
                                      : "non-SSL Connection couldn't be created",
                  "");
        orv::unbind(tmp);
        return LDAP_OTHER;  // 80, not stored
    }

    std::string secret = password ? password : "";
    berval cred{static_cast<ber_len_t>(secret.size()), &secret[0]};
    LDAPControl policyRequest{};
    policyRequest.ldctl_oid = const_cast<char*>(LDAP_CONTROL_PASSWORDPOLICYREQUEST);
    policyRequest.ldctl_iscritical = 0;
    LDAPControl* requestControls[] = {&policyRequest, nullptr};

    int msgid = 0;
    rc = ldap_sasl_bind(tmp, userDn, LDAP_SASL_SIMPLE, &cred, requestControls, nullptr, &msgid);
    ORV_DEBUG("ldap_sasl_bind:", rc);

    // The bind's result starts at 0 and only a parsed result replaces it.
    int bindResult = LDAP_SUCCESS;
    int policyError = ORV_PWDPOLICY_NO_ERROR;
    int warningKind = ORV_PWDPOLICY_WARNING_NONE;
    int warningValue = 0;
    if (rc == LDAP_SUCCESS) {
        LDAPMessage* result = nullptr;
        int type = ldap_result(tmp, msgid, LDAP_MSG_ALL, nullptr, &result);
        if (type > 0 && result) {
            int code = LDAP_SUCCESS;
            char* message = nullptr;
            LDAPControl** controls = nullptr;
            int prc = ldap_parse_result(tmp, result, &code, nullptr, &message, nullptr, &controls, 1);
            orv::LdapString messageOwner(message);
            orv::LdapControls controlsOwner(controls);
            if (prc == LDAP_SUCCESS) {
                bindResult = code;
                if (message && *message) ORV_DEBUG("Bind message: ", message);
                if (controls)
                    ldap_parse_pwdpolicy_response(tmp, controls, &policyError, &warningKind, &warningValue);
            }
        } else if (result) {
            ldap_msgfree(result);
        }
    }

    if (policyError == ORV_PWDPOLICY_PASSWORD_EXPIRED) {
        orv::unbind(tmp);
        ORV_DEBUG("Password has expired", "");
        return store(ORV_LDAPLIB_PASSWORD_HAS_EXPIRED);
    }
    if (policyError == ORV_PWDPOLICY_ACCOUNT_LOCKED) {
        orv::unbind(tmp);
        ORV_DEBUG("Account is locked", "");
        return store(ORV_LDAPLIB_ACCOUNT_LOCKED);
    }
    if (warningKind == ORV_PWDPOLICY_WARNING_EXPIRY) {
        password_expiry_time = warningValue;
        ORV_DEBUG("Password expires in seconds: ", warningValue);
    }
    orv::unbind(tmp);
    return orv::report(bindResult);
}

int _isUsersPasswordReset(LDAP* ld, const char* user_dn) {
    ORV_TRACE();
    const char* attrs[] = {kPasswordMustChangeAttr, nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, user_dn, LDAP_SCOPE_BASE, "objectclass=*", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    ORV_DEBUG("Search Finished, Reading other entries", "");
    LDAPMessage* entry = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) {
        ORV_DEBUG("Entry Failed", "");
        return store(orv::last_error(ld));
    }
    BerElement* ber = nullptr;
    orv::LdapString attr(ldap_first_attribute(ld, entry, &ber));
    orv::BerPtr berOwner(ber);
    if (!attr) return 0;
    ORV_DEBUG("Attribute found: ", attr.get());
    orv::LdapBerValues vals(ldap_get_values_len(ld, entry, attr.get()));
    for (berval** v = vals.get(); v && *v; ++v) {
        if (std::string((*v)->bv_val, (*v)->bv_len) == "on") {
            ORV_DEBUG("Password is resetted", "");
            return 1;
        }
    }
    return 0;
}

int _isUserInactive(LDAP* ld, const char* userDn) {
    ORV_TRACE();
    std::string filter = std::string("(&(objectclass=morvaneRole)(cn=Inactive User)(") + "member" +
                         ORV_CONSTANT_EQUALS + (userDn ? userDn : "") + "))";
    ORV_DEBUG("Search Filter: ", filter);
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_GROUP_SRCH_BASE, LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, res);
    if (rc != LDAP_SUCCESS || !res) return 0;
    // A user listed by two such roles counts as active.
    return ldap_count_entries(ld, res.get()) == 1 ? 1 : 0;
}

int _authenticateOSUser(LDAP* ld, const char* uid, const char* passwd) {
    ORV_TRACE();
    if (!passwd || !*passwd) {
        ORV_DEBUG("Make sure password is not NULL or empty", "");
        return store(ORV_LDAPLIB_INVALID_INPUT);
    }
    const std::string value = std::string(uid ? uid : "") + ":" + passwd;
    orv::ExtendedResponse answer;
    int rc = orv::extended_operation(ld, kOsAuthOid, value, &answer);
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
    return orv::report(orv::simple_bind(ld, _user_id, _pwd ? _pwd : ""));
}

}  // extern "C"
