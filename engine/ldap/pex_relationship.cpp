// pex_relationship.cpp - relationships between two external objects under
// a relationship type: creation, searches by repository or by object URN,
// removal or marking for deletion, and the notifications that mark every
// relationship touching a repository or a set of objects.
//
//   orvFullyQualifiedObjectId=<uuid>,ou=PEXRelationships,<suffix>
//   top, pexRelationshipObject
//
// A relationship keeps both objects' UUIDs, URNs, contexts and repository
// ids, so it is found by any of them without reading the objects.  A
// relationship URN is any text whose part after the last ":" is its UUID.
//
// The look-ups at the end of this unit read the older layout below
// "ou=External Relationship,<suffix>", where repositories and objects kept
// their relationship ids themselves.

#include <strings.h>

#include <string>
#include <vector>

#include "orv_er_internal.hpp"
#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"

namespace {

const char kRelationshipClass[] = "pexRelationshipObject";

std::string older_base() { return std::string("ou=External Relationship,") + ORV_ROOT_SUFFIX; }

// Subtree search of base with filter (raw filter logged as "Search
// Filter: ", the class-wrapped one as "ldap Filter: ").
int relationship_search(LDAP* ld, const char* raw, LDAPMessage** result) {
    ORV_DEBUG("Search Filter: ", raw ? raw : "");
    const std::string filter = orv::er::class_filter(raw, kRelationshipClass);
    ORV_DEBUG("ldap Filter: ", filter);
    return search_for_external_relationship_object(ld, filter.c_str(), PEX_RELATIONSHIP_BASE, result);
}

int mark_for_delete(LDAP* ld, const std::string& dn) {
    char* marked[] = {const_cast<char*>("1"), nullptr};
    return change_attribute_value_object(ld, dn.c_str(), orv::er::kMarkedForDelete, marked,
                                         LDAP_MOD_REPLACE);
}

// Search of the older base asking for the given attributes.
int older_search(LDAP* ld, const char* attr, const char* value, const char* const* attrs,
                 LDAPMessage** res) {
    if (res) *res = nullptr;
    if (!value || !res) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string filter =
        orv::er::class_filter(orv::er::equals(attr, value).c_str(), "orvExternalObject");
    ORV_DEBUG("Search Filter: ", filter);
    orv::LdapMsg result;
    const int rc = orv::search(ld, older_base().c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs,
                               0, result);
    *res = result.release();
    return orv::report(rc);
}

}  // namespace

extern "C" {

// ------------------------------------------------------------------ filters

char* create_search_filter_from_repository_id(const char* repository_id, const char* object_context) {
    ORV_TRACE();
    using orv::er::equals;
    std::string filter;
    if (repository_id && object_context) {
        // Repository and context must meet at the same end.
        filter = "(|(&" + equals("pexExtObjectARepId", repository_id) +
                 equals("pexExtObjectAContext", object_context) + ")(&" +
                 equals("pexExtObjectBRepId", repository_id) +
                 equals("pexExtObjectBContext", object_context) + "))";
    } else if (repository_id) {
        filter = "(|" + equals("pexExtObjectARepId", repository_id) +
                 equals("pexExtObjectBRepId", repository_id) + ")";
    } else if (object_context) {
        filter = "(|" + equals("pexExtObjectAContext", object_context) +
                 equals("pexExtObjectBContext", object_context) + ")";
    } else {
        return nullptr;
    }
    return orv::er::dup(filter);
}

char* create_filter_object_urns(char** object_urns) {
    ORV_TRACE();
    if (!object_urns) return nullptr;
    std::string filter = "(|";
    for (char** urn = object_urns; *urn; ++urn)
        filter += orv::er::equals("pexExtObjectAURN", *urn) + orv::er::equals("pexExtObjectBURN", *urn);
    filter += ")";
    return orv::er::dup(filter);
}

char* get_relationshipId_from_URN(const char* relationship_URN) {
    ORV_TRACE();
    if (!relationship_URN) return nullptr;
    const std::string urn = relationship_URN;
    const size_t colon = urn.rfind(':');
    const std::string id = colon == std::string::npos ? urn : urn.substr(colon + 1);
    ORV_DEBUG("Relationship ID: ", id);
    return orv::er::dup(id);
}

// ------------------------------------------------------------------ create

int create_external_relationship(LDAP* ld, const char* relationship_uuid,
                                 const char* relationship_type_id, const char* objectA_uuid,
                                 const char* objectB_uuid, const char* description,
                                 const char* objectA_context, const char* objectB_context,
                                 const char* objectA_urn, const char* objectB_urn,
                                 const char* objectA_rep_id, const char* objectB_rep_id) {
    ORV_TRACE();
    if (!relationship_uuid) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", kRelationshipClass});
    request.add("orvFullyQualifiedObjectId", relationship_uuid);
    request.add("pexRelationshipTypeId", relationship_type_id);
    request.add("pexExtObjectAUUID", objectA_uuid);
    request.add("pexExtObjectBUUID", objectB_uuid);
    request.add("pexRelationshipDescription", description);
    request.add("pexRelationshipMarkedForDelete", "0");
    request.add("pexExtObjectAContext", objectA_context);
    request.add("pexExtObjectBContext", objectB_context);
    request.add("pexExtObjectAURN", objectA_urn);
    request.add("pexExtObjectBURN", objectB_urn);
    request.add("pexExtObjectARepId", objectA_rep_id);
    request.add("pexExtObjectBRepId", objectB_rep_id);
    orv::OrvString dn(get_obj_dn_from_uuid(relationship_uuid, nullptr, PEX_RELATIONSHIP_BASE));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

ORVLibEntry* orvlib_create_external_relationship(LDAP* ld, char* object1_urn,
                                                 char* object1_description, char* object1_context,
                                                 char* object2_urn, char* object2_description,
                                                 char* object2_context,
                                                 ORVLibEntry* relationship_type,
                                                 char* relationship_description) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (!object1_urn || !object1_description || !object1_context || !object2_urn ||
        !object2_description || !object2_context) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    // Both objects must exist before they are related.
    char* raw1 = nullptr;
    char* raw2 = nullptr;
    const int rc1 = create_external_object(orv_ld, object1_urn, object1_context, object1_description, &raw1);
    orv::OrvString uuid1(raw1);
    const int rc2 = create_external_object(orv_ld, object2_urn, object2_context, object2_description, &raw2);
    orv::OrvString uuid2(raw2);
    if (rc1 != LDAP_SUCCESS || rc2 != LDAP_SUCCESS || !uuid1 || !uuid2) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    bool has_type = false;
    const std::string type_id = orv::record_value(relationship_type, orv::er::kRelationshipTypeId, &has_type);
    if (!has_type) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    const std::string uuid = orv::fresh_uuid();
    orv::OrvString rep1(get_repository_id_from_urn(object1_urn));
    orv::OrvString rep2(get_repository_id_from_urn(object2_urn));
    if (uuid.empty()) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    if (create_external_relationship(orv_ld, uuid.c_str(), type_id.c_str(), uuid1.get(), uuid2.get(),
                                     relationship_description, object1_context, object2_context,
                                     object1_urn, object2_urn, rep1.get(), rep2.get()) != LDAP_SUCCESS)
        return nullptr;

    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvFullyQualifiedObjectId", uuid).c_str(), kRelationshipClass);
    ORVLibEntry* created = get_object(orv_ld, filter.c_str(), PEX_RELATIONSHIP_BASE);
    if (!created && ldapErrCode == LDAP_SUCCESS) orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    return created;
}

// ------------------------------------------------------------------ search

int search_ext_relationship_repository_id(LDAP* ld, const char* repository_id,
                                          const char* object_context, LDAPMessage** result) {
    ORV_TRACE();
    orv::OrvString raw(create_search_filter_from_repository_id(repository_id, object_context));
    return relationship_search(ld, raw.get(), result);
}

int search_ext_relationship_object_urn(LDAP* ld, char** object_urns, LDAPMessage** result) {
    ORV_TRACE();
    orv::OrvString raw(create_filter_object_urns(object_urns));
    return relationship_search(ld, raw.get(), result);
}

int orvlib_search_external_relationship(LDAP* ld, char** input_id, char* object_context,
                                        LDAPMessage** search_result, int input_type) {
    ORV_TRACE();
    if (search_result) *search_result = nullptr;
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    // A context belongs to a repository search only; the answer leaves the
    // last status as it was.
    if (input_type == PEXLIB_SEARCH_BY_OBJECT_URNS && object_context) return ORV_LDAPLIB_INVALID_INPUT;
    if (!search_result) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (input_type == PEXLIB_SEARCH_BY_REPOSITORY_ID)
        return search_ext_relationship_repository_id(orv_ld, input_id ? input_id[0] : nullptr,
                                                     object_context, search_result);
    if (input_type == PEXLIB_SEARCH_BY_OBJECT_URNS)
        return search_ext_relationship_object_urn(orv_ld, input_id, search_result);
    return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
}

// ------------------------------------------------------------------ removal and notification

int orvlib_remove_external_relationship(LDAP* ld, char* relationship_URN, int mark_for_delete_flag) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    orv::OrvString id(get_relationshipId_from_URN(relationship_URN));
    if (!id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvFullyQualifiedObjectId", id.get()).c_str(), kRelationshipClass);
    ORVLibEntry* relationship = get_object(orv_ld, filter.c_str(), PEX_RELATIONSHIP_BASE);
    bool has_dn = false;
    const std::string dn = orv::record_value(relationship, orv::er::kDn, &has_dn);
    orvlib_orvlibentry_free(relationship);
    if (!has_dn) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    if (mark_for_delete_flag == 0) return orv::report(orv::delete_entry(orv_ld, dn));
    return mark_for_delete(orv_ld, dn);
}

int mark_relationship_object_for_delete(LDAP* ld, LDAPMessage* result) {
    ORV_TRACE();
    // Every entry is marked even when one of them cannot be.
    int rc = LDAP_SUCCESS;
    for (LDAPMessage* e = orv::first_entry(ld, result); e; e = orv::next_entry(ld, e)) {
        const std::string dn = orv::entry_dn(ld, e);
        ORV_DEBUG("Relationship marked for delete: ", dn);
        rc = dn.empty() ? orv::report(ORV_LDAPLIB_UNKNOWN_ERROR) : mark_for_delete(ld, dn);
    }
    return rc;
}

int orvlib_notify_external_relationship_changes_on_repository_id(LDAP* ld, char* repository_id,
                                                                 char* object_context) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    // Without either there is nothing to restrict the marks to.
    if (!repository_id && !object_context) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    LDAPMessage* raw = nullptr;
    int rc = search_ext_relationship_repository_id(orv_ld, repository_id, object_context, &raw);
    orv::LdapMsg result(raw);
    if (rc == LDAP_SUCCESS) rc = mark_relationship_object_for_delete(orv_ld, result.get());
    return orv::report(rc);
}

int orvlib_notify_external_relationship_changes_on_external_objects(LDAP* ld, char** objectURNs) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    if (!objectURNs) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    // An empty list names no relationship.
    if (!objectURNs[0]) return orv::report(LDAP_SUCCESS);
    LDAPMessage* raw = nullptr;
    int rc = search_ext_relationship_object_urn(orv_ld, objectURNs, &raw);
    orv::LdapMsg result(raw);
    if (rc == LDAP_SUCCESS) rc = mark_relationship_object_for_delete(orv_ld, result.get());
    return orv::report(rc);
}

// ------------------------------------------------------------------ the older layout

char* get_repository_ou_dn(LDAP* ld, const char* repository_id) {
    ORV_TRACE();
    if (!repository_id) return nullptr;
    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvApplicationRepositoryId", repository_id).c_str(), "orvApplicationRepository");
    ORV_DEBUG("Search Filter: ", filter);
    static const char* const kNoAttrs[] = {"1.1", nullptr};
    orv::LdapMsg result;
    const int rc = orv::search(ld, older_base().c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), kNoAttrs,
                               0, result);
    orv::report(rc);
    if (rc != LDAP_SUCCESS) return nullptr;
    LDAPMessage* first = orv::first_entry(ld, result.get());
    if (!first) return nullptr;
    const std::string dn = orv::entry_dn(ld, first);
    return dn.empty() ? nullptr : orv::er::dup(dn);
}

char** get_all_external_objects_in_repository(LDAP* ld, const char* repository_dn) {
    ORV_TRACE();
    if (!repository_dn) return nullptr;
    static const char* const kAttrs[] = {"orvExternalObjectURN", nullptr};
    orv::LdapMsg result;
    const int rc = orv::search(ld, repository_dn, LDAP_SCOPE_SUBTREE, "(objectclass=orvExternalObject)",
                               kAttrs, 0, result);
    orv::report(rc);
    if (rc != LDAP_SUCCESS) return nullptr;
    std::vector<std::string> urns;
    for (LDAPMessage* e = orv::first_entry(ld, result.get()); e; e = orv::next_entry(ld, e)) {
        BerElement* raw_ber = nullptr;
        orv::LdapString name(ldap_first_attribute(ld, e, &raw_ber));
        orv::BerPtr ber(raw_ber);
        if (!name) continue;
        orv::LdapBerValues values(ldap_get_values_len(ld, e, name.get()));
        if (values && values.get()[0])
            urns.emplace_back(values.get()[0]->bv_val, values.get()[0]->bv_len);
    }
    if (urns.empty()) {
        char** empty = orvlib_arr_malloc(1);
        if (empty) empty[0] = nullptr;
        return empty;
    }
    return orv::er::to_list(urns);
}

char** orvlib_search_external_relationship_on_repository_id(LDAP* ld, char* repository_id) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (!repository_id) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    orv::OrvString dn(get_repository_ou_dn(orv_ld, repository_id));
    if (!dn) return nullptr;
    return get_all_external_objects_in_repository(orv_ld, dn.get());
}

int search_on_relationshipId(LDAP* ld, const char* relationshipId, LDAPMessage** res) {
    ORV_TRACE();
    static const char* const kAttrs[] = {"orvExternalRelationshipEndId",
                                         "orvExternalRelationshipIdMarkedForDelete", nullptr};
    return older_search(ld, "orvExternalRelationshipId", relationshipId, kAttrs, res);
}

int search_on_objectURN(LDAP* ld, const char* objectURN, LDAPMessage** res) {
    ORV_TRACE();
    static const char* const kAttrs[] = {"orvExternalRelationshipId", nullptr};
    return older_search(ld, "orvExternalObjectURN", objectURN, kAttrs, res);
}

char** getAttributeValue(LDAP* ld, LDAPMessage* entry, const char* attrName) {
    ORV_TRACE();
    if (!ld || !entry || !attrName) return nullptr;
    // The last attribute of that name (any case) wins.
    std::vector<std::string> found;
    bool matched = false;
    BerElement* raw_ber = nullptr;
    for (char* name = ldap_first_attribute(ld, entry, &raw_ber); name;
         name = ldap_next_attribute(ld, entry, raw_ber)) {
        orv::LdapString owned(name);
        if (strcasecmp(name, attrName) != 0) continue;
        orv::LdapBerValues values(ldap_get_values_len(ld, entry, name));
        found.clear();
        matched = true;
        for (berval** v = values.get(); v && *v; ++v) found.emplace_back((*v)->bv_val, (*v)->bv_len);
    }
    orv::BerPtr ber(raw_ber);
    return matched ? orv::er::to_list(found) : nullptr;
}

}  // extern "C"
