// orvldap_config.cpp - server configuration read at session start: the
// corporate partition and the RADIUS server, kept in the library-owned
// records PARTITION_INFO and RADIUS_INFO until the library is
// uninitialised; and the user naming attribute and DN of the directory in use.

#include <cstdlib>
#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_helper.h"
#include "orvldap_session.h"

namespace {

char* copy_of(const std::string& value) { return _orvlib_dupString(value.c_str()); }

void replace_owned(char*& field, char* value) {
    orvlib_memfree(field);
    field = value;
}

// A record left over from an earlier session context is released before a
// new one is read, so repeated session contexts do not leak.
void release_partition_record() {
    if (!PARTITION_INFO) return;
    int mode = ORV_OPERATION_MODE;
    ORV_OPERATION_MODE = 1;
    free_partition_info();
    ORV_OPERATION_MODE = mode;
}

void release_radius_record() {
    if (!RADIUS_INFO) return;
    int flag = ORVLIB_IS_RADIUS_CONFIGURED;
    ORVLIB_IS_RADIUS_CONFIGURED = 1;
    free_radius_config_info();
    ORVLIB_IS_RADIUS_CONFIGURED = flag;
}

}  // namespace

extern "C" {

int populate_partition_info(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_PARTITION_SEARCH_BASE, LDAP_SCOPE_SUBTREE, "(objectclass=orvpartition)",
                         ORVLIB_PARTITION_ATTR_LIST, 0, res);
    if (rc != LDAP_SUCCESS) return orv::report(ORV_LDAPLIB_INVALID_PARTITION_INFO);

    release_partition_record();
    partition_info* p = partition_info_mem_alloc();
    if (!p) return orv::report(orv::kNoMemory);
    memset(p, 0, sizeof *p);
    PARTITION_INFO = p;

    LDAPMessage* entry = ldap_first_entry(ld, res.get());
    if (!entry) return orv::report(ORV_LDAPLIB_INVALID_PARTITION_INFO);

    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &ber); attr;
         attr = ldap_next_attribute(ld, entry, ber)) {
        orv::LdapString owner(attr);
        std::string v = orv::first_value(ld, entry, attr);
        if (!strcmp(attr, "orvHostName")) {
            replace_owned(p->hostname, copy_of(v));
            ORV_DEBUG("Corporate Hostname: ", v);
        } else if (!strcmp(attr, "orvPortNumber")) {
            p->port_num = atoi(v.c_str());
            ORV_DEBUG("Port Number: ", v);
        } else if (!strcmp(attr, "orvPrimarySearchBaseSuffix")) {
            replace_owned(p->search_base, copy_of(v));
            ORV_DEBUG("Primary Search Base: ", v);
        } else if (!strcmp(attr, "orvPartitionAdminDN")) {
            replace_owned(p->admin_dn, copy_of(v));
            ORV_DEBUG("Admin DN: ", v);
        } else if (!strcmp(attr, "orvPartitionAdminPassword")) {
            replace_owned(p->admin_pwd, orv_decipher_credential(v.c_str()));
            ORV_DEBUG("Admin Password", v);
        } else if (!strcmp(attr, "orvPartitionAllowsBlankPassword")) {
            p->partition_allows_blank_password = v == "on" ? 1 : 0;
            ORV_DEBUG(p->partition_allows_blank_password ? "Blank Password Allowed in Corporate LDAP"
                                                         : "Blank Password not Allowed in Corporate LDAP",
                      "");
        } else if (!strcmp(attr, "orvPartitionLogonAttribute")) {
            replace_owned(p->user_logon_attribute_name, copy_of(v));
            ORV_DEBUG("Logon Attribute", v);
        } else if (!strcmp(attr, "orvSSLEnabled")) {
            p->orv_ssl_enabled = (v == "on" || v == "true") ? 1 : 0;
            ORV_DEBUG(p->orv_ssl_enabled ? "SSL Enabled" : "SSL Disabled", "");
        } else if (!strcmp(attr, "description")) {
            replace_owned(p->description, copy_of(v));
            ORV_DEBUG("Description: ", v);
        } else if (!strcmp(attr, "orvPartitionIsDomainController")) {
            p->partition_is_domain_controller = atoi(v.c_str());
            ORV_DEBUG("Is Domain Controller: ", v);
        } else if (!strcmp(attr, "pexPeopleSearchBaseSuffix")) {
            replace_owned(p->people_search_base_suffix, copy_of(v));
            ORV_DEBUG("User Search base Suffix: ", v);
        } else if (!strcmp(attr, "pexGroupSearchBaseSuffix")) {
            replace_owned(p->group_search_base_suffix, copy_of(v));
            ORV_DEBUG("Group Search base Suffix: ", v);
        } else if (!strcmp(attr, "pexPartitionSearchBaseType")) {
            p->partition_search_base_type = atoi(v.c_str());
            ORV_DEBUG("Partition Search Base type: ", v);
        } else if (!strcmp(attr, "pexZorlaGroupForUsers")) {
            replace_owned(p->meta_group_for_users, copy_of(v));
            ORV_DEBUG("Metagroup User DN: ", v);
        } else if (!strcmp(attr, "pexZorlaGroupForGroups")) {
            replace_owned(p->meta_group_for_groups, copy_of(v));
            ORV_DEBUG("Metagroup Group DN: ", v);
        } else if (!strcasecmp(attr, "pexPartitionIsMetaSchemaConfigured")) {
            p->partition_isMetaSchema_Configured = atoi(v.c_str());
            ORV_DEBUG("Partition Meta Schema Configured: ", v);
        }
    }
    orv::BerPtr berOwner(ber);
    ldapErrCode = 0;
    return 0;
}

int populate_radius_info(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    const char* attrs[] = {"orvRadiusServerHostName", "orvRadiusServerPortNumber",
                           "orvRadiusServerSharedSecret", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_RADIUS_CONFIG_SEARCH_BASE, LDAP_SCOPE_SUBTREE,
                         "(objectclass=orvRadiusServerConfiguration )", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return ORV_LDAPLIB_RADIUS_NOT_CONFIGURED;

    release_radius_record();
    radius_info* r = radius_info_mem_alloc();
    if (!r) return orv::kNoMemory;
    r->radius_hostname = nullptr;
    r->radius_secret = nullptr;
    r->radius_port_number = 0;
    RADIUS_INFO = r;

    LDAPMessage* entry = ldap_first_entry(ld, res.get());
    if (!entry) return ORV_LDAPLIB_RADIUS_NOT_CONFIGURED;
    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &ber); attr;
         attr = ldap_next_attribute(ld, entry, ber)) {
        orv::LdapString owner(attr);
        std::string v = orv::first_value(ld, entry, attr);
        if (!strcasecmp(attr, "orvRadiusServerHostName")) {
            replace_owned(r->radius_hostname, copy_of(v));
            ORV_DEBUG("Radius Hostname: ", v);
        } else if (!strcasecmp(attr, "orvRadiusServerPortNumber")) {
            r->radius_port_number = atoi(v.c_str());
            ORV_DEBUG("Radius PortNumber: ", v);
        } else if (!strcasecmp(attr, "orvRadiusServerSharedSecret")) {
            replace_owned(r->radius_secret, orv_decipher_credential(v.c_str()));
            ORV_DEBUG("Radius Secret: ", v);
        }
    }
    orv::BerPtr berOwner(ber);
    return 0;
}

char* orvlib_get_user_rdn(LDAP* ld) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    char* rdn = nullptr;
    if (ORV_OPERATION_MODE == 0)
        rdn = _orvlib_dupString(ORV_USER_RDN);
    else if (ORV_OPERATION_MODE == 1 && PARTITION_INFO)
        rdn = _orvlib_dupString(PARTITION_INFO->user_logon_attribute_name);
    ORV_DEBUG("RDN Value: ", rdn ? rdn : "");
    return rdn;
}

char* orvlib_get_user_dn(const char* uid) {
    ORV_TRACE();
    return get_standalone_dn_from_uid(uid);
}

}  // extern "C"
