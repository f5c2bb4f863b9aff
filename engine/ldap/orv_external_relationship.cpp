// orv_external_relationship.cpp - what callers use to read results of the
// relationship area: iteration over a search result with a record per
// entry, values by attribute id (with the derived descriptions of a
// relationship's two objects, 127 and 128), and the mini-application
// service URL from its configuration entry.

#include <strings.h>

#include <string>
#include <vector>

#include "orv_er_internal.hpp"
#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_relationship.h"

namespace {

// A record of entry e, or NULL at the end of the result.
LDAPMessage* fill(LDAP* ld, ORVLibEntry** out, LDAPMessage* e) {
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (!out) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    if (e) *out = orv::registry_record(orv_ld, e, 0);
    return e;
}

}  // namespace

extern "C" {

LDAPMessage* orvlib_first_er_entry(LDAP* ld, ORVLibEntry** orvlib_search_entry, LDAPMessage* message) {
    ORV_TRACE();
    if (orvlib_search_entry) *orvlib_search_entry = nullptr;
    return fill(ld, orvlib_search_entry, ld ? orv::first_entry(orv_ld, message) : nullptr);
}

LDAPMessage* orvlib_next_er_entry(LDAP* ld, ORVLibEntry** orvlib_search_entry, LDAPMessage* entry) {
    ORV_TRACE();
    if (orvlib_search_entry) *orvlib_search_entry = nullptr;
    return fill(ld, orvlib_search_entry, ld ? orv::next_entry(orv_ld, entry) : nullptr);
}

char** orvlib_get_entry_er_vals(LDAP* ld, ORVLibEntry* orvlibEntry, int attrId) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (!orvlibEntry || !orvlibEntry->orvlibEntryAttrData) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    const std::vector<std::string> direct = orv::er::values(orvlibEntry, attrId);
    if (!direct.empty()) return orv::er::to_list(direct);

    // The descriptions of a relationship's objects live in the objects.
    const std::vector<std::string> classes = orv::er::values(orvlibEntry, orv::er::kObjectClass);
    if (classes.size() < 2 || strcasecmp(classes[1].c_str(), "pexRelationshipObject") != 0)
        return nullptr;
    int uuid_id = 0;
    if (attrId == orv::er::kObjectADescription) uuid_id = orv::er::kObjectAUuid;
    else if (attrId == orv::er::kObjectBDescription) uuid_id = orv::er::kObjectBUuid;
    else return nullptr;
    bool found = false;
    const std::string uuid = orv::record_value(orvlibEntry, uuid_id, &found);
    return found ? get_external_object_description(orv_ld, uuid.c_str()) : nullptr;
}

char* orvlib_get_url(LDAP* ld, int option) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (option != PEXLIB_MINI_APP_URL) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    const std::string base = std::string("ou=Config,") + ORV_ROOT_SUFFIX;
    ORVLibEntry* config = nullptr;
    if (orv::er::find_first(orv_ld, orv::er::class_filter(nullptr, "pexMiniAppConfiguration"),
                            base.c_str(), &config) != LDAP_SUCCESS) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    bool has[4] = {false, false, false, false};
    const std::string protocol = orv::record_value(config, orv::er::kProtocol, &has[0]);
    const std::string host = orv::record_value(config, orv::er::kHostName, &has[1]);
    const std::string port = orv::record_value(config, orv::er::kPortNumber, &has[2]);
    const std::string query = orv::record_value(config, orv::er::kInitialQuery, &has[3]);
    orvlib_orvlibentry_free(config);
    // A URL is made only of a complete configuration.
    if (!has[0] || !has[1] || !has[2] || !has[3]) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    const std::string url = protocol + "://" + host + ":" + port + "/" + query;
    ORV_DEBUG("URL: ", url);
    return orv::er::dup(url);
}

}  // extern "C"
