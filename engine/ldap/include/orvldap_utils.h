/*
 * orvldap_utils.h - internal helpers: filter and DN utilities, the attribute
 * identifier table, password character checks.  Exported for the library's
 * companion tools; client applications use orvldap.h.
 *
 * Every returned string is new and is freed with orvlib_memfree; inputs are
 * never modified.
 */
#ifndef ORVLDAP_UTILS_H
#define ORVLDAP_UTILS_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Plain string helpers */
ORV_API int strcmp_case_insensitive(const char* a, const char* b);
ORV_API char* string_to_lower(const char* s);
ORV_API char* stringToLower(const char* s);
ORV_API char* remove_spaces_from_string(const char* s);
ORV_API int contains_char(const char* s, char c);
ORV_API void add_char_at(char* buffer, char c, int* position);
ORV_API int contains_string(char** list, const char* s);
ORV_API int count_array_elements(char** list);
ORV_API int orvlib_utils_num_digits(int n);
ORV_API char* orvlib_utils_itoa(int n);
ORV_API char* add_opening_paranthesis(const char* s);
ORV_API char* add_closing_paranthesis(const char* s);

/* Filter and DN helpers that need no directory */
ORV_API int is_filter_ldap_complaint(const char* filter, char** out);
ORV_API char* remove_paranthesis_from_string(const char* s);
ORV_API char* add_backslash_to_cn(const char* s);
ORV_API void _setFilter(const char* filter, int searchType, char** out);
ORV_API void _setFilterPaging(const char* filter, int searchType, char** out);
ORV_API char* getUIDFromFilter(const char* filter, char** rdn);
ORV_API char* getGroupCN(const char* filter);
ORV_API int string_is_dn(const char* s);
ORV_API int is_filter_tier2_group_dn(const char* s);
ORV_API void populate_search_base(void);
ORV_API int systemLoginFilterCheck(const char* filter);
/* *out receives a new copy of "ON" or "OFF". */
ORV_API void get_User_State(ORVLibEntry* entry, char** out);

/* Helpers that ask a directory.  Strings returned are new (orvlib_memfree);
 * result messages handed back are freed by the caller (ldap_msgfree). */
/* getDNFromUid and getDNFromGroupCN put the id or name into their filters as
 * a value (orv::filter_value_from_text): wildcards and parentheses match
 * themselves. */
ORV_API char* getDNFromUid(LDAP* ld, const char* id, const char* base, const char* rdn);
ORV_API char* getDNFromGroupCN(LDAP* ld, const char* cn, const char* base);
ORV_API int isGroupDN(LDAP* ld, const char* dn, LDAPMessage** entry, LDAPMessage** res);
ORV_API int is_standalone_group(LDAP* ld, const char* filter, char** groupDN);
ORV_API int isValidMetaGroupMember(const char* dn, int kind);
ORV_API int searchForOtherMemberAttribute(const char* metaGroupDN, const char* memberDN,
                                          LDAPMessage** res);
/* Filter escape of backslashes: mode 0 puts "5c" after every backslash; mode
 * 1 only after a backslash that is neither doubled nor followed by one of
 * , = > < + " # ;  NULL gives NULL. */
ORV_API char* dn_contains_backslash(const char* dn, int mode);

/* Attribute identifier table.  A name known to neither table maps to -1 (all
 * bits set), a NULL name to 3009.  The name lookups return a new copy, or
 * NULL for an id without a name. */
ORV_API int getMappedAttrId(const char* name);
ORV_API char* getAttrNameFromID(int id);
ORV_API int get_mapped_er_attribute_id(const char* name);
ORV_API char* get_external_relationship_attribute_name_from_id(int id);

/* Password character checks: 3003 passes, 3004 fails */
ORV_API int check_numeric_characters(int limit, const char* new_password);
ORV_API int check_symbol_characters(int limit, const char* new_password);
ORV_API int check_non_alpha_characters(int limit, const char* new_password);
ORV_API int check_max_repeated_characters(int limit, const char* new_password);
ORV_API int check_min_diff_characters(int limit, const char* new_password);

#ifdef __cplusplus
}

#include <string>

namespace orv {

/* The text with its ASCII letters in lower case. */
std::string lowered(const std::string& text);

/* A value as it goes into a search filter (RFC 4515): "*", "(", ")" and
 * "\" become \2a, \28, \29 and \5c, so that whatever a caller typed (a
 * login name, a group name, a DN) is compared as it is and never changes
 * the filter around it.  Every filter built from a caller's uid, DN or name
 * puts its values through this. */
std::string filter_value(const std::string& value);

/* The same for a value cut out of a caller's filter text, which may already
 * hold RFC 4515 escapes: a backslash followed by two hexadecimal digits is
 * kept as the escape it is; every other "*", "(", ")" and "\" is escaped.
 * filter_value's output passes through unchanged. */
std::string filter_value_from_text(const std::string& value);

}  // namespace orv
#endif

#endif /* ORVLDAP_UTILS_H */
