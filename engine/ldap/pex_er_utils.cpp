// pex_er_utils.cpp - attribute identifiers of the external-relationship
// objects (end types, relationship types, external objects, relationships,
// the mini-application configuration).
//
// These ids are used only for names that the general attribute table
// (orvldap_entry.cpp) does not know.  Ids 127 and 128 (the descriptions of a
// relationship's two objects) are derived when values are read and have no
// attribute name.

#include <strings.h>

#include "orv_internal.hpp"
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
