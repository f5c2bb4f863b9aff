// orv_application_registry_helper.cpp - the two registry searches behind
// search types 5006 (application servers) and 5007 (application facilities)
// with their filter helpers, the URLs built from facility entries, and the
// small pieces the registry and database units share (add requests,
// deletes, records of registry entries).
//
// A facility is a child of its server, so a facility search given a
// server's DN or relative name lists that server's facilities.  The
// registry's own look-ups (URLs of a server, removal of a server's
// facilities) run these searches directly with a result of their own: a
// caller iterating a search of its own keeps its place.

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_registry.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"

namespace {

constexpr int kAttrDn = 0;
constexpr int kAttrBaseUrl = 30;

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

// The URL of a facility record: its base URL, then "?" unless the base URL
// holds one already, then the URN as it stands.  false without a base URL.
bool facility_url(ORVLibEntry* facility, const char* URN, std::string* url) {
    bool found = false;
    std::string base = orv::record_value(facility, kAttrBaseUrl, &found);
    if (!found) return false;
    *url = base;
    if (base.find('?') == std::string::npos) *url += "?";
    *url += URN ? URN : "";
    return true;
}

// The facilities below a server DN, as the facility search lists them.
int facilities_of(LDAP* ld, const std::string& server_dn, orv::LdapMsg& result) {
    LDAPMessage* res = nullptr;
    int rc = orv_custom_application_facility_srch(
        ld, ORV_APPLICATION_REGISTRY_BASE, LDAP_SCOPE_SUBTREE, server_dn.c_str(),
        const_cast<char**>(ORVLIB_APPLICATION_FACILITY_ATTR_LIST), &res);
    result.reset(res);
    return rc;
}

}  // namespace

// ------------------------------------------------------------------ shared pieces

namespace orv {

void AddRequest::add(const char* name, std::vector<std::string> values) {
    if (!name || values.empty()) return;
    Attr a;
    a.name = name;
    a.values = std::move(values);
    attrs_.push_back(std::move(a));
}

void AddRequest::add(const char* name, const char* value) {
    if (value) add(name, std::vector<std::string>{value});
}

LDAPMod** AddRequest::mods() {
    list_.clear();
    for (Attr& a : attrs_) {
        a.pointers.clear();
        for (std::string& v : a.values) a.pointers.push_back(&v[0]);
        a.pointers.push_back(nullptr);
        a.mod.mod_op = LDAP_MOD_ADD;
        a.mod.mod_type = &a.name[0];
        a.mod.mod_values = a.pointers.data();
        list_.push_back(&a.mod);
    }
    list_.push_back(nullptr);
    return list_.data();
}

std::vector<std::string> AddRequest::names() const {
    std::vector<std::string> out;
    for (const Attr& a : attrs_) out.push_back(a.name);
    return out;
}

int delete_entry(LDAP* ld, const std::string& dn) {
    if (!ld) return kParamError;
    return status_from_ldap(ldap_delete_ext_s(ld, dn.c_str(), nullptr, nullptr));
}

ORVLibEntry* registry_record(LDAP* ld, LDAPMessage* entry, int searchType) {
    if (!ld || !entry) return nullptr;
    // The fill reads the type of the search in progress (people and member
    // searches get roles added) and the Windows user flags; a registry
    // record is filled as its own search type would fill it, and the
    // caller's values come back afterwards.
    const int saved_type = _current_search_type;
    const int saved_win = ORV_WIN_USER_SEARCH;
    const int saved_first = _isFirstEntry;
    _current_search_type = searchType;
    ORV_WIN_USER_SEARCH = 0;
    _isFirstEntry = 0;
    ORVLibEntry* record = nullptr;
    populate_orvlibentry_entry(ld, &record, &entry);
    _current_search_type = saved_type;
    ORV_WIN_USER_SEARCH = saved_win;
    _isFirstEntry = saved_first;
    return record;
}

std::string record_value(ORVLibEntry* record, int id, bool* found) {
    if (found) *found = false;
    if (!record || !record->orvlibEntryAttrData) return {};
    for (ORVLibAttribute** a = record->orvlibEntryAttrData; *a; ++a) {
        if ((*a)->attrId == id && (*a)->attrVals && (*a)->attrVals[0]) {
            if (found) *found = true;
            return (*a)->attrVals[0];
        }
    }
    return {};
}

std::string fresh_uuid() {
    OrvString guid(orvlib_create_guid());
    return guid ? std::string(guid.get()) : std::string();
}

}  // namespace orv

extern "C" {

// ------------------------------------------------------------------ searches

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
        // The facilities of the server the DN names.
        orv::OrvString cleaned(remove_paranthesis_from_string(filter));
        search_base = cleaned ? cleaned.get() : filter;
    } else if (strstr(filter, "orvFullyQualifiedObjectId")) {
        // A server's relative name.
        search_base = std::string(filter) + ORV_CONSTANT_COMMA + ORV_APPLICATION_REGISTRY_BASE;
    } else {
        F = updated_filter(filter, ORV_SEARCH_APPLICATION_FACILITY);
    }
    return registry_search(ld, search_base, scope, F, attrs, res);
}

void get_updated_search_filter(const char* filter, int searchType, char** out) {
    ORV_TRACE();
    if (!out) return;
    *out = nullptr;
    // A DN is first kept as it is; the built filter always replaces it (a
    // DN holds "=", so it ends up as an ordinary filter).
    if (application_registry_filter_is_dn(filter) == 1) *out = _orvlib_dupString(filter);

    const char* cls = searchType == ORV_SEARCH_APPLICATION_SERVERS
                          ? ORV_CONSTANT_APPLICATION_SERVER_CLASSFILTER_STR
                          : ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR;
    std::string F;
    char* compliant = nullptr;
    if (filter && is_filter_ldap_complaint(filter, &compliant) == 1) {
        orv::OrvString owned(compliant);
        F = std::string("(&") + cls + (compliant ? compliant : "") + ")";
    } else {
        // A bare object id.
        orv::OrvString value(remove_paranthesis_from_string(filter ? filter : ""));
        F = std::string("(&") + cls + "(orvFullyQualifiedObjectId=" + (value ? value.get() : "") +
            "))";
    }
    ORV_DEBUG("Updated Search Filter: ", F);
    orvlib_memfree(*out);
    *out = _orvlib_dupString(F.c_str());
}

int application_registry_filter_is_dn(const char* str) {
    ORV_TRACE();
    if (!str) return 0;
    // Any text that holds the root suffix (letter case and blanks aside)
    // counts as a DN.
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

// ------------------------------------------------------------------ URLs

char** populate_facility_url(ORVLibEntry* entry, const char* URN) {
    ORV_TRACE();
    std::string url;
    if (!facility_url(entry, URN, &url)) {
        // No base URL: an empty list.
        char** empty = orvlib_arr_malloc(1);
        if (empty) empty[0] = nullptr;
        return empty;
    }
    ORV_DEBUG("Search Filter: ", url);
    char** list = orvlib_arr_malloc(2);
    if (!list) return nullptr;
    list[0] = _orvlib_dupString(url.c_str());
    list[1] = nullptr;
    return list;
}

char** populate_all_facility_urls_of_server(LDAP* ld, ORVLibEntry* entry, const char* URN) {
    ORV_TRACE();
    bool has_dn = false;
    const std::string dn = orv::record_value(entry, kAttrDn, &has_dn);
    if (!has_dn) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    orv::LdapMsg result;
    if (facilities_of(ld, dn, result) != LDAP_SUCCESS) return nullptr;

    // One slot per facility, in result order, and the terminator.  A
    // facility without a base URL leaves its slot empty, and a reader stops
    // there: the slots after the first empty one stay empty too, so that
    // orvlib_free_values releases every URL the list holds.
    const int n = std::max(0, ldap_count_entries(ld, result.get()));
    char** list = orvlib_arr_malloc(static_cast<unsigned int>(n) + 1);
    if (!list) return nullptr;
    for (int i = 0; i <= n; ++i) list[i] = nullptr;
    int index = 0;
    bool open = true;
    for (LDAPMessage* e = orv::first_entry(ld, result.get()); e && index < n;
         e = orv::next_entry(ld, e), ++index) {
        ORVLibEntry* facility = orv::registry_record(ld, e, ORV_SEARCH_APPLICATION_FACILITY);
        std::string url;
        const bool has_url = facility_url(facility, URN, &url);
        orvlib_orvlibentry_free(facility);
        if (!has_url) {
            open = false;
            continue;
        }
        ORV_DEBUG("Search Filter: ", url);
        if (open) list[index] = _orvlib_dupString(url.c_str());
    }
    return list;
}

}  // extern "C"
