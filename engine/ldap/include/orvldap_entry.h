/*
 * orvldap_entry.h - filling ORVLibEntry records from directory entries, the
 * attribute updates of orvlib_modify_ext_s and the standalone (local
 * counterpart) users and groups of corporate objects.
 *
 * Entries: an entry made here has an attribute array of 50 slots (49
 * attributes and the terminating NULL).  Every fill function appends after
 * the last used slot; when an entry needs more than 49 attributes its array
 * is replaced by a larger one (100, 200, ... slots), so no attribute the
 * server returns is dropped and nothing is written past the array.  Other
 * units that build entries use orv::new_entry and orv::append_attribute (C++
 * section below) so that the array sizes stay known.
 *
 * Everything returned is allocated through the library allocator and freed
 * with orvlib_memfree, orvlib_free_values or orvlib_orvlibentry_free.
 */
#ifndef ORVLDAP_ENTRY_H
#define ORVLDAP_ENTRY_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- entry population ---- */

/* Fills *entry from the server entry *server_entry read on ld.  A NULL
 * *entry gets a new entry; otherwise the attributes are appended.  Adds
 * "dn" (id 0) when the server sent no DN attribute, "nsRoleDN" (id 19) for
 * people and group-member searches, and "accessibleDatabases" (id 40).
 * Reads the search state of orvldap_search.h: _current_search_type, and
 * ORV_WIN_USER_SEARCH with _isFirstEntry (the "orvZORLAUserId" values of
 * the first entry of a Windows user lookup go to _UUID instead). */
ORV_API void populate_orvlibentry_entry(LDAP* ld, ORVLibEntry** entry,
                                        LDAPMessage** server_entry);
/* Appends "orvZORLAUserId", "sn", "uid" and, for a logon value without space
 * or comma, "orvVeltranUserName".  0, or 3009 for a missing handle, entry or
 * attribute array. */
ORV_API int populate_local_attrs(LDAP* ld, ORVLibEntry** entry, const char* logonValue,
                                 const char* sn, const char* uuid);
/* Appends "orvZORLAGroupId" = uuid.  0 or 3009. */
ORV_API int populate_group_attrs_local(LDAP* ld, ORVLibEntry** entry, const char* cn,
                                       const char* uuid);
/* Appends the attributes of the local user whose "orvCorporateDN" is
 * corporateDN, then "accessibleDatabases".  0 or a status. */
ORV_API int populate_libentry_extended_attributes(LDAP* ld, const char* corporateDN,
                                                  ORVLibEntry** entry);
/* Corporate mode: extends a corporate user or group entry with its local
 * counterpart, creating the counterpart when automatic ids are on.  The
 * outcome is only recorded (ldapErrCode). */
ORV_API void check_and_populate_extended_information(LDAP* ld, LDAPMessage** msg,
                                                     ORVLibEntry** entry, int type);
/* Adds the local user object of a corporate user.  LDAP result code. */
ORV_API int create_extended_user_object(LDAP* ld, const char* uid, const char* sn,
                                        const char* corporateDN, const char* uuid,
                                        const char* mail, const char* state);
/* 1 found (entry extended), 0 not found, 3009 no handle. */
ORV_API int entry_dn_exists_in_tier2(LDAP* ld, const char* corporateDN, ORVLibEntry** entry);
/* 1 when one of the entry's object classes is "morvanegroup" (any case). */
ORV_API int is_group_local_group(ORVLibEntry* entry);
/* Database ids of the roles in the entry's "nsRoleDN", NULL-terminated, or
 * NULL when there are none. */
ORV_API char** getDatabaseAccessibleToUser(ORVLibEntry* entry, LDAP* ld);
/* Copy of the first "orvZorlaDatabaseId" of a role entry, or NULL. */
ORV_API char* get_databaseId_from_role(LDAPMessage* role_entry, LDAP* ld);
/* DNs of the roles (objectclass morvaneRole) that list userDN as "member",
 * in server order, NULL-terminated; NULL when none or on error. */
ORV_API char** getRolesOfUser(LDAP* ld, const char* userDN);

/* ---- modify and standalone objects ---- */

/* Modification types of orvlib_modify_ext_s */
#define ORV_MOD_ADD     0
#define ORV_MOD_REPLACE 1
#define ORV_MOD_DELETE  2

/* One modify of attribute attrID on user_dn with an LDAP operation code
 * (LDAP_MOD_ADD, LDAP_MOD_REPLACE, LDAP_MOD_DELETE). */
ORV_API int change_attribute_value_object(LDAP* ld, const char* user_dn, unsigned long attrID,
                                          char** attrVals, unsigned long operation_type);
/* Adds the standalone user "uid=<escaped uid>,<people base>". */
ORV_API int create_standalone_user(LDAP* ld, const char* uid_val, const char* sn);
/* 1 found (logon value and surname handed back), 0 not found, else status. */
ORV_API int does_user_exist_in_corporate(const char* entryDN, char** user_logon_attr_val,
                                         char** sn);
/* 1 exists (*standalone_dn receives the local DN), 0 not, else status. */
ORV_API int entry_dn_exists_in_orv(LDAP* ld, const char* entryDN, char** standalone_dn);
ORV_API int modify_appregistry_element(LDAP* ld, const char* object_dn, unsigned long attrID,
                                       char** attrVals, unsigned long operation_type);
/* group_type 1 local, 2 corporate. */
ORV_API int modify_group_element(LDAP* ld, const char* object_dn, unsigned long attrID,
                                 char** attrVals, unsigned long operation_type, int group_type);
ORV_API int create_standalone_group(LDAP* ld, const char* cn, const char* corporate_dn,
                                    const char* uuid);
/* "cn=" + escaped cn + ",ou=Groups," + root suffix. */
ORV_API char* get_standalone_groupDN_from_cn(const char* cn);
/* 1 found (attributes appended to *entry), else 0 or the handle's status. */
ORV_API int group_dn_exists_in_tier2(LDAP* ld, const char* entryDN, ORVLibEntry** entry);
/* Copy of the first "cn" of a corporate entry, or NULL. */
ORV_API char* get_cn_from_group_in_corporate(LDAPMessage* entry);
/* Logon value and surname of a corporate user entry (new copies). */
ORV_API void get_user_attributes(LDAPMessage* entry, char** user_logon_attr_val, char** sn);

#ifdef __cplusplus
}

namespace orv {

// A new entry with an empty 50-slot attribute array (library allocator).
ORVLibEntry* new_entry();

// Appends an attribute record (name and values copied) after the last used
// slot, growing the array when it is full.  A NULL vals gives an empty record
// (no name, no values, id -1).  false when entry or its array is missing or
// allocation fails.
bool append_attribute(ORVLibEntry* entry, int id, const char* name, char** vals);

// Appends every attribute of a server entry; ids from getMappedAttrId.
// Returns the number of attributes appended.
int append_server_attributes(LDAP* ld, LDAPMessage* server_entry, ORVLibEntry* entry);

// Number of attributes in the entry (0 for NULL).
int attribute_count(const ORVLibEntry* entry);

}  // namespace orv
#endif

#endif /* ORVLDAP_ENTRY_H */
