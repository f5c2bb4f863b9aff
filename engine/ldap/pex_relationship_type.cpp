// pex_relationship_type.cpp - relationship types: a named link from an end
// type A to an end type B.
//
//   orvFullyQualifiedObjectId=<uuid>,ou=PEXRelationshipTypes,<suffix>
//   top, pexRelationshipTypeObject
//
// A type carries copies of its two ends' rule values ("pexEndARuleValues",
// "pexEndBRuleValues"), so the types valid between two objects are found
// with one search: end A admits the first object by repository id, by its
// tool's OID or as "any" ("EMPTY_STRING"), and end B the second.

#include <string>
#include <vector>

#include "orv_er_internal.hpp"
#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"

namespace {

const char kRelationshipTypeClass[] = "pexRelationshipTypeObject";

std::string type_filter(const char* id) {
    return orv::er::class_filter(orv::er::equals("pexRelationshipTypeId", id).c_str(),
                                 kRelationshipTypeClass);
}

// The valid-type alternatives of one end: "(|" repository, tool, any ")".
std::string end_alternatives(const char* attr, const char* repository, const char* tool_oid) {
    return "(|" + orv::er::equals(attr, repository) + orv::er::equals(attr, tool_oid) +
           orv::er::equals(attr, PEXLIB_RULE_TYPE_ANY_VALUES[0]) + ")";
}

}  // namespace

extern "C" {

int create_relationship_type(LDAP* ld, const char* relationship_type_object_uuid,
                             const char* relationship_type_id, const char* relationship_type_name,
                             const char* endA_id, const char* endB_id) {
    ORV_TRACE();
    if (!relationship_type_object_uuid) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", kRelationshipTypeClass});
    request.add("orvFullyQualifiedObjectId", relationship_type_object_uuid);
    request.add("pexRelationshipTypeName", relationship_type_name);
    request.add("pexEndIdA", endA_id);
    request.add("pexEndIdB", endB_id);
    request.add("pexRelationshipTypeId", relationship_type_id);
    orv::OrvString dn(
        get_obj_dn_from_uuid(relationship_type_object_uuid, nullptr, PEX_RELATIONSHIP_TYPE_BASE));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

ORVLibEntry* get_relationship_type_from_rel_type_id(LDAP* ld, const char* id) {
    ORV_TRACE();
    if (!id) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    return get_object(ld, type_filter(id).c_str(), PEX_RELATIONSHIP_TYPE_BASE);
}

int add_end_id_rule_vals(LDAP* ld, const char* type_dn, ORVLibEntry* end_obj1,
                         ORVLibEntry* end_obj2) {
    ORV_TRACE();
    char** a = orv::er::to_list(orv::er::values(end_obj1, orv::er::kEndRuleValue));
    char** b = orv::er::to_list(orv::er::values(end_obj2, orv::er::kEndRuleValue));
    int rc = ORV_LDAPLIB_INVALID_INPUT;
    if (a && b && type_dn &&
        change_attribute_value_object(ld, type_dn, orv::er::kEndARuleValues, a, LDAP_MOD_ADD) ==
            LDAP_SUCCESS) {
        rc = change_attribute_value_object(ld, type_dn, orv::er::kEndBRuleValues, b, LDAP_MOD_ADD);
    } else {
        orv::report(rc);
    }
    orvlib_free_values(a);
    orvlib_free_values(b);
    return rc;
}

ORVLibEntry* orvlib_create_relationship_type(LDAP* ld, char* relationship_type_id,
                                             char* relationship_type_name, ORVLibEntry* end_obj1,
                                             ORVLibEntry* end_obj2) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (relationship_type_id) {
        ORVLibEntry* existing = nullptr;
        if (orv::er::find_first(orv_ld, type_filter(relationship_type_id),
                                PEX_RELATIONSHIP_TYPE_BASE, &existing) != LDAP_SUCCESS) {
            orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
            return nullptr;
        }
        if (existing) {
            orv::report(ORV_LDAPLIB_INVALID_INPUT);
            return existing;
        }
    }
    bool has_a = false;
    bool has_b = false;
    const std::string end_a = orv::record_value(end_obj1, orv::er::kEndId, &has_a);
    const std::string end_b = orv::record_value(end_obj2, orv::er::kEndId, &has_b);
    if (!relationship_type_name || !end_obj1 || !end_obj2 || !has_a || !has_b) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    const std::string id = relationship_type_id ? std::string(relationship_type_id) : orv::fresh_uuid();
    const std::string uuid = orv::fresh_uuid();
    if (id.empty() && !relationship_type_id) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    ORV_DEBUG("Relationship Type ID: ", id);
    if (uuid.empty() || create_relationship_type(orv_ld, uuid.c_str(), id.c_str(),
                                                 relationship_type_name, end_a.c_str(),
                                                 end_b.c_str()) != LDAP_SUCCESS)
        return nullptr;

    // The ends' rule values go into the new entry; when they cannot, the
    // entry stays without them and the call fails.
    orv::OrvString dn(get_obj_dn_from_uuid(uuid.c_str(), nullptr, PEX_RELATIONSHIP_TYPE_BASE));
    if (add_end_id_rule_vals(orv_ld, dn.get(), end_obj1, end_obj2) != LDAP_SUCCESS) return nullptr;

    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvFullyQualifiedObjectId", uuid).c_str(), kRelationshipTypeClass);
    ORVLibEntry* created = get_object(orv_ld, filter.c_str(), PEX_RELATIONSHIP_TYPE_BASE);
    if (!created && ldapErrCode == LDAP_SUCCESS) orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    return created;
}

char* get_tool_oid_from_server_id(LDAP* ld, const char* server_id) {
    ORV_TRACE();
    if (!server_id) return nullptr;
    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvFullyQualifiedObjectId", server_id).c_str(), "orvApplicationServer");
    ORVLibEntry* server = get_object(ld, filter.c_str(), ORV_APPLICATION_REGISTRY_BASE);
    bool found = false;
    const std::string oid = orv::record_value(server, orv::er::kToolOid, &found);
    orvlib_orvlibentry_free(server);
    ORV_DEBUG("Tool OID: ", oid);
    return found ? orv::er::dup(oid) : nullptr;
}

char* create_search_filter_for_relationship_type(const char* repository1, const char* tool_oid1,
                                                 const char* repository2, const char* tool_oid2) {
    ORV_TRACE();
    if (!repository1 || !tool_oid1 || !repository2 || !tool_oid2) return nullptr;
    const std::string filter = "(&" + end_alternatives("pexEndARuleValues", repository1, tool_oid1) +
                               end_alternatives("pexEndBRuleValues", repository2, tool_oid2) + ")";
    ORV_DEBUG("Search Filter: ", filter);
    return orv::er::dup(filter);
}

int query_all_relationship_types(LDAP* ld, LDAPMessage** result) {
    ORV_TRACE();
    return search_for_external_relationship_object(ld, "objectclass=pexRelationshipTypeObject",
                                                   PEX_RELATIONSHIP_TYPE_BASE, result);
}

int query_valid_relationship_types(LDAP* ld, const char* object1_urn, const char* object2_urn,
                                   LDAPMessage** result) {
    ORV_TRACE();
    if (result) *result = nullptr;
    orv::OrvString rep1(get_repository_id_from_urn(object1_urn));
    orv::OrvString rep2(get_repository_id_from_urn(object2_urn));
    if (!rep1 || !rep2) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString oid1(get_tool_oid_from_server_id(ld, rep1.get()));
    orv::OrvString oid2(get_tool_oid_from_server_id(ld, rep2.get()));
    if (!oid1 || !oid2) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString filter(
        create_search_filter_for_relationship_type(rep1.get(), oid1.get(), rep2.get(), oid2.get()));
    if (!filter) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    // The class-wrapped form is only logged: the search runs on the filter
    // as it is (every entry below the base is a relationship type).
    ORV_DEBUG("ldap Filter: ", orv::er::class_filter(filter.get(), kRelationshipTypeClass));
    return search_for_external_relationship_object(ld, filter.get(), PEX_RELATIONSHIP_TYPE_BASE,
                                                   result);
}

int orvlib_search_relationship_types(LDAP* ld, char* object1_urn, char* object2_urn,
                                     LDAPMessage** search_result) {
    ORV_TRACE();
    if (search_result) *search_result = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!search_result) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (!object1_urn || !object2_urn) return query_all_relationship_types(orv_ld, search_result);
    return query_valid_relationship_types(orv_ld, object1_urn, object2_urn, search_result);
}

int is_relationship_type_used(LDAP* ld, const char* relationship_type_id) {
    ORV_TRACE();
    if (!relationship_type_id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string filter = orv::er::class_filter(
        orv::er::equals("pexRelationshipTypeId", relationship_type_id).c_str(),
        "pexRelationshipObject");
    ORVLibEntry* relationship = nullptr;
    if (orv::er::find_first(ld, filter, PEX_RELATIONSHIP_BASE, &relationship) != LDAP_SUCCESS)
        return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    const int used = relationship ? 1 : 0;
    orvlib_orvlibentry_free(relationship);
    return used;
}

int remove_relationship_type(LDAP* ld, const char* relationship_type_id) {
    ORV_TRACE();
    ORVLibEntry* type = get_relationship_type_from_rel_type_id(ld, relationship_type_id);
    bool has_dn = false;
    const std::string dn = orv::record_value(type, orv::er::kDn, &has_dn);
    orvlib_orvlibentry_free(type);
    if (!has_dn) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    return orv::report(orv::delete_entry(ld, dn));
}

int orvlib_remove_relationship_type(LDAP* ld, char* relationship_type_id) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!relationship_type_id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    // A type in use, or one whose use cannot be checked, stays.
    if (is_relationship_type_used(orv_ld, relationship_type_id) != 0)
        return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    return remove_relationship_type(orv_ld, relationship_type_id);
}

}  // extern "C"
