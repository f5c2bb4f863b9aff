/*
 * orvldap_session.h - internal steps of the session context, server
 * configuration and connection recovery.
 */
#ifndef ORVLDAP_SESSION_H
#define ORVLDAP_SESSION_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

ORV_API LDAP* create_ldap_connection(const char* host, int port, const char* bindDn,
                                     const char* password);
ORV_API LDAP* create_ssl_connection(const char* host, int port);
ORV_API int attempt_sasl_bind(LDAP* ld);
ORV_API int is_server_supported(LDAP* ld);
ORV_API int populate_libinfo(LDAP* ld, ORVLibInfo** info);
ORV_API int _setOperationModeFromServer(LDAP* ld);
ORV_API void initialize_cache(void);
ORV_API LDAP* recreate_local_connection(void);
ORV_API LDAP* reconnect_to_corporate_server(void);
ORV_API int populate_partition_info(LDAP* ld);
ORV_API int populate_radius_info(LDAP* ld);
ORV_API void free_authentication_details(void);
ORV_API void determine_control(LDAP* ld);
ORV_API char* get_standalone_dn_from_uid(const char* uid);

#ifdef __cplusplus
}
#endif

#endif /* ORVLDAP_SESSION_H */
