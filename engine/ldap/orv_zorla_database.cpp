// orv_zorla_database.cpp - database objects of the client application:
// each database is registered with an access role, and its settings are
// read back by its id or by the repository its server is registered as.
//
//   database  orvZORLADatabaseId=<id>,ou=Databases,ou=Application Data,
//             ou=Morvane Zorla,ou=Applications,<suffix>
//             top, organizationalUnit, orvZORLADatabase
//   role      orvRoleId=<role id>,ou=roles,<suffix>
//             top, accessRole, morvanerole; cn "<name>(<port>@<host>)"
//
// The migration check reads "orvInstanceIsMigrated" of the configuration
// settings entry.

#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_registry.h"

namespace {

// Decimal text of the port, at most ten characters.
constexpr size_t kPortTextMax = 10;

const char kRoleDescription[] = "Database Access Role";

std::string database_dn(const char* databaseId) {
    return std::string("orvZORLADatabaseId=") + databaseId + ",ou=Databases," + "ou=Application Data," +
           "ou=Morvane Zorla," + "ou=Applications," + ORV_ROOT_SUFFIX;
}

}  // namespace

extern "C" {

char* get_zorla_database_dn_from_id(const char* databaseId) {
    ORV_TRACE();
    if (!databaseId) return nullptr;
    const std::string dn = database_dn(databaseId);
    ORV_DEBUG("ZORLA Database DN: ", dn);
    return _orvlib_dupString(dn.c_str());
}

int create_zorla_database(LDAP* ld, const char* databaseId, const char* databaseName,
                          const char* hostName, const char* portNumber) {
    ORV_TRACE();
    if (!databaseId) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", "organizationalUnit", "orvZORLADatabase"});
    request.add("orvZORLADatabaseId", databaseId);
    request.add("ou", databaseName);
    request.add("orvHostName", hostName);
    request.add("orvPortNumber", portNumber);
    orv::OrvString dn(get_zorla_database_dn_from_id(databaseId));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

int add_database_role(LDAP* ld, const char* roleId, const char* databaseId,
                      const char* databaseName, const char* hostName,
                      const char* databasePortNumber) {
    ORV_TRACE();
    // Whatever becomes of the add, the answer is 0: its status is the
    // library's last status.
    if (!roleId) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return 0;
    }
    const std::string cn = std::string(databaseName ? databaseName : "") + "(" +
                           (databasePortNumber ? databasePortNumber : "") + "@" +
                           (hostName ? hostName : "") + ")";
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", "accessRole", "morvanerole"});
    request.add("cn", cn.c_str());
    request.add("orvZORLADatabaseId", databaseId);
    request.add("description", kRoleDescription);
    request.add("orvRoleId", roleId);
    const std::string dn = std::string("orvRoleId=") + roleId + ",ou=roles" + ORV_CONSTANT_COMMA + ORV_ROOT_SUFFIX;
    ORV_DEBUG("Role DN: ", dn);
    orv::report(orv::add(ld, dn.c_str(), request.mods()));
    return 0;
}

int orvlib_create_zorla_database(LDAP* ld, const char* databaseId, const char* databaseName,
                                 const char* hostName, int portNumber) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    const std::string id = databaseId ? std::string(databaseId) : orv::fresh_uuid();
    ORV_DEBUG("ZORLADatabase ID: ", id);
    ORV_DEBUG("Database Name: ", databaseName ? databaseName : "");
    ORV_DEBUG("Host Name: ", hostName ? hostName : "");
    ORV_DEBUG("Port Number: ", portNumber);
    const std::string port = std::to_string(portNumber).substr(0, kPortTextMax);

    if (id.empty() ||
        create_zorla_database(orv_ld, id.c_str(), databaseName, hostName, port.c_str()) != LDAP_SUCCESS) {
        // The status shared with server registration.
        return orv::report(ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
    }

    const std::string role = orv::fresh_uuid();
    ORV_DEBUG("Role ID: ", role);
    // A role that cannot be added is not reported: add_database_role
    // answers 0 and leaves the add's status as the last status.
    if (add_database_role(orv_ld, role.empty() ? nullptr : role.c_str(), id.c_str(), databaseName,
                          hostName, port.c_str()) != 0)
        return orv::report(ORV_LDAPLIB_UNABLE_TO_CREATE_DB_ROLE);
    return 0;
}

ORVLibEntry* orvlib_get_database_details_internal(LDAP* ld, const char* databaseId) {
    ORV_TRACE();
    if (!databaseId) return nullptr;
    orv::OrvString dn(get_zorla_database_dn_from_id(databaseId));
    orv::LdapMsg res;
    int rc = orv::search(ld, dn.get(), LDAP_SCOPE_BASE, "objectclass=*", ORVLIB_ZORLA_DATABASE_ATTR_LIST, 0,
                         res);
    ldapErrCode = rc;
    if (rc != LDAP_SUCCESS) return nullptr;
    return orv::registry_record(ld, orv::first_entry(ld, res.get()), 0);
}

ORVLibEntry* orvlib_get_database_details(LDAP* ld, char* repository_id) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    char* raw = nullptr;
    orv::report(get_database_id_from_repository_id(orv_ld, repository_id, &raw));
    orv::OrvString database_id(raw);
    return orvlib_get_database_details_internal(orv_ld, database_id.get());
}

int orvlib_instance_is_migrated(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    const std::string dn = std::string("cn=ORVConfigurationSettings,") + ORV_ROOT_SUFFIX;
    const char* attrs[] = {"orvInstanceIsMigrated", nullptr};
    orv::LdapMsg res;
    const int rc = orv::search(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=*", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    LDAPMessage* entry = orv::first_entry(orv_ld, res.get());
    if (!entry) return orv::report(orv::last_error(orv_ld));

    // The first value of the first attribute.
    BerElement* ber = nullptr;
    orv::LdapString attr(ldap_first_attribute(orv_ld, entry, &ber));
    orv::BerPtr berOwner(ber);
    ORV_DEBUG("Attibutes: ", attr ? attr.get() : "");
    const std::string value = attr ? orv::first_value(orv_ld, entry, attr.get()) : std::string();
    return value == "1" ? 1 : 0;
}

}  // extern "C"
