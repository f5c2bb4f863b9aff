/*
 * orvldap.h - public interface of orvlib, the ORV directory client library.
 *
 * Plain C interface; compiles as C and as C++.  Everything a function of
 * this header returns is owned by the caller and is released with the
 * library's own free functions (orvlib_memfree, orvlib_free_values,
 * orvlib_orvlibentry_free, orvlib_orvlibinfo_free, orvlib_orvmessage_free).
 *
 * The library keeps process-wide state and is used from one thread at a
 * time; only the logger serialises its own writes.
 */
#ifndef ORVLDAP_H
#define ORVLDAP_H

/* Client applications use the classic LDAP calls (ldap_init,
 * ldap_get_values, ldap_value_free, ldap_search_s, ...) that OpenLDAP
 * declares only on request. */
#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#if defined(__GNUC__)
#define ORV_API __attribute__((visibility("default")))
#else
#define ORV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Record structures                                                   */
/* ------------------------------------------------------------------ */

typedef struct ORVLibAttribute {
    int attrId;           /* attribute identifier (see getMappedAttrId) */
    char* attrName;       /* attribute name as the server spelled it     */
    char** attrVals;      /* NULL-terminated array of values             */
} ORVLibAttribute;

typedef struct ORVLibEntry {
    ORVLibAttribute** orvlibEntryAttrData; /* NULL-terminated */
} ORVLibEntry;

typedef struct ORVClient_Info {
    const char* orv_client_library_version;
    const char* orv_server_version;
    const char* orv_server_lib_compatibility_version;
} ORVClient_Info;
typedef ORVClient_Info ORVLibInfo;

typedef struct ORVSSOToken {
    char* token_key;
    char* token_value;
} ORVSSOToken;

typedef struct partition_info {
    char* admin_dn;
    char* admin_pwd;
    char* hostname;
    int port_num;
    char* search_base;
    char* user_logon_attribute_name;
    int orv_ssl_enabled;
    char* description;
    int partition_allows_blank_password;
    int partition_is_domain_controller;
    char* people_search_base_suffix;
    char* group_search_base_suffix;
    int partition_search_base_type;
    char* meta_group_for_users;
    char* meta_group_for_groups;
    int partition_isMetaSchema_Configured;
} partition_info;

typedef struct radius_info {
    char* radius_hostname;
    int radius_port_number;
    char* radius_secret;
} radius_info;

typedef struct groups_node {
    char* str;
    struct groups_node* link;
} groups_node;

/* ------------------------------------------------------------------ */
/* Status codes                                                        */
/* ------------------------------------------------------------------ */

#define ORV_LDAPLIB_SUCCESS                    0
#define ORV_LDAPLIB_CONNECTION_ERROR           3002
#define ORV_LDAPLIB_CHECK_PASSED               3003
#define ORV_LDAPLIB_CHECK_FAILED               3004
#define ORV_LDAPLIB_UNKNOWN_OPTION             3005
#define ORV_LDAPLIB_NOT_SUPPORTED              3006
#define ORV_LDAPLIB_SESSION_INVALID            3007
#define ORV_LDAPLIB_UNKNOWN_ERROR              3008
#define ORV_LDAPLIB_INVALID_INPUT              3009
#define ORV_LDAPLIB_CALLBACK_NOT_REGISTERED    3010
#define ORV_LDAPLIB_INACTIVE_USER              3012
#define ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET    3013
#define ORV_LDAPLIB_PASSWORD_HAS_EXPIRED       3014
#define ORV_LDAPLIB_PASSWORD_IN_HISTORY        3015
#define ORV_LDAPLIB_PASSWORD_MAX_REPEATED      3016
#define ORV_LDAPLIB_PASSWORD_MIN_DIFF          3017
#define ORV_LDAPLIB_PASSWORD_MIN_NUM           3018
#define ORV_LDAPLIB_ACCOUNT_LOCKED             3020
#define ORV_LDAPLIB_PASSWORD_TOO_SHORT         3021
#define ORV_LDAPLIB_NO_PRIVILEGE               3022
#define ORV_LDAPLIB_INVALID_PARTITION_INFO     3025
#define ORV_LDAPLIB_UNABLE_TO_ADD_SERVER       3026
#define ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY     3027
#define ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER    3028
#define ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY  3029
#define ORV_LDAPLIB_SSO_TIMEOUT                3030
#define ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR   3032
#define ORV_LDAPLIB_UNABLE_TO_CREATE_ZORLA_DB  3033
#define ORV_LDAPLIB_UNABLE_TO_CREATE_DB_ROLE   3034
#define ORV_LDAPLIB_VERSION_NOT_SUPPORTED      3035
#define ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS     3036
#define ORV_LDAPLIB_PASSWORD_MIN_SYM_CHARS     3037
#define ORV_LDAPLIB_PASSWORD_POLICY_NA         3038
#define ORV_LDAPLIB_CONNECTION_ACTIVE          3040
#define ORV_LDAPLIB_CONNECTION_INACTIVE        3041
#define ORV_LDAPLIB_RADIUS_ERROR               3042
#define ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED    3043
#define ORV_LDAPLIB_RADIUS_NOT_CONFIGURED      3044

/* Search types of orvlib_search_ext_s */
#define ORV_SEARCH_PEOPLE                5001
#define ORV_SEARCH_GROUPS                5002
#define ORV_SEARCH_USER_GROUPS           5003
#define ORV_SEARCH_USER_GROUP_MEMBERSHIP 5004
#define ORV_SEARCH_GROUP_MEMBERS         5005
#define ORV_SEARCH_APPLICATION_SERVERS   5006
#define ORV_SEARCH_APPLICATION_FACILITY  5007

/* Option codes of orvlib_get_orvlibinfo */
#define ORV_INFO_CLIENT_LIBRARY_VERSION  4000
#define ORV_INFO_SERVER_VERSION          4001
#define ORV_INFO_SERVER_COMPAT_VERSION   4002
#define ORV_INFO_INSTANCE_ID             4009

/* ------------------------------------------------------------------ */
/* Status texts and message identifiers                                */
/* ------------------------------------------------------------------ */

ORV_API extern const char* ORV_LDAPLIB_SUCCESS_STR;
ORV_API extern const char* ORV_LDAPLIB_CONNECTION_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_UNKNOWN_OPTION_STR;
ORV_API extern const char* ORV_LDAPLIB_NOT_SUPPORTED_STR;
ORV_API extern const char* ORV_LDAPLIB_SESSION_INVALID_STR;
ORV_API extern const char* ORV_LDAPLIB_UNKNOWN_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_INVALID_INPUT_STR;
ORV_API extern const char* ORV_LDAPLIB_CALLBACK_NOT_REGISTERED_STR;
ORV_API extern const char* ORV_LDAPLIB_INACTIVE_USER_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_HAS_EXPIRED_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_IN_HISTORY_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_ERR_MAX_REPEATED_CHARS_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_DIFF_CHARS_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_NUM_CHARS_STR;
ORV_API extern const char* ORV_LDAPLIB_ACCOUNT_LOCKED_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_TOO_SHORT_STR;
ORV_API extern const char* ORV_LDAPLIB_NO_PRIVILEGE_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_INVALID_PARTITION_INFO_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_ADD_SERVER_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY_STR;
ORV_API extern const char* ORV_LDAPLIB_SSO_TIMEOUT_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_CREATE_ZORLA_DB_STR;
ORV_API extern const char* ORV_LDAPLIB_UNABLE_TO_CREATE_DATABASE_ROLE_STR;
ORV_API extern const char* ORV_LDAPLIB_ORV_VERSION_NOT_SUPPORTED_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_SYM_CHARS_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_POLICY_NOT_AVAILABLE_STR;
ORV_API extern const char* ORV_LDAPLIB_OPERATIONS_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_AUTH_METHOD_NOT_SUPPORTED_STR;
ORV_API extern const char* ORV_LDAPLIB_INVALID_CREDENTIALS_STR;
ORV_API extern const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_OTHER_CHARS_STR;
ORV_API extern const char* ORV_LDAPLIB_FILTER_ERROR_STR;
ORV_API extern const char* ORV_LDAPLIB_OTHER_STR;
ORV_API extern const char* ORV_LDAPLIB_NO_SUCH_OBJECT_STR;

/* Last RADIUS failure text (status 3042). */
ORV_API extern char* radius_err_str;

/* Message identifier tables: fixed 15-byte slots, empty or "ZVKTRnnnnX". */
ORV_API extern const char LDAP_ErrorMessageCodes[117][15];
ORV_API extern const char PEX_ErrorMessageCodes[43][15];

/* Returns the status (normally ldapErrCode; 3008 when no text exists).
 * When message is given it receives a copy of the text (orvlib_memfree). */
ORV_API int orvlib_get_last_error(LDAP* unused, char** message);
/* Copies the message identifier of code into id (at least 15 bytes). */
ORV_API void ldap_err2Logstring(char* id, int code);
/* Severity of a message identifier: 1 "E", 2 "W", 3 "I", 4 none. */
ORV_API void ldap_getmessage_loglevel(int* level, const char* id);

/* ------------------------------------------------------------------ */
/* Directory layout and constants                                      */
/* ------------------------------------------------------------------ */

ORV_API extern const char* ORV_ROOT_SUFFIX;
ORV_API extern const char* ORV_PEOPLE_SRCH_BASE;
ORV_API extern const char* ORV_INACTIVE_USER_SRCH_BASE;
ORV_API extern const char* ORV_GROUP_SRCH_BASE;
ORV_API extern const char* ORV_MORVANE_ZORLA_APP_SRCH_BASE;
ORV_API extern const char* ORV_MORVANE_KM_APP_SRCH_BASE;
ORV_API extern const char* ORV_PARTITION_SEARCH_BASE;
ORV_API extern const char* ORV_APPLICATION_REGISTRY_BASE;
ORV_API extern const char* ORV_WIN_USER_SYSTEM_INFO_BASE;
ORV_API extern const char* ORV_RADIUS_CONFIG_SEARCH_BASE;
ORV_API extern const char* PEX_END_TYPE_BASE;
ORV_API extern const char* PEX_RELATIONSHIP_TYPE_BASE;
ORV_API extern const char* PEX_EXTERNAL_OBJECT_BASE;
ORV_API extern const char* PEX_RELATIONSHIP_BASE;
ORV_API extern const char* bindingUser;

ORV_API extern const char* ORV_USER_RDN;
ORV_API extern const char* ORV_GROUP_RDN;
ORV_API extern const char* ORV_CONSTANT_PEOPLE_CLASSFILTER_STR;
ORV_API extern const char* ORV_CONSTANT_GROUP_CLASSFILTER_STR;
ORV_API extern const char* ORV_CONSTANT_CORP_GROUP_CLASSFILTER_STR;
ORV_API extern const char* ORV_CONSTANT_APPLICATION_SERVER_CLASSFILTER_STR;
ORV_API extern const char* ORV_CONSTANT_APPLICATION_FACILITY_CLASSFILTER_STR;
ORV_API extern const char* ORV_CONSTANT_COMMA;
ORV_API extern const char* ORV_CONSTANT_EQUALS;
ORV_API extern const char* ORV_CONSTANT_SEMICOLON;
ORV_API extern const char* ORV_CONSTANT_HYPHEN;
ORV_API extern const char* ORV_CONSTANT_LDAPURL_PREFIX;
ORV_API extern const char* ORVLIB_CONST_OBJECT_DN;
ORV_API extern const char* ORVLIB_WIN_SYSTEM_USER_NAME;
ORV_API extern const char* INVALID_TOKEN;
ORV_API extern const char* USER_TIMED_OUT;
ORV_API extern const char* PEXLIB_RULE_TYPE_ANY_VALUES[];

ORV_API extern const char* ORVLIB_CLIENT_LIBRARY_VERSION;
ORV_API extern const char* CERTDB_PATH;
ORV_API extern const char* CLIENT_CERTIFICATE_PASSWORD;

ORV_API extern const char* ORVLIB_USER_ATTR_LIST[];
ORV_API extern const char* ORVLIB_EXT_USER_ATTR_LIST[];
ORV_API extern const char* ORVLIB_GROUP_ATTR_LIST[];
ORV_API extern const char* ORVLIB_APPLICATION_SERVER_ATTR_LIST[];
ORV_API extern const char* ORVLIB_APPLICATION_FACILITY_ATTR_LIST[];
ORV_API extern const char* ORVLIB_MORVANE_PASSWORD_POLICY_ATTR_LIST[];
ORV_API extern const char* ORVLIB_PASSWORD_POLICY_ATTR_LIST[];
ORV_API extern const char* ORVLIB_ZORLA_DATABASE_ATTR_LIST[];
ORV_API extern const char* ORVLIB_PARTITION_ATTR_LIST[];

/* Library-wide state (one caller thread at a time). */
ORV_API extern int ldapErrCode;
ORV_API extern int isServerInStandaloneMode;
ORV_API extern short enable_paging;
ORV_API extern int ORVLIB_PRIMARY_CACHE_SIZE;
ORV_API extern int ORVLIB_SECONDARY_CACHE_SIZE;
ORV_API extern int mechanism;
ORV_API extern int operatingMechanism;
ORV_API extern int user_uuid_generation_flag;
ORV_API extern const int connection_retries;
ORV_API extern const int ORV_PAGING;
ORV_API extern const int ORV_VLV;
ORV_API extern int ORV_MAX_PARTITIONS;
ORV_API extern int current_search_type;
ORV_API extern int ORV_OPERATION_MODE;
ORV_API extern int ORV_OP_MODE_SEARCH;
ORV_API extern int ORV_OS_AUTH;
ORV_API extern int ORVLIB_IS_RADIUS_CONFIGURED;
ORV_API extern char* ORVLIB_SYSTEM_DEFAULT_DOMAIN;
ORV_API extern char* instanceID;
ORV_API extern partition_info* PARTITION_INFO;
ORV_API extern radius_info* RADIUS_INFO;
ORV_API extern LDAP* orv_ld;
ORV_API extern LDAP* corporate_admin_ld;
ORV_API extern LDAP* corporate_user_ld;
ORV_API extern int _orvSSLEnabled;
ORV_API extern char* orv_Srv;
ORV_API extern int orv_Port;
ORV_API extern char _sslPath[501];
ORV_API extern int _memCnt;
ORV_API extern void* memCache_corporate;
ORV_API extern void* memCache_standalone;
ORV_API extern void* memCache_user_group_srch;
ORV_API extern int cache_is_intialized;
ORV_API extern int TIER2_GROUP_SEARCH;
ORV_API extern char* CORP_PEOPLE_SEARCH_BASE;
ORV_API extern char* CORP_GROUP_SEARCH_BASE;
ORV_API extern int ORV_WIN_USER_SEARCH;
ORV_API extern int user_authenticated;
ORV_API extern char* _user_id;
ORV_API extern char* _pwd;
ORV_API extern int password_expiry_time;
ORV_API extern ORVLibEntry* AUTH_USER_ORVLIBENTRY;
ORV_API extern unsigned int lengthofstring;

/* ------------------------------------------------------------------ */
/* Allocation and free functions                                       */
/* ------------------------------------------------------------------ */

ORV_API char* orvlib_str_malloc(unsigned int size);
ORV_API ORVClient_Info* orvlib_orvlibinfo_malloc(void);
ORV_API char** orvlib_arr_malloc(unsigned int count);
ORV_API partition_info* partition_info_mem_alloc(void);
ORV_API radius_info* radius_info_mem_alloc(void);
ORV_API char** orvlib_duparray(char** array);
ORV_API char* _orvlib_dupString(const char* string);
ORV_API void orvlib_memfree(void* ptr);
ORV_API void orvlib_free_values(char** vals);
ORV_API void orvlib_orvlibentry_free(ORVLibEntry* entry);
ORV_API void orvlib_orvlibinfo_free(ORVClient_Info* info);
ORV_API void orvlib_orvmessage_free(LDAPMessage* message);
ORV_API void free_partition_info(void);
ORV_API void free_radius_config_info(void);

/* ------------------------------------------------------------------ */
/* Identifiers                                                         */
/* ------------------------------------------------------------------ */

ORV_API char* orvlib_create_guid(void);
ORV_API void orvlib_set_user_uuid_generation_flag(int flag);
ORV_API int orvlib_get_user_uuid_generation_flag(void);

/* ------------------------------------------------------------------ */
/* Session                                                             */
/* ------------------------------------------------------------------ */

ORV_API int orvlib_init(void);
/* Certificate directory; the key database is <path>certdb//orvclientkey.kdb. */
ORV_API void orvlib_setcertdb_path(const char* path);
/* Opens and binds the local session (ssl 1: SSL, 0: plain); NULL on failure,
 * status in ldapErrCode.  *info receives a new record (orvlib_orvlibinfo_free;
 * its two server version strings are freed with orvlib_memfree). */
ORV_API LDAP* orvlib_getsession_context(const char* host, int port, ORVLibInfo** info, int ssl);
/* *out receives a copy of the option's value (orvlib_memfree). */
ORV_API int orvlib_get_orvlibinfo(ORVLibInfo* info, int option, char** out);
ORV_API int orvlib_is_trusted_os_auth_supported(LDAP* ld);
ORV_API void orvlib_enable_paging(short flag);
ORV_API void orvlib_flush_cache(void);
ORV_API int orvlib_unbind(LDAP* ld);
ORV_API int orvlib_uninitialize_lib(void);
ORV_API char* orvlib_get_user_rdn(LDAP* ld);
ORV_API char* orvlib_get_user_dn(const char* uid);

/* Connection status: 3040 usable, 3041 not usable, 3007 no handle. */
ORV_API int orvlib_get_connection_status(LDAP* ld);
ORV_API int orvlib_validate_server_details(const char* server, int port, int ssl);

/* ------------------------------------------------------------------ */
/* Authentication, password policy, single sign-on                     */
/* ------------------------------------------------------------------ */

/* 0 authenticated, else a status (49 wrong password, 3009 empty password,
 * 3012 inactive, 3013 password reset, 3014 expired, 3020 locked, ...). */
ORV_API int orvlib_authenticate_user(LDAP* ld, const char* uid, const char* passwd);
/* As orvlib_authenticate_user for one database (repository_id names its
 * server in the application registry), with the database's second factors:
 * 3043 means the RADIUS factor is still due (orvlib_authenticate_radius_user). */
ORV_API int orvlib_authenticate_database_user(LDAP* ld, const char* uid, const char* passwd,
                                              const char* repository_id);
/* RADIUS check through the server; uid NULL takes the user's
 * "orvRadiusUserName".  0, 49 refused, 3042 (text in radius_err_str),
 * 3044 no RADIUS server configured. */
ORV_API int orvlib_authenticate_radius_user(LDAP* ld, const char* uid, const char* passwd);

/* The password rules (library and server policy) as an entry, or NULL
 * (3038 in corporate mode). */
ORV_API ORVLibEntry* orvlib_get_password_policy(LDAP* ld);
/* 1 may change, 0 may not, otherwise a status. */
ORV_API int orvlib_can_user_change_password(LDAP* ld, const char* uid);
/* Whole days before the password checked last expires, or -1. */
ORV_API int orvlib_get_password_expiry_time(LDAP* ld);
ORV_API int orvlib_change_user_password(LDAP* ld, const char* uid, const char* old_password,
                                        const char* new_password);

/* One-element array holding a navigation token for user_dn
 * (orvlib_free_values), or NULL. */
ORV_API char** orvlib_get_sso_navigation_token(LDAP* ld, const char* user_dn);
/* Pass the record returned by orvlib_create_sso_token (cast to the declared
 * type): the function reads the record itself through this pointer.  On
 * success *libentry is the entry of the user the token names. */
ORV_API unsigned long orvlib_validate_sso_token(LDAP* ld, const ORVSSOToken** structSSOToken,
                                                ORVLibEntry** libentry);
/* token_name must be "ORV_SSO_TOKEN"; NULL (3031) otherwise. */
ORV_API ORVSSOToken* orvlib_create_sso_token(const char* token_name, const char* token_value);
ORV_API void orvlib_orvssotoken_free(ORVSSOToken* ssoToken);

/* ---- search, update, registry and relationship API follow ---- */

/* ------------------------------------------------------------------ */
/* Search and iteration                                                */
/* ------------------------------------------------------------------ */

/* Starts a search of searchType (ORV_SEARCH_*) with the filter text (a bare
 * name, a partial or full filter, or a DN).  *result receives the result
 * message (may be NULL for searches whose results the library keeps); free
 * it with orvlib_orvmessage_free after the iteration.  0 on success. */
ORV_API int orvlib_search_ext_s(LDAP* ld, const char* filter, int searchType,
                                LDAPMessage** result);
/* *entry receives a new record of the first result (orvlib_orvlibentry_free);
 * returns a cursor for orvlib_next_entry, or NULL at the end. */
ORV_API LDAPMessage* orvlib_first_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* result);
ORV_API LDAPMessage* orvlib_next_entry(LDAP* ld, ORVLibEntry** entry, LDAPMessage* cursor);
/* New NULL-terminated copy of the values of attribute attrId, or NULL
 * (orvlib_free_values). */
ORV_API char** orvlib_get_entry_vals(ORVLibEntry* entry, int attrId);

/* ------------------------------------------------------------------ */
/* Modify                                                              */
/* ------------------------------------------------------------------ */

/* Adds (0), replaces (1) or deletes (2) the values of attribute attrId of a
 * user, group or application registry entry named by entryDN (a DN, or a
 * filter naming a user).  0 on success, else a status. */
ORV_API int orvlib_modify_ext_s(LDAP* ld, const char* entryDN, unsigned long modification_type,
                                unsigned long attrId, char** attrVals);

#ifdef __cplusplus
}
#endif

/* The application registry and database objects. */
#include "orvldap_registry.h"
/* End types, relationship types, external objects and relationships. */
#include "orvldap_relationship.h"

#endif /* ORVLDAP_H */
