// orv_application_registry_helper.cpp - the two registry searches behind
// search types 5006 (application servers) and 5007 (application facilities)
// and their filter helpers.  A facility is a child of its server, so a
// facility search given a server's DN or relative name lists that server's
// facilities.

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

int registry_search(LDAP* ld, const std::string& base, int scope, const std::string& filter,
                    char** attrs, LDAPMessage** res) {
    ORV_DEBUG("Complete Filter: ", filter);
    orv::LdapMsg found;
    int rc = orv::search(ld, base.c_str(), scope, filter.c_str(), attrs, 0, found);
    *res = found.release();
    return orv::report(rc);
}

std::string updated_filter(const char* text, int searchType) {
    char* built = nullptr;
    get_updated_search_filter(text, searchType, &built);
    orv::OrvString owned(built);
    return built ? built : "";
}

}  // namespace

extern "C" {

int orv_custom_application_server_srch(LDAP* ld, const char* base, int scope, const char* filter,
                                       char** attrs, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    std::string F;
    if (!filter || !*filter) {
        F = "(&(objectclass=orvApplicationServer))";
    } else if (application_registry_filter_is_dn(filter) == 1) {
        // The server's relative name: the DN up to its first comma.
        orv::OrvString cleaned(remove_paranthesis_from_string(filter));
        std::string rdn = cleaned ? cleaned.get() : filter;
        const size_t comma = rdn.find(',');
        if (comma != std::string::npos) rdn.resize(comma);
        F = updated_filter(rdn.c_str(), ORV_SEARCH_APPLICATION_SERVERS);
    } else {
        F = updated_filter(filter, ORV_SEARCH_APPLICATION_SERVERS);
    }
    return registry_search(ld, base ? base : "", scope, F, attrs, res);
}

int orv_custom_application_facility_srch(LDAP* ld, const char* base, int scope, const char* filter,
                                         char** attrs, LDAPMessage** res) {
    ORV_TRACE();
    if (res) *res = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    std::string search_base = base ? base : "";
    std::string F = ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR;
    if (!filter || !*filter) {
        // the class filter below the given base
    } else if (application_registry_filter_is_dn(filter) == 1) {
        orv::OrvString cleaned(remove_paranthesis_from_string(filter));
        search_base = cleaned ? cleaned.get() : filter;
    } else if (strstr(filter, "orvFullyQualifiedObjectId")) {
        search_base = std::string(filter) + ORV_CONSTANT_COMMA + ORV_APPLICATION_REGISTRY_BASE;
    } else {
        F = updated_filter(filter, ORV_SEARCH_APPLICATION_FACILITY);
    }
    return registry_search(ld, search_base, scope, F, attrs, res);
}

void get_updated_search_filter(const char* filter, int searchType, char** out) {
    ORV_TRACE();
    if (!out) return;
    const char* cls = searchType == ORV_SEARCH_APPLICATION_SERVERS
                          ? ORV_CONSTANT_APPLICATION_SERVER_CLASSFILTER_STR
                          : ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR;
    std::string F;
    char* compliant = nullptr;
    if (filter && is_filter_ldap_complaint(filter, &compliant) == 1) {
        orv::OrvString owned(compliant);
        F = std::string("(&") + cls + (compliant ? compliant : "") + ")";
    } else {
        orv::OrvString value(remove_paranthesis_from_string(filter ? filter : ""));
        F = std::string("(&") + cls + "(orvFullyQualifiedObjectId=" + (value ? value.get() : "") +
            "))";
    }
    ORV_DEBUG("Updated Search Filter: ", F);
    *out = _orvlib_dupString(F.c_str());
}

int application_registry_filter_is_dn(const char* str) {
    ORV_TRACE();
    if (!str) return 0;
    orv::OrvString cleaned(remove_paranthesis_from_string(str));
    orv::OrvString lower(cleaned ? string_to_lower(cleaned.get()) : nullptr);
    orv::OrvString text(lower ? remove_spaces_from_string(lower.get()) : nullptr);
    orv::OrvString suffix_lower(string_to_lower(ORV_GROUP_SRCH_BASE));
    orv::OrvString suffix(suffix_lower ? remove_spaces_from_string(suffix_lower.get()) : nullptr);
    const int is_dn = text && suffix && strstr(text.get(), suffix.get()) ? 1 : 0;
    ORV_DEBUG(is_dn ? "Application Registry Filter is DN" : "Application Registry Filter is not a DN",
              str);
    return is_dn;
}

}  // extern "C"
