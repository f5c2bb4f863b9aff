/*
 * orvplatforms.h - LDAP client calls that client applications of the ORV
 * directory expect from their LDAP library but that OpenLDAP does not offer
 * (or spells differently): SSL set-up from a client key database, SSL
 * handles, the last error number of a handle, and the password policy
 * response of a bind.
 */
#ifndef ORVPLATFORMS_H
#define ORVPLATFORMS_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reason codes stored through ldap_ssl_client_init's last argument. */
#define ORV_SSL_REASON_NONE          0
#define ORV_SSL_REASON_NO_KEYDB      1 /* missing or unreadable key database */
#define ORV_SSL_REASON_BAD_KEYDB     2 /* wrong password or not a key database */
#define ORV_SSL_REASON_TLS_SETUP     3 /* the TLS context could not be made */

/*
 * Loads the trusted CA certificates (and the client's certificate and key,
 * when present) from keyDatabase: a PKCS#12 file protected by password, or
 * a PEM file of CA certificates.  Every SSL handle made afterwards verifies
 * the server's certificate against these CAs.  Returns 0, or an LDAP result
 * code with *reason (when given) saying why.
 */
ORV_API int ldap_ssl_client_init(const char* keyDatabase, const char* password, int sslTimeout,
                                 int* reason);
/* Opens an LDAP-over-SSL handle to host:port (connects on first use). */
ORV_API LDAP* ldap_ssl_init(const char* host, int port, const char* certificateLabel);
/* Last result code of the handle; matched DN and message are not kept. */
ORV_API int ldap_get_lderrno(LDAP* ld, char** matched, char** message);

/*
 * Password policy response (control 1.3.6.1.4.1.42.2.27.8.5.1).  The numbers
 * handed back keep errors and warnings apart in one range:
 *   *policy_error   0 none, 3 password expired, 4 account locked,
 *                   5 change after reset, 6 change not allowed,
 *                   7 old password required, 8 insufficient quality,
 *                   9 too short, 10 too young, 11 in history, 12 too long
 *   *warning_kind   0 none, 1 seconds before expiry, 2 grace logins left
 *   *warning_value  the seconds or logins of the warning, else 0
 * Returns 0 when the control was found and read, 93 (control not found)
 * when the list holds none (outputs 0), 84 (decoding error) for a malformed
 * control, 89 (parameter error) without a handle.  Any output may be NULL.
 */
#define ORV_PWDPOLICY_NO_ERROR            0
#define ORV_PWDPOLICY_PASSWORD_EXPIRED    3
#define ORV_PWDPOLICY_ACCOUNT_LOCKED      4
#define ORV_PWDPOLICY_CHANGE_AFTER_RESET  5
#define ORV_PWDPOLICY_MOD_NOT_ALLOWED     6
#define ORV_PWDPOLICY_OLD_PASSWORD_NEEDED 7
#define ORV_PWDPOLICY_INSUFFICIENT_QUALITY 8
#define ORV_PWDPOLICY_TOO_SHORT           9
#define ORV_PWDPOLICY_TOO_YOUNG           10
#define ORV_PWDPOLICY_IN_HISTORY          11
#define ORV_PWDPOLICY_TOO_LONG            12
#define ORV_PWDPOLICY_WARNING_NONE        0
#define ORV_PWDPOLICY_WARNING_EXPIRY      1
#define ORV_PWDPOLICY_WARNING_GRACE       2
ORV_API int ldap_parse_pwdpolicy_response(LDAP* ld, LDAPControl** controls, int* policy_error,
                                          int* warning_kind, int* warning_value);

#ifdef __cplusplus
}
#endif

#endif /* ORVPLATFORMS_H */
