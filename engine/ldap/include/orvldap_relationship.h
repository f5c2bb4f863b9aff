/*
 * orvldap_relationship.h - external relationships: end types and
 * relationship types, external objects grouped by repository, and the
 * relationships that link two external objects.
 *
 * Every entry of this area is named by a fresh UUID:
 *   end type           orvFullyQualifiedObjectId=<uuid>,ou=PEXEndTypes,<suffix>
 *   relationship type  orvFullyQualifiedObjectId=<uuid>,ou=PEXRelationshipTypes,<suffix>
 *   repository         orvFullyQualifiedObjectId=<uuid>,ou=ExternalRelationshipObjects,<suffix>
 *   external object    orvFullyQualifiedObjectId=<uuid>,<repository DN>
 *   relationship       orvFullyQualifiedObjectId=<uuid>,ou=PEXRelationships,<suffix>
 * Callers read the records by attribute id (100 to 128, plus the general
 * ids 0 DN, 18 objectclass, 20 orvKXSToolOID, 22 orvFullyQualifiedObjectId)
 * with orvlib_get_entry_er_vals.
 *
 * Every public operation checks only that its session handle is non-NULL
 * (3007 otherwise) and then works on the library's own connection.  Values
 * that go into a search filter are escaped (RFC 4515).  Records are freed
 * with orvlib_orvlibentry_free, value lists with orvlib_free_values,
 * strings with orvlib_memfree, search results with orvlib_orvmessage_free.
 */
#ifndef ORVLDAP_RELATIONSHIP_H
#define ORVLDAP_RELATIONSHIP_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Rule types of an end type (any letter case). */
#define PEXLIB_RULE_TYPE_ANY        "any"
#define PEXLIB_RULE_TYPE_REPOSITORY "repository"
#define PEXLIB_RULE_TYPE_TOOL       "tool"
/* The most rule values an end type takes. */
#define PEXLIB_MAX_RULE_VALUES      19
/* orvlib_get_url: the mini-application service URL. */
#define PEXLIB_MINI_APP_URL         6001
/* orvlib_search_external_relationship: what input_id holds. */
#define PEXLIB_SEARCH_BY_REPOSITORY_ID 0
#define PEXLIB_SEARCH_BY_OBJECT_URNS   1

/* An end of rule type "any" stores PEXLIB_RULE_TYPE_ANY_VALUES (orvldap.h). */

/* ---- end types and relationship types ---- */

/* Creates an end type (end_id NULL: a new UUID; "" is an id) of rule type
 * "any", "repository" or "tool" with at most 19 rule values ("any" stores
 * "EMPTY_STRING" whatever is passed) and returns it as read back.  An
 * existing end_id returns that end type with status 3009.  NULL with 3007,
 * 3008 (missing or invalid argument, not created). */
ORV_API ORVLibEntry* orvlib_create_end_type_object(LDAP* ld, char* end_id, char* rule_type,
                                                   char** rule_value, char* description);
/* attribute_id 0 (value NULL) deletes the end type: 3008 while a
 * relationship type uses it.  Otherwise changes attribute 102 or 103 with
 * option 0 add, 1 replace, 2 delete; a change of the rule values (102) is
 * carried into the relationship type that uses the end.  Rule values of an
 * "any" end are fixed: 0 and nothing changed.  3009 for a NULL end_id, a
 * bad value, attribute or option, or an unknown end type (not stored as
 * the last status); 3007 without a session. */
ORV_API int orvlib_modify_end_rule(LDAP* ld, char* end_id, unsigned long attribute_id,
                                   char** value, unsigned long option);
/* Creates a relationship type from end A end_obj1 to end B end_obj2 (type
 * id NULL: a new UUID) and returns it as read back, with the rule values of
 * both ends copied into it.  An existing id returns that type with 3009.
 * NULL with 3007, 3008 (missing argument or end id), the add's status, or
 * 3009 (rule values not copied; the entry stays). */
ORV_API ORVLibEntry* orvlib_create_relationship_type(LDAP* ld, char* relationship_type_id,
                                                     char* relationship_type_name,
                                                     ORVLibEntry* end_obj1, ORVLibEntry* end_obj2);
/* Relationship types valid from an object object1_urn (end A) to one
 * object2_urn (end B): end A admits object 1's repository, its tool or
 * any object, end B likewise object 2.  Either URN NULL: every type.  The
 * result goes to *search_result (walk it with orvlib_first_er_entry).  The
 * search's status, 3007, 3009 (a URN without repository, a repository
 * without tool). */
ORV_API int orvlib_search_relationship_types(LDAP* ld, char* object1_urn, char* object2_urn,
                                             LDAPMessage** search_result);
/* Removes a relationship type: 0 or the delete's status; 3008 while a
 * relationship uses it (or when that cannot be checked), 3009 when it does
 * not exist or the id is NULL, 3007. */
ORV_API int orvlib_remove_relationship_type(LDAP* ld, char* relationship_type_id);

/* Helpers.  Adds return the status of their add request. */
/* The status as it stood before the add: the add itself is checked by
 * reading the entry back. */
ORV_API int create_end_type(LDAP* ld, const char* end_object_uuid, const char* end_id,
                            const char* rule_type, char** rule_value, const char* description);
ORV_API int create_relationship_type(LDAP* ld, const char* relationship_type_object_uuid,
                                     const char* relationship_type_id,
                                     const char* relationship_type_name, const char* endA_id,
                                     const char* endB_id);
/* 1 for "any", "repository", "tool" in any case, else 0. */
ORV_API int is_valid_rule_type(const char* rule_type);
ORV_API ORVLibEntry* get_end_type_object_from_end_id(LDAP* ld, const char* end_id);
ORV_API ORVLibEntry* get_relationship_type_from_rel_type_id(LDAP* ld, const char* id);
/* 1 used, 0 not used, 3008 when the check could not be made. */
ORV_API int is_end_type_used_in_relationship_type(LDAP* ld, const char* end_id);
ORV_API int is_relationship_type_used(LDAP* ld, const char* relationship_type_id);
ORV_API int remove_relationship_type(LDAP* ld, const char* relationship_type_id);
ORV_API int query_valid_relationship_types(LDAP* ld, const char* object1_urn,
                                           const char* object2_urn, LDAPMessage** result);
ORV_API int query_all_relationship_types(LDAP* ld, LDAPMessage** result);
/* The valid-type filter of two repositories and their tools (new string). */
ORV_API char* create_search_filter_for_relationship_type(const char* repository1,
                                                         const char* tool_oid1,
                                                         const char* repository2,
                                                         const char* tool_oid2);
/* "orvKXSToolOID" of the registered server server_id (new string), or NULL. */
ORV_API char* get_tool_oid_from_server_id(LDAP* ld, const char* server_id);
/* Adds the rule values of the two ends to the type entry type_dn. */
ORV_API int add_end_id_rule_vals(LDAP* ld, const char* type_dn, ORVLibEntry* end_obj1,
                                 ORVLibEntry* end_obj2);
/* Applies a rule-value change (LDAP operation code) to the first
 * relationship type naming end_id at end A, else at end B; 0 if none. */
ORV_API int modify_rule_value_in_relationship_type(LDAP* ld, const char* end_id, char** values,
                                                   unsigned long operation);

/* Shared helpers.  "(&(objectclass=" class ")" filter ")", or
 * "(objectclass=" class ")" for a NULL filter (new string). */
ORV_API char* create_ldap_filter(const char* filter, const char* objectclass);
/* First entry of a subtree search of base as a record; NULL when none,
 * NULL with 3008 when the search fails. */
ORV_API ORVLibEntry* get_object(LDAP* ld, const char* filter, const char* base);
/* Subtree search of base, all attributes; the status (also stored). */
ORV_API int search_for_external_relationship_object(LDAP* ld, const char* ldap_filter,
                                                    const char* base, LDAPMessage** message);
/* "orvFullyQualifiedObjectId=" id ["," "orvFullyQualifiedObjectId=" id2]
 * "," base (new string); NULL for a NULL id or base. */
ORV_API char* get_obj_dn_from_uuid(const char* id, const char* id2, const char* base);

/* ---- external objects and repositories ---- */

/* The third ":"-separated field of a URN holding "urn:morvane" (new
 * string); NULL with 3008 otherwise. */
ORV_API char* get_repository_id_from_urn(const char* object_urn);
/* Creates the object (and its repository when it is the first one) or
 * updates the object with this URN wherever it is; *object_uuid receives
 * its UUID.  0, 3008, or the status of a refused change. */
ORV_API int create_external_object(LDAP* ld, const char* object_urn, const char* object_context,
                                   const char* object_description, char** object_uuid);
ORV_API ORVLibEntry* get_application_repository(LDAP* ld, const char* rep_id);
ORV_API int create_application_repository(LDAP* ld, const char* app_rep_uuid, const char* rep_id);
/* Adds the object below its repository and reads it back: 0 with
 * *object_uuid set, or 3008 when it cannot be read back. */
ORV_API int create_ext_object(LDAP* ld, const char* object_urn, const char* object_context,
                              const char* object_description, const char* app_repository_uuid,
                              char** object_uuid);
ORV_API ORVLibEntry* get_external_object_from_urn(LDAP* ld, const char* object_urn);
/* Replaces context and description unless they are equal in any case. */
ORV_API int update_external_object(LDAP* ld, ORVLibEntry* orvlib_external_object,
                                   const char* object_context, const char* object_description);
ORV_API int search_external_objects_in_repository(LDAP* ld, const char* repository_ou_dn,
                                                  const char* object_context,
                                                  LDAPMessage** searchResult);
ORV_API char** get_external_object_uuids(LDAP* ld, LDAPMessage* message);
ORV_API char** get_external_object_description(LDAP* ld, const char* objectUUID);

/* ---- relationships ---- */

/* Creates (or updates) both objects and relates them under the
 * relationship type record; the relationship as read back, or NULL: 3007,
 * 3008 (missing object argument, object not created, type without id), or
 * the add's status.  The end rules of the type are not checked here. */
ORV_API ORVLibEntry* orvlib_create_external_relationship(
    LDAP* ld, char* object1_urn, char* object1_description, char* object1_context,
    char* object2_urn, char* object2_description, char* object2_context,
    ORVLibEntry* relationship_type, char* relationship_description);
/* input_type 0: relationships of the repository input_id[0] (at the same
 * end as object_context, when given); 1: relationships of any of the URNs
 * of the NULL-terminated input_id (object_context must be NULL: 3009, not
 * stored).  NULL input: every relationship.  The result goes to
 * *search_result.  The search's status, 3007, 3008 (unknown input_type). */
ORV_API int orvlib_search_external_relationship(LDAP* ld, char** input_id, char* object_context,
                                                LDAPMessage** search_result, int input_type);
/* Deletes the relationship whose UUID follows the last ":" of the URN
 * (mark_for_delete 0), or marks it "1".  3009 when it is not found. */
ORV_API int orvlib_remove_external_relationship(LDAP* ld, char* relationship_URN,
                                                int mark_for_delete);
/* Marks for deletion every relationship of the repository (with the
 * context at the same end), or of any of the URNs; deletes nothing.  The
 * status of the last mark or of the search; 3009 when both repository id
 * and context are NULL, or the URN list is NULL. */
ORV_API int orvlib_notify_external_relationship_changes_on_repository_id(LDAP* ld,
                                                                         char* repository_id,
                                                                         char* object_context);
ORV_API int orvlib_notify_external_relationship_changes_on_external_objects(LDAP* ld,
                                                                            char** objectURNs);
/* URNs of the objects of a repository kept under the older base
 * "ou=External Relationship,<suffix>" (new list), or NULL. */
ORV_API char** orvlib_search_external_relationship_on_repository_id(LDAP* ld,
                                                                    char* repository_id);
/* First / next entry of a result of this area; *orvlib_search_entry
 * receives a new record of it (the caller frees each one; the previous
 * pointer is overwritten, not freed).  NULL at the end. */
ORV_API LDAPMessage* orvlib_first_er_entry(LDAP* ld, ORVLibEntry** orvlib_search_entry,
                                           LDAPMessage* message);
ORV_API LDAPMessage* orvlib_next_er_entry(LDAP* ld, ORVLibEntry** orvlib_search_entry,
                                          LDAPMessage* entry);
/* Values of attribute attrId (new list); on a relationship, 127 and 128
 * give the descriptions of objects A and B.  NULL: 3007, 3009 (no record),
 * or no such value. */
ORV_API char** orvlib_get_entry_er_vals(LDAP* ld, ORVLibEntry* orvlibEntry, int attrId);
/* option 6001: protocol "://" host ":" port "/" query of the
 * mini-application configuration (new string); NULL otherwise. */
ORV_API char* orvlib_get_url(LDAP* ld, int option);

/* Relationship helpers. */
ORV_API int create_external_relationship(LDAP* ld, const char* relationship_uuid,
                                         const char* relationship_type_id,
                                         const char* objectA_uuid, const char* objectB_uuid,
                                         const char* description, const char* objectA_context,
                                         const char* objectB_context, const char* objectA_urn,
                                         const char* objectB_urn, const char* objectA_rep_id,
                                         const char* objectB_rep_id);
ORV_API int search_ext_relationship_repository_id(LDAP* ld, const char* repository_id,
                                                  const char* object_context,
                                                  LDAPMessage** result);
ORV_API int search_ext_relationship_object_urn(LDAP* ld, char** object_urns,
                                               LDAPMessage** result);
/* Marks every relationship of a result: the status of the last mark. */
ORV_API int mark_relationship_object_for_delete(LDAP* ld, LDAPMessage* result);
/* New filter strings, or NULL (no restriction). */
ORV_API char* create_search_filter_from_repository_id(const char* repository_id,
                                                      const char* object_context);
ORV_API char* create_filter_object_urns(char** object_urns);
ORV_API char* get_relationshipId_from_URN(const char* relationship_URN);
ORV_API char* get_repository_ou_dn(LDAP* ld, const char* repository_id);
ORV_API char** get_all_external_objects_in_repository(LDAP* ld, const char* repository_dn);
/* Copy of the values of the last attribute named attrName (any case). */
ORV_API char** getAttributeValue(LDAP* ld, LDAPMessage* entry, const char* attrName);
ORV_API int search_on_relationshipId(LDAP* ld, const char* relationshipId, LDAPMessage** res);
ORV_API int search_on_objectURN(LDAP* ld, const char* objectURN, LDAPMessage** res);

#ifdef __cplusplus
}
#endif

#endif /* ORVLDAP_RELATIONSHIP_H */
