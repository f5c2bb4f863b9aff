// pex_end_type.cpp - end types: which objects may stand at one end of a
// relationship type, by a rule: any object, the objects of the listed
// repositories, or the objects of the listed tools.
//
//   orvFullyQualifiedObjectId=<uuid>,ou=PEXEndTypes,<suffix>
//   top, pexEndTypeObject
//
// The entry's UUID names it; the caller's end id ("pexEndId") is stored
// beside it.  An end of rule type "any" keeps the single rule value
// "EMPTY_STRING", which the valid-type query matches for every object.

#include <strings.h>

#include <string>
#include <vector>

#include "orv_er_internal.hpp"
#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_registry_internal.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"
#include "orvldap_utils.h"

namespace {

const char kEndTypeClass[] = "pexEndTypeObject";
const char kRelationshipTypeClass[] = "pexRelationshipTypeObject";

// The LDAP modification of an option of orvlib_modify_end_rule.
bool operation_of(unsigned long option, int* op) {
    switch (option) {
        case 0: *op = LDAP_MOD_ADD; return true;
        case 1: *op = LDAP_MOD_REPLACE; return true;
        case 2: *op = LDAP_MOD_DELETE; return true;
        default: return false;
    }
}

std::string end_type_filter(const char* end_id) {
    return orv::er::class_filter(orv::er::equals("pexEndId", end_id).c_str(), kEndTypeClass);
}

// The first relationship type whose attribute attr names end_id.
int type_with_end(LDAP* ld, const char* attr, const char* end_id, ORVLibEntry** record) {
    const std::string filter =
        orv::er::class_filter(orv::er::equals(attr, end_id).c_str(), kRelationshipTypeClass);
    return orv::er::find_first(ld, filter, PEX_RELATIONSHIP_TYPE_BASE, record);
}

}  // namespace

extern "C" {

int is_valid_rule_type(const char* rule_type) {
    ORV_TRACE();
    if (!rule_type) return 0;
    for (const char* known : {PEXLIB_RULE_TYPE_ANY, PEXLIB_RULE_TYPE_REPOSITORY, PEXLIB_RULE_TYPE_TOOL})
        if (strcasecmp(rule_type, known) == 0) return 1;
    ORV_DEBUG("Invalid rule type: ", rule_type);
    return 0;
}

ORVLibEntry* get_end_type_object_from_end_id(LDAP* ld, const char* end_id) {
    ORV_TRACE();
    if (!end_id) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }
    return get_object(ld, end_type_filter(end_id).c_str(), PEX_END_TYPE_BASE);
}

int create_end_type(LDAP* ld, const char* end_object_uuid, const char* end_id,
                    const char* rule_type, char** rule_value, const char* description) {
    ORV_TRACE();
    if (!end_object_uuid || !end_id || !rule_type) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const bool any = strcasecmp(rule_type, PEXLIB_RULE_TYPE_ANY) == 0;
    orv::AddRequest request;
    request.add("objectclass", std::vector<std::string>{"top", kEndTypeClass});
    request.add("orvFullyQualifiedObjectId", end_object_uuid);
    request.add("pexEndId", end_id);
    request.add("pexEndRuleType", rule_type);
    request.add("pexEndDescription", description);
    request.add("pexEndRuleValue", any ? orv::er::from_list(PEXLIB_RULE_TYPE_ANY_VALUES)
                                       : orv::er::from_list(rule_value));
    orv::OrvString dn(get_obj_dn_from_uuid(end_object_uuid, nullptr, PEX_END_TYPE_BASE));
    // Whether the entry exists is decided by reading it back; the answer
    // to the add only goes to the log.
    const int before = ldapErrCode;
    const int rc = orv::add(ld, dn.get(), request.mods());
    ORV_DEBUG("Add End Type: ", rc);
    return before;
}

ORVLibEntry* orvlib_create_end_type_object(LDAP* ld, char* end_id, char* rule_type,
                                           char** rule_value, char* description) {
    ORV_TRACE();
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    if (end_id) {
        ORVLibEntry* existing = nullptr;
        if (orv::er::find_first(orv_ld, end_type_filter(end_id), PEX_END_TYPE_BASE, &existing) !=
            LDAP_SUCCESS) {
            // Whether the id is taken is unknown: nothing is created.
            orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
            return nullptr;
        }
        if (existing) {
            orv::report(ORV_LDAPLIB_INVALID_INPUT);
            return existing;
        }
    }
    size_t count = 0;
    for (char** v = rule_value; v && *v; ++v) ++count;
    if (!rule_type || !rule_value || !description || is_valid_rule_type(rule_type) != 1 ||
        (count > PEXLIB_MAX_RULE_VALUES && strcasecmp(rule_type, PEXLIB_RULE_TYPE_ANY) != 0)) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    const std::string uuid = orv::fresh_uuid();
    const std::string id = end_id ? std::string(end_id) : orv::fresh_uuid();
    if (uuid.empty() || (!end_id && id.empty())) {
        orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return nullptr;
    }
    ORV_DEBUG("End ID: ", id);
    // The checks of this call have passed: that is the status the add
    // starts from.
    ldapErrCode = LDAP_SUCCESS;
    if (create_end_type(orv_ld, uuid.c_str(), id.c_str(), rule_type, rule_value, description) !=
        LDAP_SUCCESS)
        return nullptr;

    const std::string filter = orv::er::class_filter(
        orv::er::equals("orvFullyQualifiedObjectId", uuid).c_str(), kEndTypeClass);
    ORVLibEntry* created = get_object(orv_ld, filter.c_str(), PEX_END_TYPE_BASE);
    if (!created && ldapErrCode == LDAP_SUCCESS) orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    return created;
}

int is_end_type_used_in_relationship_type(LDAP* ld, const char* end_id) {
    ORV_TRACE();
    if (!end_id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    const std::string either = "(|" + orv::er::equals("pexEndIdA", end_id) +
                               orv::er::equals("pexEndIdB", end_id) + ")";
    ORVLibEntry* type = nullptr;
    if (orv::er::find_first(ld, orv::er::class_filter(either.c_str(), kRelationshipTypeClass),
                            PEX_RELATIONSHIP_TYPE_BASE, &type) != LDAP_SUCCESS)
        return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
    const int used = type ? 1 : 0;
    orvlib_orvlibentry_free(type);
    return used;
}

int modify_rule_value_in_relationship_type(LDAP* ld, const char* end_id, char** values,
                                           unsigned long operation) {
    ORV_TRACE();
    if (!end_id) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    // An end type belongs to one relationship type: the first one found,
    // at end A before end B, is the one changed.
    const struct {
        const char* attr;
        int values_id;
    } ends[] = {{"pexEndIdA", orv::er::kEndARuleValues}, {"pexEndIdB", orv::er::kEndBRuleValues}};
    for (const auto& end : ends) {
        ORVLibEntry* type = nullptr;
        if (type_with_end(ld, end.attr, end_id, &type) != LDAP_SUCCESS)
            return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        if (!type) continue;
        bool has_dn = false;
        const std::string dn = orv::record_value(type, orv::er::kDn, &has_dn);
        orvlib_orvlibentry_free(type);
        if (!has_dn) return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return change_attribute_value_object(ld, dn.c_str(), end.values_id, values, operation);
    }
    return orv::report(LDAP_SUCCESS);
}

int orvlib_modify_end_rule(LDAP* ld, char* end_id, unsigned long attribute_id, char** value,
                           unsigned long option) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    // Argument checks answer without touching the last status.
    if (!end_id) return ORV_LDAPLIB_INVALID_INPUT;
    if (attribute_id == 0 && value) return ORV_LDAPLIB_INVALID_INPUT;
    if (attribute_id != 0 && !value) return ORV_LDAPLIB_INVALID_INPUT;
    if (attribute_id == orv::er::kEndId || attribute_id == orv::er::kEndRuleType)
        return ORV_LDAPLIB_INVALID_INPUT;
    int op = 0;
    if (!operation_of(option, &op)) return ORV_LDAPLIB_INVALID_INPUT;

    orv::OrvString owned_name;
    ORVLibEntry* end = get_end_type_object_from_end_id(orv_ld, end_id);
    bool has_dn = false;
    const std::string dn = orv::record_value(end, orv::er::kDn, &has_dn);
    const std::string rule_type = orv::record_value(end, orv::er::kEndRuleType);
    orvlib_orvlibentry_free(end);
    if (!has_dn) return ORV_LDAPLIB_INVALID_INPUT;

    if (strcasecmp(rule_type.c_str(), PEXLIB_RULE_TYPE_ANY) == 0 &&
        attribute_id == orv::er::kEndRuleValue) {
        // The rule values of an "any" end are fixed.
        ORV_DEBUG("Rule values of an any end are not changed: ", end_id);
        return orv::report(LDAP_SUCCESS);
    }
    if (attribute_id == 0) {
        if (is_end_type_used_in_relationship_type(orv_ld, end_id) != 0)
            return orv::report(ORV_LDAPLIB_UNKNOWN_ERROR);
        return orv::report(orv::delete_entry(orv_ld, dn));
    }
    // Only the attributes that may be changed have a name here.
    owned_name.reset(attribute_id <= 1000 ? get_external_relationship_attribute_name_from_id(
                                                static_cast<int>(attribute_id))
                                          : nullptr);
    if (!owned_name) return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    int rc = change_attribute_value_object(orv_ld, dn.c_str(), attribute_id, value,
                                           static_cast<unsigned long>(op));
    if (rc == LDAP_SUCCESS && attribute_id == orv::er::kEndRuleValue)
        rc = modify_rule_value_in_relationship_type(orv_ld, end_id, value,
                                                    static_cast<unsigned long>(op));
    return rc;
}

}  // extern "C"
