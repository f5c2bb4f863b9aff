/*
 * orvldap_auth.h - internal steps of user authentication, database-user
 * authentication with its second factors, password policy and password
 * change, and the database lookups that authentication needs.  The public
 * entry points (orvlib_authenticate_user, orvlib_change_user_password, ...)
 * are declared in orvldap.h.
 *
 * Results follow the library's conventions: an LDAP result code or a library
 * status (orvldap.h), stored in ldapErrCode; the yes/no tests answer exactly
 * 1 for yes.  Strings and entries handed back are new and freed with
 * orvlib_memfree, orvlib_free_values or orvlib_orvlibentry_free.
 */
#ifndef ORVLDAP_AUTH_H
#define ORVLDAP_AUTH_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- user authentication ---- */

/* Checks a user of the library's own directory (inactive role, password on a
 * temporary connection, reset flag); keeps _user_id and _pwd when the
 * directory answered, leaves them when a check could not be made (that
 * check's status is returned). */
ORV_API int _authenticateNonCorporateUser(LDAP* ld, const char* uid, const char* passwd);
/* Checks a user of the corporate partition; on success corporate_user_ld is
 * a new connection bound as the user (corporate_admin_ld is never rebound).
 * An empty password is refused (3009, or 49 without a bind where the
 * partition allows blank passwords). */
ORV_API int _authenticateCorporateUser(LDAP* ld, const char* uid, const char* passwd);
/* Asks the server to check an operating-system account ("login:password"). */
ORV_API int _authenticateOSUser(LDAP* ld, const char* uid, const char* passwd);
/* Simple bind as userDn on a short-lived connection with the password policy
 * request control: 3014 expired, 3020 locked, otherwise the bind's result.
 * Without a bind result there is no success: 81 or 91 when no connection
 * could be made, 85 when no answer came within orv::g_timeout_seconds (the
 * bind is abandoned), the decoding status when the answer could not be
 * read.  An empty password gives 49 without a bind.  Always stored. */
ORV_API int _authenticateUserTempConn(const char* userDn, const char* password);
/* 1 when "orvPasswordMustChange" holds exactly "on", 0 when not, otherwise
 * the search's error code (32 when the entry cannot be read). */
ORV_API int _isUsersPasswordReset(LDAP* ld, const char* user_dn);
/* 1 when one or more "Inactive User" roles list the user as member, 0 when
 * none does, otherwise the search's error code. */
ORV_API int _isUserInactive(LDAP* ld, const char* userDn);
/* Simple-binds ld as _user_id with _pwd; the result is recorded. */
ORV_API int attempt_simple_bind(LDAP* ld);

/* ---- database users and second factors ---- */

/* The entry of the user with login name uid (people search), or NULL. */
ORV_API ORVLibEntry* get_auth_user_details(LDAP* ld, const char* uid);
/* 0, or 49 when the database asks for the system-login factor and the
 * process's login name is not the user's "orvOSPosixUserName". */
ORV_API int check_and_perform_system_login_2factor_authentication(LDAP* ld, const char* uid,
                                                                   const char* database_id);
ORV_API int check_and_perform_system_login_2factor_auth_unix(LDAP* ld, const char* uid);
/* 3043 when user and database both require the RADIUS factor, else 0. */
ORV_API int check_for_radius_2factor_authentication(LDAP* ld, const char* uid,
                                                    const char* database_id);
ORV_API int is_user_configured_radius_2factor_authentication(LDAP* ld, const char* uid);
ORV_API int is_database_configured_radius_2factor_authentication(LDAP* ld,
                                                                 const char* database_id);
ORV_API int is_database_configured_sys_login_2factor_authentication(LDAP* ld,
                                                                    const char* database_id);
ORV_API int check_user_and_db_for_radius_auth(LDAP* ld, const char* uid, const char* database_id);
/* Login name of the process's real user id (new string), or NULL. */
ORV_API char* get_unix_login_name(void);
/* First "orvOSPosixUserName" of the authenticating user's entry, or NULL. */
ORV_API char* get_posix_user_name_from_user(LDAP* ld, const char* uid);

/* ---- database lookups used by authentication ---- */

/* The settings entry of a database (ORVLIB_ZORLA_DATABASE_ATTR_LIST), or
 * NULL for a NULL id, a failed search or a missing entry. */
ORV_API ORVLibEntry* orvlib_get_database_details_internal(LDAP* ld, const char* databaseId);
/* *database_id receives a copy of the first "orvExtendedKXSAttribute" of the
 * repository's application server entry, or NULL.  Returns the search
 * status (0 with *database_id NULL for a NULL repository id). */
ORV_API int get_database_id_from_repository_id(LDAP* ld, const char* repositoryId,
                                               char** database_id);

/* ---- password policy and change ---- */

/* 1 when the user's "orvChangePassword" first value is exactly "on", 0 when
 * not, otherwise the search's status (32 when the entry cannot be read). */
ORV_API int can_user_change_password(LDAP* ld, const char* user_dn);
/* 1 when new_password passes the syntax rules of the library's password
 * policy (or the rules are off); otherwise the failed rule's status (3036,
 * 3037, 3016, 3017), also stored.  When the rules could not be read the
 * search's code stays in ldapErrCode. */
ORV_API int validate_password(LDAP* ld, const char* new_password);
/* 3003 syntax checks on, 3004 off, or the search's error code; the limits
 * of the attributes present are written to the outputs. */
ORV_API int get_password_check_syntax_attr_value(LDAP* ld, int* orv_password_max_repeated_chars,
                                                 int* orv_password_min_diff_chars,
                                                 int* orv_password_min_num_chars,
                                                 int* orv_password_min_symbol_chars);
/* Replaces the user's password: 0 only when the server accepted it.  The
 * server's refusals "too short" (and "must be at least N characters long")
 * and "history" become 3021 and 3015; any other refusal is the server's
 * code. */
ORV_API int change_password_at_server(LDAP* ld, const char* new_password, const char* user_dn);
ORV_API int change_reset_flag(LDAP* ld, const char* user_dn, const char* newval);
/* Appends the server password policy's attributes to *entry. */
ORV_API int add_server_password_attributes(LDAP* ld, ORVLibEntry** entry);

#ifdef __cplusplus
}

#include <string>

namespace orv {

// True for the statuses that say a check could not be made (client-side
// codes 81 to 97: server down, time-out, connect error, ...) rather than
// what the directory answered.
bool check_not_made(int status);

// Corporate mode: results of the corporate check after which the library's
// own directory is not tried (success, wrong password, a bind that could
// not be made).
bool corporate_answer_is_final(int status);

// The inactive-user and reset-flag checks: status of the search (0 when the
// check was made) and the answer in the out-argument, false unless the
// check was made.
int inactive_user_check(LDAP* ld, const char* userDn, bool* inactive);
int password_reset_check(LDAP* ld, const char* userDn, bool* reset);

// Corporate mode: checks a user the corporate partition could not
// authenticate in the library's own directory (standalone mode and search
// mechanism for the duration); on success corporate_user_ld becomes
// corporate_admin_ld.
int authenticate_locally_in_corporate_mode(const char* uid, const char* passwd);

// Status of a refused password change: the server's code, except that a
// constraint violation whose text says the password is too short ("short",
// "must be at least N characters long") is 3021 and one that names the
// history is 3015 (history first).
int password_refusal_status(int rc, const std::string& serverText);

// The right to change a password ("orvChangePassword" "on"): status of the
// read (32 when the entry cannot be read) and the answer.
int change_right_check(LDAP* ld, const char* userDn, bool* may);

// Whole days before a password expires, rounded up for positive numbers of
// seconds; 0 and negative numbers are truncated toward zero.
int password_expiry_days(int seconds);

// First value of the first attribute of entry with identifier id, or NULL
// (the pointer stays owned by the entry).
const char* entry_first_value(const ORVLibEntry* entry, int id);

// The request value of the RADIUS check: host ":" port ":" secret ":" user
// ":" password, nothing escaped.
std::string radius_request_value(const char* host, int port, const char* secret,
                                 const char* user, const char* password);

}  // namespace orv
#endif

#endif /* ORVLDAP_AUTH_H */
