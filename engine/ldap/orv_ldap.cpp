// orv_ldap.cpp - NULL-safe wrappers over the libldap calls used throughout
// the library.

#include "orv_ldap.hpp"

#include <sys/time.h>

#include <cstring>

namespace orv {

int search(LDAP* ld, const char* base, int scope, const char* filter, const char* const* attrs,
           int attrsonly, LdapMsg& result) {
    result.reset();
    if (!ld) return LDAP_PARAM_ERROR;
    LDAPMessage* res = nullptr;
    int rc = ldap_search_ext_s(ld, base ? base : "", scope, filter, const_cast<char**>(attrs),
                               attrsonly, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &res);
    result.reset(res);
    return rc;
}

std::string first_value(LDAP* ld, LDAPMessage* entry, const char* name) {
    if (!ld || !entry || !name) return {};
    LdapBerValues vals(ldap_get_values_len(ld, entry, name));
    if (!vals || !vals.get()[0]) return {};
    const berval* v = vals.get()[0];
    return std::string(v->bv_val, v->bv_len);
}

std::string entry_dn(LDAP* ld, LDAPMessage* entry) {
    if (!ld || !entry) return {};
    LdapString dn(ldap_get_dn(ld, entry));
    return dn ? std::string(dn.get()) : std::string();
}

int simple_bind(LDAP* ld, const char* dn, const char* password) {
    if (!ld) return LDAP_PARAM_ERROR;
    berval cred{0, nullptr};
    if (password) {
        cred.bv_val = const_cast<char*>(password);
        cred.bv_len = strlen(password);
    }
    return ldap_sasl_bind_s(ld, dn, LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
}

int extended_operation(LDAP* ld, const char* oid, const std::string& value,
                       ExtendedResponse* response) {
    if (response) *response = ExtendedResponse();
    if (!ld) return LDAP_PARAM_ERROR;
    berval request{static_cast<ber_len_t>(value.size()), const_cast<char*>(value.data())};
    char* returnedOid = nullptr;
    berval* data = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, &request, nullptr, nullptr, &returnedOid, &data);
    LdapString oidOwner(returnedOid);
    if (response && returnedOid) {
        response->hasOid = true;
        response->oid = returnedOid;
    }
    if (response && data && data->bv_val) {
        response->hasValue = true;
        response->value.assign(data->bv_val, data->bv_len);
    }
    if (data) ber_bvfree(data);
    return rc;
}

void unbind(LDAP*& ld) {
    if (ld) ldap_unbind_ext_s(ld, nullptr, nullptr);
    ld = nullptr;
}

int last_error(LDAP* ld) {
    if (!ld) return LDAP_PARAM_ERROR;
    int rc = LDAP_SUCCESS;
    if (ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &rc) != LDAP_OPT_SUCCESS) return LDAP_OTHER;
    return rc;
}

LDAP* open_plain(const char* host, int port) {
    if (!host || !*host || port <= 0 || port > 65535) return nullptr;
    LDAP* ld = ldap_init(host, port);
    if (ld) {
        // Fail fast when a server is gone instead of waiting for TCP.
        timeval tv{10, 0};
        ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv);
    }
    return ld;
}

}  // namespace orv
