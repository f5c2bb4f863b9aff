/*
 * orvldap_search.h - the search layer behind orvlib_search_ext_s and the
 * iteration calls: dispatch by search type, result paging, the people,
 * group, group-member, user-groups and membership searches, the DN-list
 * iterations and the application registry searches.
 *
 * All search state is process-wide: one search and its iteration at a time,
 * from one thread.  Result messages handed to the caller are freed with
 * orvlib_orvmessage_free; cursors returned by the first/next functions point
 * into messages that the library or the caller holds and stay valid until
 * the next step of the same iteration or the next search.
 */
#ifndef ORVLDAP_SEARCH_H
#define ORVLDAP_SEARCH_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- search state (reset or set by orvlib_search_ext_s) ---- */

ORV_API extern char* user_input_filter;           /* escaped filter of the search */
ORV_API extern int _current_search_type;          /* type of the search in progress */
ORV_API extern int ZORLA_STAR_SEARCH;             /* 1: results are a DN list */
ORV_API extern int zorla_attribute_search;        /* 1: a tier-2 filter is resolved */
ORV_API extern int group_is_standalone;           /* 1: group-members search of a library group */
ORV_API extern int perform_grp_srch_standalone_first_time;
ORV_API extern int _firstIteration;
ORV_API extern int tier2_search;
ORV_API extern int has_more_pages;                /* 1: the server holds further pages */
ORV_API extern char** GLOBAL_ZORLA_USERDN_LIST;
ORV_API extern char** GLOBAL_ZORLA_GROUPDN_LIST;
ORV_API extern char** GLOBAL_ZORLA_GROUPMEMBERS_LIST;
ORV_API extern int _isFirstEntry;
ORV_API extern char** _UUID;

/* DN-list cursors (start at -1, advanced before use) */
ORV_API extern int current_zorla_user_dn_index;
ORV_API extern int current_zorla_group_dn_index;
ORV_API extern int current_zorla_group_members_dn_index;

/* Nested groups of a group-members search: at most 999 DNs and a NULL. */
#define ORV_NESTED_GROUP_LIST_SIZE 1000
ORV_API extern char* NESTED_GROUP_LIST[ORV_NESTED_GROUP_LIST_SIZE];
ORV_API extern int nested_group_index;
ORV_API extern int nested_groups_retrieved;

/* Values per ranged member request ("member;range=0-1499", ...). */
#define ORV_MEMBER_RANGE_WINDOW 1500
/* Entries per page (paged results) or window (virtual list view). */
#define ORV_SEARCH_PAGE_SIZE 1000
/* Limits against a server whose results never end: pages or windows of one
 * search, ranged requests of one member read.  A search or read that reaches
 * its limit ends there with status 4 (size limit exceeded).  A member range
 * other than the one asked for ends the read with 96 (client loop). */
#define ORV_SEARCH_MAX_PAGES 10000
#define ORV_MEMBER_MAX_RANGES 10000

/* ---- dispatch, controls and DN lists ---- */

/* Runs the search of searchType on the connection chosen for the current
 * mode.  *res receives the result message (NULL for types that keep their
 * results themselves).  Status. */
ORV_API int invoke_underlaying_search_mechanism(int searchType, LDAP* ld, const char* filter,
                                                LDAPMessage** res);
/* 1 when the filter names an object of the library's own directory. */
ORV_API int is_tier2_filter(const char* filter);
/* Entry "pexSearchTypeMetaData=<kind>" of the meta-schema information, or NULL. */
ORV_API ORVLibEntry* get_meta_data_information(LDAP* ld, const char* kind);
/* NULL-terminated copy of the values of attr of the entry dn (base scope,
 * filter "objectclass=<objectClass>"), or NULL.  Free with orvlib_free_values. */
ORV_API char** get_zorla_dns(LDAP* ld, const char* dn, const char* objectClass,
                             const char* attr);
/* All "member" values of dn; from a server that hands out large groups in
 * ranges, collected 1500 values at a time.  NULL when there are none. */
ORV_API char** get_zorla_dns_paging(LDAP* ld, const char* dn, const char* objectClass,
                                    const char* unused);
/* Member DNs of a corporate group, whole (get_zorla_dns) or ranged. */
ORV_API char** get_zorla_group_dns(LDAP* ld, const char* dn, const char* objectClass,
                                   const char* attr);
ORV_API char** get_zorla_group_dns_paging(LDAP* ld, const char* dn, const char* objectClass,
                                          const char* attr);
/* Iteration of GLOBAL_ZORLA_USERDN_LIST (5001) or GLOBAL_ZORLA_GROUPDN_LIST
 * (5002): each call reads the next DN that still exists (and passes the
 * meta-group test) and fills *entry.  Cursor or NULL at the end. */
ORV_API LDAPMessage* get_first_entry_from_zorla_dn_list(LDAP* ld, int searchType,
                                                        ORVLibEntry** entry);
ORV_API LDAPMessage* get_next_entry_from_zorla_dn_list(LDAP* ld, int searchType,
                                                       ORVLibEntry** entry);
/* 1 when the first entry found carries a "member;range=" attribute; *start
 * and *end receive the range bounds (orvlib_memfree). */
ORV_API int is_member_range_present(LDAP* ld, const char* base, const char* filter, char** start,
                                    char** end);

/* ---- people search ---- */

ORV_API int orv_custom_people_search(LDAP* ld, const char* base, int scope, const char* filter,
                                     char** attrs, LDAPMessage** res);
/* Windows user information entries matching the filter; 32 when none. */
ORV_API int searchForWindowsSystemUser(const char* filter, LDAPMessage** res);
/* First (first = 1) or next (first = 0, res is the last cursor) Windows
 * user entry, filled and extended with the application user's entry. */
ORV_API LDAPMessage* orvGetWinUserEntry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* res,
                                        int first);
ORV_API void orvGetPeopleSearchEntries(LDAP* ld, ORVLibEntry** entry);

/* ---- group and group-member search ---- */

ORV_API int orv_custom_group_search(LDAP* ld, const char* base, int scope, const char* filter,
                                    char** attrs, LDAPMessage** res);
/* *out receives the local group filter (orvlib_memfree). */
ORV_API void set_standalone_group_search_filter(const char* filter, char** out);
/* Collects the member DNs of groupDN (isLibraryGroup 1: a group of the
 * library's own directory).  *res is set to NULL.  Status. */
ORV_API int orv_custom_group_members_search(LDAP* ld, const char* groupDN, LDAPMessage** res,
                                            int isLibraryGroup);
ORV_API LDAPMessage* custom_group_members_get_first_entry(LDAP* ld, ORVLibEntry** entry);
ORV_API LDAPMessage* custom_group_members_get_next_entry(LDAP* ld, ORVLibEntry** entry);
ORV_API LDAPMessage* perform_zorla_custom_group_members_search(LDAP* ld, ORVLibEntry** entry);
ORV_API LDAPMessage* perform_recursive_search(LDAP* ld, ORVLibEntry** entry);
/* The local group search used when corporate group results are exhausted:
 * the first call after a search runs it, later calls step through it.
 * Cursor or NULL; the caller fills the entry. */
ORV_API LDAPMessage* perform_standalone_group_search(LDAP* ld, const char* filter);

/* Group DN list (groups_node): the head is kept by the library; the caller
 * keeps a tail pointer that append_to_groupDN_list moves to the new node. */
ORV_API void append_to_groupDN_list(groups_node** tail, const char* dn);
ORV_API groups_node* get_head_of_list(void);
ORV_API void delete_from_linked_list(const char* dn);
ORV_API void clear_group_dn_list(void);

/* ---- user-groups and membership searches ---- */

ORV_API int orv_custom_user_groups_search(LDAP* ld, const char* filter, LDAPMessage** res);
/* Local counterpart of the user-groups search (see perform_standalone_group_search). */
ORV_API LDAPMessage* perform_standalone_user_groups_search(LDAP* ld, const char* filter);
/* "(|(<attr>=<value>)...)" from the meta data entry below dn, or NULL. */
ORV_API char* perform_custom_search(LDAP* local_ld, const char* dn, const char* objectclass,
                                    const char* attribute_name);
/* '(uid=<user>)(groupCN=<group>)': 57 without "=" or group part. */
ORV_API int orv_custom_user_group_membership_srch(LDAP* ld, const char* filter);
ORV_API LDAPMessage* custom_user_group_membership_first_entry(LDAP* ld, ORVLibEntry** entry);
ORV_API int free_custom_user_group_membership_res(void);
ORV_API int orv_custom_user_group_membership_standalone_grp_crp_usr_srch(LDAP* ld,
                                                                        const char* filter);
ORV_API LDAPMessage* custom_user_group_membership_standalone_grp_crp_usr_first_entry(
    LDAP* ld, ORVLibEntry** entry);

/* ---- application registry searches (types 5006, 5007) ---- */

ORV_API int orv_custom_application_server_srch(LDAP* ld, const char* base, int scope,
                                               const char* filter, char** attrs,
                                               LDAPMessage** res);
ORV_API int orv_custom_application_facility_srch(LDAP* ld, const char* base, int scope,
                                                 const char* filter, char** attrs,
                                                 LDAPMessage** res);
/* *out receives the registry search filter for 5006 or 5007 (orvlib_memfree). */
ORV_API void get_updated_search_filter(const char* filter, int searchType, char** out);
ORV_API int application_registry_filter_is_dn(const char* str);

#ifdef __cplusplus
}
#endif

#endif /* ORVLDAP_SEARCH_H */
