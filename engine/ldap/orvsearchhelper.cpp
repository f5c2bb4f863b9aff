// orvsearchhelper.cpp - search dispatch helpers: detection of the result
// paging control that a server supports.

#include <cstring>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_session.h"

namespace {
const char kPagedResultsOid[] = "1.2.840.113556.1.4.319";
const char kVlvOid[] = "2.16.840.1.113730.3.4.9";
}  // namespace

extern "C" {

void determine_control(LDAP* ld) {
    ORV_TRACE();
    const char* attrs[] = {"supportedControl", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, "", LDAP_SCOPE_BASE, "(objectclass=*)", attrs, 0, res);
    LDAPMessage* entry = rc == LDAP_SUCCESS ? ldap_first_entry(ld, res.get()) : nullptr;
    if (!entry) {
        ORV_DEBUG("Entry Failed", "");
        ldapErrCode = rc != LDAP_SUCCESS ? rc : orv::last_error(ld);
        return;
    }
    orv::LdapBerValues vals(ldap_get_values_len(ld, entry, "supportedControl"));
    if (!vals) {
        ORV_DEBUG("Fetching attribute failed", "");
        ldapErrCode = orv::last_error(ld);
        return;
    }
    // Whichever of the two controls the server lists first wins.
    for (berval** v = vals.get(); *v; ++v) {
        std::string oid((*v)->bv_val, (*v)->bv_len);
        if (oid == kVlvOid) {
            mechanism = ORV_VLV;
            return;
        }
        if (oid == kPagedResultsOid) {
            mechanism = ORV_PAGING;
            return;
        }
    }
}

}  // extern "C"
