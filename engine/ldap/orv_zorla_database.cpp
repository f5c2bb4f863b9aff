// orv_zorla_database.cpp - database objects of the client application: the
// settings of one database, read by its id.
//
// A database entry lives at
//   "orvZORLADatabaseId=<id>,ou=Databases,ou=Application Data,"
//   "ou=Morvane Zorla,ou=Applications,<suffix>"
// and carries the database's second-factor settings
// (ORVLIB_ZORLA_DATABASE_ATTR_LIST).

#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"

namespace {

std::string database_dn(const char* databaseId) {
    return std::string("orvZORLADatabaseId=") + databaseId + ",ou=Databases,ou=Application Data," +
           ORV_MORVANE_ZORLA_APP_SRCH_BASE;
}

}  // namespace

extern "C" {

ORVLibEntry* orvlib_get_database_details_internal(LDAP* ld, const char* databaseId) {
    ORV_TRACE();
    if (!databaseId) return nullptr;
    std::string dn = database_dn(databaseId);
    ORV_DEBUG("ZORLA Database DN: ", dn);
    orv::LdapMsg res;
    int rc = orv::search(ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=*", ORVLIB_ZORLA_DATABASE_ATTR_LIST, 0,
                         res);
    ldapErrCode = rc;
    if (rc != LDAP_SUCCESS) return nullptr;
    LDAPMessage* first = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!first) return nullptr;
    ORVLibEntry* entry = nullptr;
    populate_orvlibentry_entry(ld, &entry, &first);
    return entry;
}

}  // extern "C"
