// orv_application_registry.cpp - the application registry: servers of each
// tool and the facilities they offer, under
// "ou=Application Registry,<suffix>".
//
//   server    orvFullyQualifiedObjectId=<server id>,<registry base>
//             top, organizationalUnit, orvApplicationServer
//   facility  orvFullyQualifiedObjectId=<facility id>,<server DN>
//             top, orvApplicationServerFacility
//
// A repository's id is the id of its application server; the server
// entry's "orvExtendedKXSAttribute" names the repository's database.
// Writes are single synchronous requests; nothing is rolled back when a
// later step fails.

#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_registry.h"
#include "orvldap_search.h"

namespace {

constexpr int kAttrDn = 0;
constexpr int kAttrObjectClass = 18;
constexpr int kAttrObjectId = 22;

// The most extended ids one server entry takes.
constexpr size_t kMaxExtendedIds = 9;

const char kServerClass[] = "orvApplicationServer";
const char kFacilityClass[] = "orvApplicationServerFacility";

// The DN builders write the registry base as text; it is the same string
// as ORV_APPLICATION_REGISTRY_BASE.
std::string registry_base() { return std::string("ou=Application Registry,") + ORV_ROOT_SUFFIX; }

std::string server_dn(const std::string& id) {
    return std::string("orvFullyQualifiedObjectId") + ORV_CONSTANT_EQUALS + id + ORV_CONSTANT_COMMA +
           registry_base();
}

struct IdText {
    unsigned long id;
    const char* text;
};

const IdText kTools[] = {
    {ORV_TOOL_2, "1.3.6.1.4.1.47391.2"}, {ORV_TOOL_3, "1.3.6.1.4.1.47391.3"},
    {ORV_TOOL_4, "1.3.6.1.4.1.47391.4"}, {ORV_TOOL_5, "1.3.6.1.4.1.47391.5"},
    {ORV_TOOL_6, "1.3.6.1.4.1.47391.6"}, {ORV_TOOL_7, "1.3.6.1.4.1.47391.7"},
    {ORV_TOOL_8, "1.3.6.1.4.1.47391.8"},
};
const IdText kFacilityTypes[] = {
    {ORV_FACILITY_RICH_CLIENT, "FACILITY_RICH_CLIENT"},
    {ORV_FACILITY_WEB_CLIENT, "FACILITY_WEB_CLIENT"},
    {ORV_FACILITY_WEB_SERVICE, "FACILITY_WEB_SERVICE"},
    {ORV_FACILITY_APPLICATION_INTERNAL_1, "FACILITY_APPLICATION_INTERNAL_1"},
};
const IdText kFacilityStates[] = {
    {ORV_FACILITY_STATUS_ON, "ON"},
    {ORV_FACILITY_STATUS_OFF, "OFF"},
};

template <size_t N>
char* text_of(const IdText (&table)[N], unsigned long id) {
    for (const IdText& row : table)
        if (row.id == id) return _orvlib_dupString(row.text);
    return nullptr;
}

// The record's first object class that names a registry entry kind: the
// facility or server class, spelled exactly; nullptr for any other record.
const char* registry_kind(ORVLibEntry* entry) {
    char** classes = orvlib_get_entry_vals(entry, kAttrObjectClass);
    const char* kind = nullptr;
    for (char** c = classes; c && *c && !kind; ++c) {
        if (strcmp(*c, kFacilityClass) == 0) kind = kFacilityClass;
        else if (strcmp(*c, kServerClass) == 0) kind = kServerClass;
    }
    orvlib_free_values(classes);
    return kind;
}

// The first entry of a synchronous subtree search as a record, or NULL.
// *status receives the search's status.
ORVLibEntry* read_back(LDAP* ld, const std::string& base, const std::string& filter,
                       const char* const* attrs, int searchType, int* status) {
    orv::LdapMsg res;
    *status = orv::search(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, res);
    if (*status != LDAP_SUCCESS) return nullptr;
    return orv::registry_record(ld, orv::first_entry(ld, res.get()), searchType);
}

}  // namespace

extern "C" {

// ------------------------------------------------------------------ identifiers

char* getToolOIDFromID(unsigned long id) {
    ORV_TRACE();
    return text_of(kTools, id);
}

char* getFaciltiyTypeFromID(unsigned long id) {
    ORV_TRACE();
    return text_of(kFacilityTypes, id);
}

char* getFaciltiyStatusFromID(unsigned long id) {
    ORV_TRACE();
    return text_of(kFacilityStates, id);
}

char* get_appserver_dn_from_uuid(const char* uid) {
    ORV_TRACE();
    if (!uid) return nullptr;
    const std::string dn = server_dn(uid);
    ORV_DEBUG("User DN: ", dn);
    return _orvlib_dupString(dn.c_str());
}

char* get_appfacility_dn_from_uuid(const char* facility_uid, const char* server_uid) {
    ORV_TRACE();
    if (!facility_uid || !server_uid) return nullptr;
    const std::string dn = std::string("orvFullyQualifiedObjectId") + ORV_CONSTANT_EQUALS +
                           facility_uid + ORV_CONSTANT_COMMA + server_dn(server_uid);
    ORV_DEBUG("facility DN: ", dn);
    return _orvlib_dupString(dn.c_str());
}

// ------------------------------------------------------------------ adds

int add_application_server(LDAP* ld, const char* toolOID, const char* serverId,
                           const char** extendedId) {
    ORV_TRACE();
    if (!serverId) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    std::vector<std::string> extended;
    for (const char** e = extendedId; e && *e; ++e) extended.emplace_back(*e);
    if (extended.size() > kMaxExtendedIds) {
        ORV_DEBUG("Too many extended ids: ", static_cast<long>(extended.size()));
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    }
    orv::AddRequest request;
    request.add("orvKXSToolOID", toolOID);
    request.add("orvFullyQualifiedObjectId", serverId);
    request.add("objectClass", std::vector<std::string>{"top", "organizationalUnit", kServerClass});
    request.add("ou", serverId);
    request.add("orvExtendedKXSAttribute", std::move(extended));
    orv::OrvString dn(get_appserver_dn_from_uuid(serverId));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

int add_application_facility(LDAP* ld, const char* baseURL, const char* facilityId,
                             const char* facilityStatus, const char* facilityType,
                             const char* serverId) {
    ORV_TRACE();
    if (!facilityId || !serverId) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::AddRequest request;
    request.add("orvBaseURL", baseURL);
    request.add("orvFullyQualifiedObjectId", facilityId);
    request.add("objectClass", std::vector<std::string>{"top", kFacilityClass});
    request.add("orvApplicationServerFacilityStatus", facilityStatus);
    request.add("orvApplicationServerFacilityType", facilityType);
    orv::OrvString dn(get_appfacility_dn_from_uuid(facilityId, serverId));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

ORVLibEntry* orvlib_register_application_server(LDAP* ld, unsigned long toolOID,
                                                const char* serverId, const char** extendedId) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    const std::string id = serverId ? std::string(serverId) : orv::fresh_uuid();
    ORV_DEBUG("Server ID: ", id);

    orv::OrvString tool(getToolOIDFromID(toolOID));
    if (!tool) {
        // The caller's id string is released on this path: a caller whose
        // tool id is refused treats it as gone.
        orvlib_memfree(const_cast<char*>(serverId));
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    if (id.empty() || add_application_server(orv_ld, tool.get(), id.c_str(), extendedId) != LDAP_SUCCESS) {
        orv::report(ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        return nullptr;
    }

    const std::string filter = std::string("(&") + ORV_CONSTANT_APPLICATION_SERVER_CLASSFILTER_STR +
                               "(orvFullyQualifiedObjectId=" + id + "))";
    ORV_DEBUG("Search Filter: ", filter);
    int rc = LDAP_SUCCESS;
    ORVLibEntry* server = read_back(orv_ld, ORV_APPLICATION_REGISTRY_BASE, filter,
                                    ORVLIB_APPLICATION_SERVER_ATTR_LIST,
                                    ORV_SEARCH_APPLICATION_SERVERS, &rc);
    if (!server) {
        // The entry stays in the directory.
        orv::report(ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        return nullptr;
    }
    return server;
}

ORVLibEntry* orvlib_add_application_facility(LDAP* ld, ORVLibEntry* server, const char* baseURL,
                                             unsigned long facilityStatus,
                                             unsigned long facilityType) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    bool has_server_id = false;
    const std::string server_id = orv::record_value(server, kAttrObjectId, &has_server_id);
    const std::string facility_id = orv::fresh_uuid();
    orv::OrvString type(getFaciltiyTypeFromID(facilityType));
    orv::OrvString status(getFaciltiyStatusFromID(facilityStatus));
    if (!has_server_id || !type || !status) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    if (facility_id.empty() ||
        add_application_facility(orv_ld, baseURL, facility_id.c_str(), status.get(), type.get(),
                                 server_id.c_str()) != LDAP_SUCCESS) {
        orv::report(ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY);
        return nullptr;
    }

    orv::OrvString dn(get_appfacility_dn_from_uuid(facility_id.c_str(), server_id.c_str()));
    int rc = LDAP_SUCCESS;
    ORVLibEntry* facility = read_back(orv_ld, dn.get(), ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR,
                                      ORVLIB_APPLICATION_FACILITY_ATTR_LIST,
                                      ORV_SEARCH_APPLICATION_FACILITY, &rc);
    if (!facility) {
        orv::report(ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY);
        return nullptr;
    }
    return facility;
}

// ------------------------------------------------------------------ removal

int remove_application_facility(LDAP* ld, ORVLibEntry* entry) {
    ORV_TRACE();
    bool has_dn = false;
    const std::string dn = orv::record_value(entry, kAttrDn, &has_dn);
    if (!has_dn) return orv::report(ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);
    ORV_DEBUG("Facility DN: ", dn);
    const int rc = orv::delete_entry(ld, dn);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Delete result: ", rc);
        return orv::report(ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);
    }
    return orv::report(LDAP_SUCCESS);
}

int remove_application_server(LDAP* ld, ORVLibEntry* entry) {
    ORV_TRACE();
    bool has_dn = false;
    const std::string dn = orv::record_value(entry, kAttrDn, &has_dn);
    if (!has_dn) return orv::report(ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
    ORV_DEBUG("Server DN: ", dn);

    // Every facility below the server first; one that cannot be deleted
    // does not stop the others.
    {
        LDAPMessage* raw = nullptr;
        orv_custom_application_facility_srch(ld, ORV_APPLICATION_REGISTRY_BASE, LDAP_SCOPE_SUBTREE,
                                             dn.c_str(),
                                             const_cast<char**>(ORVLIB_APPLICATION_FACILITY_ATTR_LIST),
                                             &raw);
        orv::LdapMsg facilities(raw);
        for (LDAPMessage* e = orv::first_entry(ld, facilities.get()); e; e = orv::next_entry(ld, e)) {
            ORVLibEntry* facility = orv::registry_record(ld, e, ORV_SEARCH_APPLICATION_FACILITY);
            remove_application_facility(ld, facility);
            orvlib_orvlibentry_free(facility);
        }
    }

    // The server's own delete decides the answer.
    const int rc = orv::delete_entry(ld, dn);
    if (rc != LDAP_SUCCESS) {
        ORV_DEBUG("Delete result: ", rc);
        return orv::report(ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
    }
    return orv::report(LDAP_SUCCESS);
}

int orvlib_remove_object_entry(LDAP* ld, ORVLibEntry* entry) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return 0;
    }
    const char* kind = registry_kind(entry);
    if (kind == kFacilityClass) return remove_application_facility(orv_ld, entry);
    if (kind == kServerClass) return remove_application_server(orv_ld, entry);
    // Neither kind: nothing is deleted.
    return 0;
}

char** orvlib_generate_application_facility_urls(LDAP* ld, ORVLibEntry* entry, const char* URN) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    const char* kind = registry_kind(entry);
    if (kind == kFacilityClass) return populate_facility_url(entry, URN);
    if (kind == kServerClass) return populate_all_facility_urls_of_server(orv_ld, entry, URN);
    return nullptr;
}

// ------------------------------------------------------------------ repositories

int get_database_id_from_repository_id(LDAP* ld, const char* repositoryId, char** database_id) {
    ORV_TRACE();
    if (database_id) *database_id = nullptr;
    if (!repositoryId) return 0;
    // A repository's id is its application server's id.
    const std::string dn = server_dn(repositoryId);
    ORV_DEBUG("zorla_server_dn: ", dn);
    const char* attrs[] = {"orvExtendedKXSAttribute", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=orvApplicationServer", attrs, 0, res);
    LDAPMessage* entry = orv::first_entry(ld, res.get());
    if (entry && database_id) {
        // The first value of the first attribute returned.
        BerElement* ber = nullptr;
        orv::LdapString attr(ldap_first_attribute(ld, entry, &ber));
        orv::BerPtr berOwner(ber);
        if (attr) {
            orv::LdapBerValues vals(ldap_get_values_len(ld, entry, attr.get()));
            const berval* first = vals ? vals.get()[0] : nullptr;
            if (first) *database_id = _orvlib_dupString(std::string(first->bv_val, first->bv_len).c_str());
        }
    }
    ORV_DEBUG("Database ID: ", database_id && *database_id ? *database_id : "");
    return rc;
}

}  // extern "C"
