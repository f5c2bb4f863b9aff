// pex_external_object.cpp - external objects: the directory's record of an
// object that some tool's repository owns (its URN, context and
// description), grouped under one entry per repository.
//
//   repository  orvFullyQualifiedObjectId=<uuid>,ou=ExternalRelationshipObjects,<suffix>
//               top, organizationalUnit, orvApplicationRepository
//   object      orvFullyQualifiedObjectId=<uuid>,<repository DN>
//               top, orvExternalObject
//
// An object URN reads "urn:morvane:<repository id>:...": the repository id
// is its third ":"-separated field, and it is also the id of the
// repository's application server in the registry.

#include <strings.h>

#include <cstring>
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

const char kRepositoryClass[] = "orvApplicationRepository";
const char kObjectClass[] = "orvExternalObject";
const char kUrnMark[] = "urn:morvane";

std::string repository_filter(const char* rep_id) {
    return orv::er::class_filter(orv::er::equals("orvApplicationRepositoryId", rep_id).c_str(),
                                 kRepositoryClass);
}

std::string urn_filter(const char* urn) {
    return orv::er::class_filter(orv::er::equals("orvExternalObjectURN", urn).c_str(), kObjectClass);
}

std::string uuid_filter(const std::string& uuid) {
    return orv::er::class_filter(orv::er::equals("orvFullyQualifiedObjectId", uuid).c_str(),
                                 kObjectClass);
}

// Equal texts in any letter case; a missing value equals nothing.
bool same_text(const std::vector<std::string>& current, const char* wanted) {
    return !current.empty() && strcasecmp(current[0].c_str(), wanted) == 0;
}

int replace_value(LDAP* ld, const std::string& dn, int id, const char* value) {
    char* values[] = {const_cast<char*>(value), nullptr};
    return change_attribute_value_object(ld, dn.c_str(), static_cast<unsigned long>(id), values,
                                         LDAP_MOD_REPLACE);
}

}  // namespace

extern "C" {

char* get_repository_id_from_urn(const char* object_urn) {
    ORV_TRACE();
    if (!object_urn || !std::strstr(object_urn, kUrnMark)) {
        ORV_DEBUG("Not an object URN: ", object_urn ? object_urn : "");
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    // Fields are counted from the start of the text; empty fields (two
    // colons in a row) do not count.
    std::vector<std::string> fields;
    const std::string urn = object_urn;
    size_t start = 0;
    while (start <= urn.size() && fields.size() < 3) {
        size_t colon = urn.find(':', start);
        if (colon == std::string::npos) colon = urn.size();
        if (colon > start) fields.push_back(urn.substr(start, colon - start));
        start = colon + 1;
    }
    if (fields.size() < 3) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    ORV_DEBUG("Repository ID: ", fields[2]);
    return orv::er::dup(fields[2]);
}

ORVLibEntry* get_application_repository(LDAP* ld, const char* rep_id) {
    ORV_TRACE();
    if (!rep_id) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    return get_object(ld, repository_filter(rep_id).c_str(), PEX_EXTERNAL_OBJECT_BASE);
}

int create_application_repository(LDAP* ld, const char* app_rep_uuid, const char* rep_id) {
    ORV_TRACE();
    if (!app_rep_uuid || !rep_id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", "organizationalUnit", kRepositoryClass});
    request.add("orvFullyQualifiedObjectId", app_rep_uuid);
    request.add("ou", app_rep_uuid);
    request.add("orvApplicationRepositoryId", rep_id);
    orv::OrvString dn(get_obj_dn_from_uuid(app_rep_uuid, nullptr, PEX_EXTERNAL_OBJECT_BASE));
    return orv::report(orv::add(ld, dn.get(), request.mods()));
}

int create_ext_object(LDAP* ld, const char* object_urn, const char* object_context,
                      const char* object_description, const char* app_repository_uuid,
                      char** object_uuid) {
    ORV_TRACE();
    if (object_uuid) *object_uuid = nullptr;
    if (!object_urn || !app_repository_uuid || !object_uuid)
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string uuid = orv::fresh_uuid();
    if (uuid.empty()) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", kObjectClass});
    request.add("orvFullyQualifiedObjectId", uuid.c_str());
    request.add("orvExternalObjectURN", object_urn);
    request.add("orvExternalObjectContext", object_context);
    request.add("orvExternalObjectDescription", object_description);
    orv::OrvString dn(get_obj_dn_from_uuid(uuid.c_str(), app_repository_uuid, PEX_EXTERNAL_OBJECT_BASE));
    const int rc = orv::add(ld, dn.get(), request.mods());
    ORV_DEBUG("Add External Object: ", rc);

    // The object exists when it can be read back.
    ORVLibEntry* created = nullptr;
    const int found = orv::er::find_first(ld, uuid_filter(uuid), PEX_EXTERNAL_OBJECT_BASE, &created);
    const bool exists = found == LDAP_SUCCESS && created;
    orvlib_orvlibentry_free(created);
    if (!exists) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    *object_uuid = orv::er::dup(uuid);
    return orv::report(LDAP_SUCCESS);
}

ORVLibEntry* get_external_object_from_urn(LDAP* ld, const char* object_urn) {
    ORV_TRACE();
    if (!object_urn) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    return get_object(ld, urn_filter(object_urn).c_str(), PEX_EXTERNAL_OBJECT_BASE);
}

int update_external_object(LDAP* ld, ORVLibEntry* orvlib_external_object,
                           const char* object_context, const char* object_description) {
    ORV_TRACE();
    bool has_dn = false;
    const std::string dn = orv::record_value(orvlib_external_object, orv::er::kDn, &has_dn);
    if (!has_dn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    // Values that differ only in letter case are left as they are.
    int rc = LDAP_SUCCESS;
    if (object_context &&
        !same_text(orv::er::values(orvlib_external_object, orv::er::kObjectContext), object_context)) {
        rc = replace_value(ld, dn, orv::er::kObjectContext, object_context);
        if (rc != LDAP_SUCCESS) return rc;
    }
    if (object_description &&
        !same_text(orv::er::values(orvlib_external_object, orv::er::kObjectDescription),
                   object_description))
        rc = replace_value(ld, dn, orv::er::kObjectDescription, object_description);
    return rc;
}

int create_external_object(LDAP* ld, const char* object_urn, const char* object_context,
                           const char* object_description, char** object_uuid) {
    ORV_TRACE();
    if (object_uuid) *object_uuid = nullptr;
    if (!object_uuid) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    orv::OrvString rep_id(get_repository_id_from_urn(object_urn));
    if (!rep_id) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);

    // A look-up that fails is no "not found": nothing is created then.
    ORVLibEntry* repository = nullptr;
    if (orv::er::find_first(ld, repository_filter(rep_id.get()), PEX_EXTERNAL_OBJECT_BASE,
                            &repository) != LDAP_SUCCESS)
        return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    if (!repository) {
        // The first object of this repository.
        const std::string repository_uuid = orv::fresh_uuid();
        if (repository_uuid.empty() ||
            create_application_repository(ld, repository_uuid.c_str(), rep_id.get()) != LDAP_SUCCESS)
            return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return create_ext_object(ld, object_urn, object_context, object_description,
                                 repository_uuid.c_str(), object_uuid);
    }
    bool has_uuid = false;
    const std::string repository_uuid = orv::record_value(repository, orv::er::kObjectId, &has_uuid);
    orvlib_orvlibentry_free(repository);
    if (!has_uuid) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);

    // An object with this URN anywhere is updated, not created again.
    ORVLibEntry* existing = nullptr;
    if (orv::er::find_first(ld, urn_filter(object_urn), PEX_EXTERNAL_OBJECT_BASE, &existing) !=
        LDAP_SUCCESS)
        return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    if (!existing)
        return create_ext_object(ld, object_urn, object_context, object_description,
                                 repository_uuid.c_str(), object_uuid);
    int rc = update_external_object(ld, existing, object_context, object_description);
    bool has_object_uuid = false;
    const std::string uuid = orv::record_value(existing, orv::er::kObjectId, &has_object_uuid);
    orvlib_orvlibentry_free(existing);
    if (rc == LDAP_SUCCESS && !has_object_uuid) rc = orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    if (rc == LDAP_SUCCESS) *object_uuid = orv::er::dup(uuid);
    return rc;
}

int search_external_objects_in_repository(LDAP* ld, const char* repository_ou_dn,
                                          const char* object_context, LDAPMessage** searchResult) {
    ORV_TRACE();
    if (searchResult) *searchResult = nullptr;
    if (!repository_ou_dn || !searchResult) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string filter =
        object_context ? orv::er::class_filter(
                             orv::er::equals("orvExternalObjectContext", object_context).c_str(),
                             kObjectClass)
                       : orv::er::class_filter(nullptr, kObjectClass);
    ORV_DEBUG("Search Filter: ", filter);
    static const char* const kAttrs[] = {"orvExternalRelationshipId", nullptr};
    orv::LdapMsg result;
    const int rc = orv::search(ld, repository_ou_dn, LDAP_SCOPE_SUBTREE, filter.c_str(), kAttrs, 0, result);
    *searchResult = result.release();
    return orv::report(rc);
}

char** get_external_object_uuids(LDAP* ld, LDAPMessage* message) {
    ORV_TRACE();
    if (!ld || !message) return nullptr;
    std::vector<std::string> uuids;
    for (LDAPMessage* e = orv::first_entry(ld, message); e; e = orv::next_entry(ld, e)) {
        orv::LdapBerValues values(ldap_get_values_len(ld, e, "orvFullyQualifiedObjectId"));
        if (values && values.get()[0])
            uuids.emplace_back(values.get()[0]->bv_val, values.get()[0]->bv_len);
    }
    char** list = orv::er::to_list(uuids);
    if (!list && uuids.empty()) {
        list = orvlib_arr_malloc(1);
        if (list) list[0] = nullptr;
    }
    return list;
}

char** get_external_object_description(LDAP* ld, const char* objectUUID) {
    ORV_TRACE();
    if (!objectUUID) return nullptr;
    ORVLibEntry* object = get_object(ld, uuid_filter(objectUUID).c_str(), PEX_EXTERNAL_OBJECT_BASE);
    char** description = orv::er::to_list(orv::er::values(object, orv::er::kObjectDescription));
    orvlib_orvlibentry_free(object);
    return description;
}

}  // extern "C"
