// orv_ldap.cpp - the library's boundary to libldap: NULL-safe wrappers over
// the libldap calls used throughout the library, and the mapping of
// libldap's result codes to the statuses client applications know.

#include "orv_ldap.hpp"

#include <sys/time.h>

#include <cstring>

#include "orv_member_entries.hpp"

namespace orv {

int g_timeout_seconds = 30;

int status_from_ldap(int rc) {
    if (rc >= 0) return rc;
    // OpenLDAP numbers its client-side codes -1 (server down) to -17
    // (referral limit exceeded); the standard API numbers them 81 to 97.
    if (rc >= LDAP_REFERRAL_LIMIT_EXCEEDED) return 80 - rc;
    return LDAP_OTHER;
}

const char* ldap_text(int status) {
    if (status >= kServerDown && status <= kReferralLimitExceeded) return ldap_err2string(80 - status);
    return ldap_err2string(status);
}

int prepare_handle(LDAP* ld) {
    if (!ld) return kParamError;
    int version = LDAP_VERSION3;
    int rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS) return status_from_ldap(rc);
    // Results come only from the servers the configuration names.
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (g_timeout_seconds > 0) {
        timeval tv{g_timeout_seconds, 0};
        ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv);
        // Synchronous calls and ldap_result without a time-out of their
        // own wait at most this long for a result (LDAP_OPT_TIMEOUT); the
        // TLS handshake is bounded by the network time-out.
        ldap_set_option(ld, LDAP_OPT_TIMEOUT, &tv);
    }
    return LDAP_SUCCESS;
}

int search(LDAP* ld, const char* base, int scope, const char* filter, const char* const* attrs,
           int attrsonly, LdapMsg& result) {
    result.reset();
    if (!ld) return kParamError;
    LDAPMessage* res = nullptr;
    int rc = ldap_search_ext_s(ld, base ? base : "", scope, filter, const_cast<char**>(attrs),
                               attrsonly, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &res);
    result.reset(res);
    return status_from_ldap(rc);
}

int search_start(LDAP* ld, const char* base, int scope, const char* filter,
                 const char* const* attrs, int* msgid) {
    if (!ld || !msgid) return kParamError;
    return status_from_ldap(ldap_search_ext(ld, base ? base : "", scope, filter,
                                            const_cast<char**>(attrs), 0, nullptr, nullptr,
                                            nullptr, LDAP_NO_LIMIT, msgid));
}

int search_finish(LDAP* ld, int msgid, LdapMsg& result) {
    result.reset();
    if (!ld) return kParamError;
    timeval limit{g_timeout_seconds, 0};
    LDAPMessage* res = nullptr;
    const int type = ldap_result(ld, msgid, LDAP_MSG_ALL, &limit, &res);
    result.reset(res);
    if (type == 0) {
        ldap_abandon_ext(ld, msgid, nullptr, nullptr);
        return kTimeout;
    }
    if (type < 0) {
        const int rc = last_error(ld);
        return rc != LDAP_SUCCESS ? rc : kServerDown;
    }
    int err = LDAP_OTHER;
    const int rc = ldap_parse_result(ld, res, &err, nullptr, nullptr, nullptr, nullptr, 0);
    return status_from_ldap(rc != LDAP_SUCCESS ? rc : err);
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
    if (!ld) return kParamError;
    berval cred{0, nullptr};
    if (password) {
        cred.bv_val = const_cast<char*>(password);
        cred.bv_len = strlen(password);
    }
    return status_from_ldap(ldap_sasl_bind_s(ld, dn, LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr));
}

int extended_operation(LDAP* ld, const char* oid, const std::string& value,
                       ExtendedResponse* response) {
    if (response) *response = ExtendedResponse();
    if (!ld) return kParamError;
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
    return status_from_ldap(rc);
}

int modify(LDAP* ld, const char* dn, LDAPMod** mods) {
    if (!ld) return kParamError;
    note_written(dn);  // entries of dn read ahead by a member walk are dropped
    return status_from_ldap(ldap_modify_ext_s(ld, dn ? dn : "", mods, nullptr, nullptr));
}

int add(LDAP* ld, const char* dn, LDAPMod** attrs) {
    if (!ld) return kParamError;
    note_written(dn);
    return status_from_ldap(ldap_add_ext_s(ld, dn ? dn : "", attrs, nullptr, nullptr));
}

int unbind(LDAP*& ld) {
    int rc = LDAP_SUCCESS;
    if (ld) rc = status_from_ldap(ldap_unbind_ext_s(ld, nullptr, nullptr));
    ld = nullptr;
    return rc;
}

int last_error(LDAP* ld) {
    if (!ld) return kParamError;
    int rc = LDAP_SUCCESS;
    if (ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &rc) != LDAP_OPT_SUCCESS) return LDAP_OTHER;
    return status_from_ldap(rc);
}

std::string diagnostic_message(LDAP* ld) {
    if (!ld) return {};
    char* text = nullptr;
    if (ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &text) != LDAP_OPT_SUCCESS || !text) return {};
    LdapString owned(text);
    return text;
}

LDAP* open_plain(const char* host, int port) {
    if (!host || !*host || port <= 0 || port > 65535) return nullptr;
    LDAP* ld = ldap_init(host, port);
    if (ld && prepare_handle(ld) != LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

}  // namespace orv
