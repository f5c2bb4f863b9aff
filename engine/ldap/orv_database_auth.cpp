// orv_database_auth.cpp - authentication of a user for one database of the
// client application, with the database's second factors.
//
//   system-login factor   database "orvSystemLogin2FactorAuthenticationRequired"
//                         non-zero: the account running the client (login
//                         name of the process's real user id) must be the
//                         user's "orvOSPosixUserName", letter case aside.
//   RADIUS factor         database "orvRadius2FactorAuthenticationRequired" 1
//                         and the user's first value "1": after the password
//                         the caller gets 3043 and must pass
//                         orvlib_authenticate_radius_user, which has the
//                         directory server ask the RADIUS server.
// The user's entry found on the way is kept in AUTH_USER_ORVLIBENTRY and is
// the source of the per-user settings.
//
// Nothing here passes by default: a user look-up, repository or database
// read that could not be made refuses the user with its status (a database
// whose factors cannot be read is not taken for one without factors), and
// the password check is that of orvlib_authenticate_user.

#include <pwd.h>
#include <strings.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_utils.h"
#include "orv_search_internal.hpp"

namespace {

int store_status(int status) {
    ldapErrCode = status;
    return status;
}

const char kRadiusOid[] = "1.3.6.1.4.1.47391.0.1000.1";

// Attribute identifiers of the settings read here.
constexpr int kAttrPosixUserName = 15;
constexpr int kAttrRadiusRequired = 64;
constexpr int kAttrRadiusUserName = 67;
constexpr int kAttrSystemLoginRequired = 69;

// Texts of radius_err_str.  The variable points at one of these; it is
// never freed.
char kRadiusNotConfigured[] = "Radius server not configured\n";
char kRadiusUserMissing[] = "Radius user name not present\n";
char kRadiusUnreachable[] = "Unable to connect to radius server\n";

// RADIUS results of the extended operation.
constexpr int kRadiusRejected = 2;
constexpr int kRadiusNoAnswer = 1;

// Decimal value of the first value of attribute id in a database's entry
// into *value (0 when there is no database id, or the database, the
// attribute or the value is missing).  Status of the read: a read that
// failed otherwise than with "no such object" is an error.
int database_setting(LDAP* ld, const char* database_id, int id, int* value) {
    *value = 0;
    if (!database_id) return LDAP_SUCCESS;
    ORVLibEntry* entry = orvlib_get_database_details_internal(ld, database_id);
    if (!entry) return ldapErrCode == LDAP_NO_SUCH_OBJECT ? LDAP_SUCCESS : ldapErrCode;
    const char* text = orv::entry_first_value(entry, id);
    *value = text ? std::atoi(text) : 0;
    orvlib_orvlibentry_free(entry);
    return LDAP_SUCCESS;
}

// The user's entry in the directory the mode names; *status: 0 when found,
// 32 when the user is not there, otherwise the failed search's status.
ORVLibEntry* look_up_user(const char* uid, int* status) {
    ldapErrCode = LDAP_SUCCESS;
    ORVLibEntry* entry = get_auth_user_details(orv_ld, uid);
    *status = entry ? LDAP_SUCCESS : (ldapErrCode != LDAP_SUCCESS ? ldapErrCode : LDAP_NO_SUCH_OBJECT);
    return entry;
}

}  // namespace

namespace orv {

const char* entry_first_value(const ORVLibEntry* entry, int id) {
    if (!entry || !entry->orvlibEntryAttrData) return nullptr;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a; ++a) {
        if ((*a)->attrId == id && (*a)->attrVals && (*a)->attrVals[0]) return (*a)->attrVals[0];
    }
    return nullptr;
}

std::string radius_request_value(const char* host, int port, const char* secret, const char* user,
                                 const char* password) {
    // The port is written into room for nine characters.
    std::string portText = std::to_string(port).substr(0, 9);
    return std::string(host ? host : "") + ":" + portText + ":" + (secret ? secret : "") + ":" +
           (user ? user : "") + ":" + (password ? password : "");
}

}  // namespace orv

extern "C" {

int orvlib_authenticate_database_user(LDAP* ld, const char* uid, const char* passwd,
                                      const char* repository_id) {
    ORV_TRACE();
    ORV_DEBUG("Uid: ", uid ? uid : "");
    ORV_DEBUG("Password", passwd ? passwd : "");
    ORV_DEBUG("Repository ID", repository_id ? repository_id : "");
    if (!ld || !orv_ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    // The login name goes into filters as an escaped value and into the DN
    // with the DN escapes: it is used as given.
    const char* login = uid;

    orvlib_orvlibentry_free(AUTH_USER_ORVLIBENTRY);
    AUTH_USER_ORVLIBENTRY = nullptr;
    if (ORV_OPERATION_MODE == 1) ORV_OP_MODE_SEARCH = 1;

    int status = LDAP_SUCCESS;
    AUTH_USER_ORVLIBENTRY = look_up_user(login, &status);
    if (!AUTH_USER_ORVLIBENTRY && ORV_OPERATION_MODE == 1) {
        // Not on the corporate partition: look in the library's own directory.
        ORV_OPERATION_MODE = 0;
        mechanism = 0;
        AUTH_USER_ORVLIBENTRY = look_up_user(login, &status);
        ORV_OPERATION_MODE = 1;
        mechanism = operatingMechanism == 1 ? 1 : 0;
    }
    if (!AUTH_USER_ORVLIBENTRY) return orv::report(status);

    // No repository (or an unknown one): no database and no factors.  A
    // look-up that could not be made decides nothing.
    char* rawDatabaseId = nullptr;
    int rc = LDAP_SUCCESS;
    if (repository_id && *repository_id) rc = get_database_id_from_repository_id(orv_ld, repository_id, &rawDatabaseId);
    orv::OrvString databaseId(rawDatabaseId);
    orv::report(rc);
    if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT) return rc;

    status = check_and_perform_system_login_2factor_authentication(orv_ld, login, databaseId.get());
    if (status == 0 && ORV_OS_AUTH == 1) status = _authenticateOSUser(orv_ld, login, passwd);
    // After an operating-system check the mode is 0, so the local check runs too.
    if (status == 0 && ORV_OPERATION_MODE == 0) status = _authenticateNonCorporateUser(orv_ld, login, passwd);
    if (status == 0 && ORV_OPERATION_MODE == 1) {
        user_authenticated = 1;
        ORV_OP_MODE_SEARCH = 1;
        status = _authenticateCorporateUser(orv_ld, login, passwd);
        if (!orv::corporate_answer_is_final(status))
            status = orv::authenticate_locally_in_corporate_mode(login, passwd);
    }
    if (status == 0) status = check_for_radius_2factor_authentication(orv_ld, login, databaseId.get());
    return orv::report(status);
}

ORVLibEntry* get_auth_user_details(LDAP* ld, const char* uid) {
    ORV_TRACE();
    ORV_DEBUG("user uid: ", uid ? uid : "");
    if (!uid) {
        store_status(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    LDAP* directory = ORV_OPERATION_MODE == 1 ? corporate_admin_ld : ld;
    // getDNFromUid stores its search's status: 0 when it found nobody.
    orv::OrvString dn(getDNFromUid(directory, orv::filter_value(uid).c_str(), nullptr, nullptr));
    ORV_DEBUG("Search Filter: ", dn ? dn.get() : "");
    if (!dn) {
        if (ldapErrCode == LDAP_SUCCESS) store_status(LDAP_NO_SUCH_OBJECT);
        return nullptr;
    }

    // A search of its own: a caller iterating a search keeps its place.
    orv::NestedSearch nested;
    LDAPMessage* res = nullptr;
    int rc = orvlib_search_ext_s(ld, dn.get(), ORV_SEARCH_PEOPLE, &res);
    orv::LdapMsg owned(res);
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return nullptr;
    }
    ORVLibEntry* entry = nullptr;
    if (res) orvlib_first_entry(ld, &entry, res);
    store_status(entry ? LDAP_SUCCESS : LDAP_NO_SUCH_OBJECT);
    return entry;
}

int check_and_perform_system_login_2factor_authentication(LDAP* ld, const char* uid,
                                                           const char* database_id) {
    ORV_TRACE();
    int required = 0;
    const int rc = database_setting(ld, database_id, kAttrSystemLoginRequired, &required);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Database settings could not be read", rc);
        return rc;
    }
    ORV_DEBUG("Database requires system login: ", required);
    if (required == 0) return 0;
    return check_and_perform_system_login_2factor_auth_unix(ld, uid);
}

int check_and_perform_system_login_2factor_auth_unix(LDAP* ld, const char* uid) {
    ORV_TRACE();
    orv::OrvString loginName(get_unix_login_name());
    ORV_DEBUG("user_login_name: ", loginName ? loginName.get() : "");
    orv::OrvString posixName(get_posix_user_name_from_user(ld, uid));
    ORV_DEBUG("unix_user_name_from_user_object: ", posixName ? posixName.get() : "");
    if (posixName && loginName && strcasecmp(posixName.get(), loginName.get()) == 0) {
        ORV_DEBUG("system user authentication Successful", "");
        return 0;
    }
    ORV_DEBUG("system user authentication failing", "");
    return LDAP_INVALID_CREDENTIALS;
}

int check_for_radius_2factor_authentication(LDAP* ld, const char* uid, const char* database_id) {
    ORV_TRACE();
    ORV_DEBUG("uid for authentication: ", uid ? uid : "");
    ORV_DEBUG("Authentication Database ID: ", database_id ? database_id : "");
    int status = 0;
    if (database_id && is_user_configured_radius_2factor_authentication(ld, uid) == 1) {
        int required = 0;
        status = database_setting(ld, database_id, kAttrRadiusRequired, &required);
        if (status == LDAP_SUCCESS && required == 1) status = ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED;
    }
    return orv::report(status);
}

int is_user_configured_radius_2factor_authentication(LDAP* /*ld*/, const char* /*uid*/) {
    ORV_TRACE();
    const char* value = orv::entry_first_value(AUTH_USER_ORVLIBENTRY, kAttrRadiusRequired);
    return value && std::strcmp(value, "1") == 0 ? 1 : 0;
}

int is_database_configured_radius_2factor_authentication(LDAP* ld, const char* database_id) {
    ORV_TRACE();
    int value = 0;
    database_setting(ld, database_id, kAttrRadiusRequired, &value);
    ORV_DEBUG("Database requires RADIUS: ", value);
    return value;
}

int is_database_configured_sys_login_2factor_authentication(LDAP* ld, const char* database_id) {
    ORV_TRACE();
    int value = 0;
    database_setting(ld, database_id, kAttrSystemLoginRequired, &value);
    ORV_DEBUG("Database requires system login: ", value);
    return value;
}

int check_user_and_db_for_radius_auth(LDAP* ld, const char* uid, const char* database_id) {
    ORV_TRACE();
    return is_user_configured_radius_2factor_authentication(ld, uid) == 1 &&
                   is_database_configured_radius_2factor_authentication(ld, database_id) == 1
               ? 1
               : 0;
}

char* get_unix_login_name(void) {
    ORV_TRACE();
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    passwd record{};
    passwd* found = nullptr;
    while (getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found) == ERANGE)
        buffer.resize(buffer.size() * 2);
    return found && found->pw_name ? _orvlib_dupString(found->pw_name) : nullptr;
}

char* get_posix_user_name_from_user(LDAP* /*ld*/, const char* /*uid*/) {
    ORV_TRACE();
    return _orvlib_dupString(orv::entry_first_value(AUTH_USER_ORVLIBENTRY, kAttrPosixUserName));
}

int orvlib_authenticate_radius_user(LDAP* ld, const char* uid, const char* passwd) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    ORV_DEBUG("Radius Username", uid ? uid : "");
    // Written masked: only the label "Password" follows the password log switch.
    ORV_DEBUG("Radius Password", "xxxxxxxx");

    if (ORVLIB_IS_RADIUS_CONFIGURED != 1) return ORV_LDAPLIB_RADIUS_NOT_CONFIGURED;
    if (!RADIUS_INFO || !RADIUS_INFO->radius_hostname) {
        radius_err_str = kRadiusNotConfigured;
        return orv::report(ORV_LDAPLIB_RADIUS_ERROR);
    }
    const char* radiusUser = uid ? uid : orv::entry_first_value(AUTH_USER_ORVLIBENTRY, kAttrRadiusUserName);
    if (!radiusUser) {
        radius_err_str = kRadiusUserMissing;
        return orv::report(ORV_LDAPLIB_RADIUS_ERROR);
    }
    if (!passwd || !*passwd) return orv::report(ORV_LDAPLIB_INVALID_INPUT);

    std::string value = orv::radius_request_value(RADIUS_INFO->radius_hostname, RADIUS_INFO->radius_port_number,
                                                  RADIUS_INFO->radius_secret, radiusUser, passwd);
    ORV_DEBUG("Value: ", orv::radius_request_value(RADIUS_INFO->radius_hostname,
                                                   RADIUS_INFO->radius_port_number, "xxxxxxxx",
                                                   radiusUser, "xxxxxxxx"));
    int rc = orv::extended_operation(orv_ld, kRadiusOid, value);
    // Wipe the copy that held the secret and the password.
    orv::wipe(value);

    int status = rc;
    if (rc == kRadiusRejected) {
        status = LDAP_INVALID_CREDENTIALS;
    } else if (rc == kRadiusNoAnswer || rc == orv::kServerDown) {
        radius_err_str = kRadiusUnreachable;
        status = ORV_LDAPLIB_RADIUS_ERROR;
    }
    return orv::report(status);
}

}  // extern "C"
