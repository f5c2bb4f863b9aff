/*
 * orvplatforms.h - LDAP client calls that client applications of the ORV
 * directory expect from their LDAP library but that OpenLDAP does not offer
 * (or spells differently): SSL set-up from a client key database, SSL
 * handles, and the last error number of a handle.
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

#ifdef __cplusplus
}
#endif

#endif /* ORVPLATFORMS_H */
