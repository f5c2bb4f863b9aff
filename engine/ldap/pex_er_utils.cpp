// pex_er_utils.cpp - attribute identifiers of the external-relationship
// objects (end types, relationship types, external objects, relationships,
// the mini-application configuration), and the filter, look-up and DN
// helpers that the relationship units share.
//
// These ids are used only for names that the general attribute table
// (orvldap_entry.cpp) does not know.  Ids 127 and 128 (the descriptions of a
// relationship's two objects) are derived when values are read and have no
// attribute name.

#include <strings.h>

#include <string>
#include <vector>

#include "orv_er_internal.hpp"
#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap_relationship.h"
#include "orvldap_utils.h"

namespace {

struct ErAttribute {
    int id;
    const char* name;
    bool modifiable;  // may be changed through an attribute id
};

const ErAttribute kErAttributes[] = {
    {100, "pexEndId", false},
    {101, "pexEndRuleType", false},
    {102, "pexEndRuleValue", true},
    {103, "pexEndDescription", true},
    {104, "pexRelationshipTypeId", false},
    {105, "pexRelationshipTypeName", false},
    {106, "pexEndIdA", false},
    {107, "pexEndIdB", false},
    {108, "orvExternalObjectURN", false},
    {109, "orvExternalObjectContext", true},
    {110, "orvExternalObjectDescription", true},
    {111, "pexExtObjectAUUID", false},
    {112, "pexExtObjectBUUID", false},
    {113, "pexRelationshipDescription", false},
    {114, "pexRelationshipMarkedForDelete", true},
    {115, "pexExtObjectAContext", false},
    {116, "pexExtObjectBContext", false},
    {117, "pexExtObjectAURN", false},
    {118, "pexExtObjectBURN", false},
    {119, "pexExtObjectARepId", false},
    {120, "pexExtObjectBRepId", false},
    {121, "pexEndARuleValues", true},
    {122, "pexEndBRuleValues", true},
    {123, "pexProtocol", false},
    {124, "pexInitialQueryString", false},
    {125, "orvHostName", false},
    {126, "orvPortNumber", false},
};

}  // namespace

extern "C" {

// Id of an external-relationship attribute name (any case); an unknown or
// missing name gives -1 (all bits set).
int get_mapped_er_attribute_id(const char* name) {
    ORV_TRACE();
    if (name != nullptr)
        for (const ErAttribute& row : kErAttributes)
            if (strcasecmp(name, row.name) == 0) return row.id;
    return -1;
}

// Name of an attribute that may be modified by id (102, 103, 109, 110, 114,
// 121, 122), as a new copy; NULL for every other id, so nothing else can be
// changed through an id.
char* get_external_relationship_attribute_name_from_id(int id) {
    ORV_TRACE();
    for (const ErAttribute& row : kErAttributes)
        if (row.id == id && row.modifiable) return _orvlib_dupString(row.name);
    return nullptr;
}

}  // extern "C"

// ------------------------------------------------------------------ shared look-ups
//
// Every look-up of this area is a synchronous subtree search whose first
// entry becomes a record.  Values taken from callers go into filters
// escaped, so an id such as "*" names itself and no other entry.

namespace orv::er {

std::string equals(const char* attr, const std::string& value) {
    return std::string("(") + attr + "=" + filter_value(value) + ")";
}

std::string class_filter(const char* filter, const char* objectclass) {
    const std::string cls = objectclass ? objectclass : "";
    if (!filter) return "(objectclass=" + cls + ")";
    return "(&(objectclass=" + cls + ")" + filter + ")";
}

int find_first(LDAP* ld, const std::string& filter, const char* base, ORVLibEntry** record) {
    *record = nullptr;
    LDAPMessage* raw = nullptr;
    const int rc = search_for_external_relationship_object(ld, filter.c_str(), base, &raw);
    LdapMsg result(raw);
    if (rc != LDAP_SUCCESS) return rc;
    // The record is filled as no people or member search would be: no
    // roles are looked up for it.
    *record = registry_record(ld, first_entry(ld, result.get()), 0);
    return rc;
}

std::vector<std::string> values(ORVLibEntry* record, int id) {
    std::vector<std::string> out;
    if (!record || !record->orvlibEntryAttrData) return out;
    for (ORVLibAttribute** a = record->orvlibEntryAttrData; *a; ++a) {
        if ((*a)->attrId != id || !(*a)->attrVals || !(*a)->attrVals[0]) continue;
        for (char** v = (*a)->attrVals; *v; ++v) out.emplace_back(*v);
        break;
    }
    return out;
}

char** to_list(const std::vector<std::string>& values) {
    if (values.empty()) return nullptr;
    char** list = orvlib_arr_malloc(static_cast<unsigned int>(values.size() + 1));
    if (!list) return nullptr;
    for (size_t i = 0; i <= values.size(); ++i) list[i] = nullptr;
    for (size_t i = 0; i < values.size(); ++i) {
        list[i] = _orvlib_dupString(values[i].c_str());
        if (!list[i]) {
            orvlib_free_values(list);
            return nullptr;
        }
    }
    return list;
}

std::vector<std::string> from_list(const char* const* list) {
    std::vector<std::string> out;
    for (const char* const* p = list; p && *p; ++p) out.emplace_back(*p);
    return out;
}

char* dup(const std::string& text) { return _orvlib_dupString(text.c_str()); }

}  // namespace orv::er

extern "C" {

char* create_ldap_filter(const char* filter, const char* objectclass) {
    ORV_TRACE();
    return orv::er::dup(orv::er::class_filter(filter, objectclass));
}

int search_for_external_relationship_object(LDAP* ld, const char* ldap_filter, const char* base,
                                            LDAPMessage** message) {
    ORV_TRACE();
    if (message) *message = nullptr;
    if (!message || !ldap_filter || !base) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    ORV_DEBUG("Search Filter: ", ldap_filter);
    orv::LdapMsg result;
    const int rc = orv::search(ld, base, LDAP_SCOPE_SUBTREE, ldap_filter, nullptr, 0, result);
    *message = result.release();
    return orv::report(rc);
}

ORVLibEntry* get_object(LDAP* ld, const char* filter, const char* base) {
    ORV_TRACE();
    if (!filter || !base) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    ORVLibEntry* record = nullptr;
    if (orv::er::find_first(ld, filter, base, &record) != LDAP_SUCCESS) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    return record;
}

char* get_obj_dn_from_uuid(const char* id, const char* id2, const char* base) {
    ORV_TRACE();
    if (!id || !base) return nullptr;
    std::string dn = std::string("orvFullyQualifiedObjectId=") + id + ",";
    if (id2) dn += std::string("orvFullyQualifiedObjectId=") + id2 + ",";
    dn += base;
    ORV_DEBUG("Object DN: ", dn);
    return orv::er::dup(dn);
}

}  // extern "C"
