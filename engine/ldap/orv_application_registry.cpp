// orv_application_registry.cpp - the application registry: servers of each
// tool and the facilities they offer, under
// "ou=Application Registry,<suffix>".  A repository's id is the id of its
// application server; the server entry's "orvExtendedKXSAttribute" names
// the repository's database.

#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"

extern "C" {

int get_database_id_from_repository_id(LDAP* ld, const char* repositoryId, char** database_id) {
    ORV_TRACE();
    if (database_id) *database_id = nullptr;
    if (!repositoryId) return 0;
    std::string dn = std::string("orvFullyQualifiedObjectId=") + repositoryId + ORV_CONSTANT_COMMA +
                     "ou=Application Registry," + ORV_ROOT_SUFFIX;
    ORV_DEBUG("zorla_server_dn: ", dn);
    const char* attrs[] = {"orvExtendedKXSAttribute", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=orvApplicationServer", attrs, 0, res);
    LDAPMessage* entry = res ? ldap_first_entry(ld, res.get()) : nullptr;
    if (entry && database_id) {
        // The first value of the first attribute returned.
        BerElement* ber = nullptr;
        orv::LdapString attr(ldap_first_attribute(ld, entry, &ber));
        orv::BerPtr berOwner(ber);
        if (attr) {
            orv::LdapValues vals(ldap_get_values(ld, entry, attr.get()));
            if (vals && vals.get()[0]) *database_id = _orvlib_dupString(vals.get()[0]);
        }
    }
    ORV_DEBUG("Database ID: ", database_id && *database_id ? *database_id : "");
    return rc;
}

}  // extern "C"
