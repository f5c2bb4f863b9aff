/*
 * orvldap_registry.h - the application registry (servers of each tool and
 * the facilities they offer, with URLs built from them) and the database
 * objects of the client application with their access roles.
 *
 * Every public operation checks only that its session handle is non-NULL
 * (3007 otherwise) and then works on the library's own connection.
 * Strings and lists returned are the caller's, released with orvlib_memfree
 * or orvlib_free_values; entries with orvlib_orvlibentry_free.
 *
 * The registry searches behind search types 5006 and 5007 and their filter
 * helpers are declared in orvldap_search.h; the look-ups that database-user
 * authentication uses (get_database_id_from_repository_id,
 * orvlib_get_database_details_internal) in orvldap_auth.h.
 */
#ifndef ORVLDAP_REGISTRY_H
#define ORVLDAP_REGISTRY_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Tool identifiers (orvlib_register_application_server); the stored
 * "orvKXSToolOID" is 1.3.6.1.4.1.47391.N for ORV_TOOL_N. */
#define ORV_TOOL_2                          23
#define ORV_TOOL_3                          24
#define ORV_TOOL_4                          25
#define ORV_TOOL_5                          26
#define ORV_TOOL_6                          27
#define ORV_TOOL_7                          28
#define ORV_TOOL_8                          29
/* Facility types and states (orvlib_add_application_facility).  The
 * numbers share one range of option identifiers: 36 to 38 are no facility
 * types and 38 is no state. */
#define ORV_FACILITY_RICH_CLIENT            33
#define ORV_FACILITY_WEB_CLIENT             34
#define ORV_FACILITY_WEB_SERVICE            35
#define ORV_FACILITY_STATUS_ON              36
#define ORV_FACILITY_STATUS_OFF             37
#define ORV_FACILITY_APPLICATION_INTERNAL_1 39

/* ---- application servers and facilities ---- */

/* Registers a server of the tool toolOID under serverId (NULL: a new UUID)
 * with the extended ids (NULL-terminated, at most 9; NULL for none) and
 * returns its entry as read back, or NULL: 3007, 3009 (unknown tool id),
 * 3026 (not added or not read back).
 * When the tool id is refused, serverId is released with orvlib_memfree:
 * pass a string the library allocated (or NULL) and treat it as gone. */
ORV_API ORVLibEntry* orvlib_register_application_server(LDAP* ld, unsigned long toolOID,
                                                        const char* serverId,
                                                        const char** extendedId);
/* Adds a facility (new UUID) below the server entry; baseURL may be NULL.
 * The facility's entry as read back, or NULL: 3007, 3009 (no server id in
 * the record, unknown type or state), 3027 (not added or not read back). */
ORV_API ORVLibEntry* orvlib_add_application_facility(LDAP* ld, ORVLibEntry* server,
                                                     const char* baseURL,
                                                     unsigned long facilityStatus,
                                                     unsigned long facilityType);
/* Deletes a facility, or a server after all its facilities, by the record's
 * first object class that is "orvApplicationServerFacility" or
 * "orvApplicationServer" (exact spelling).  0, 3029 (facility), 3028
 * (server, whatever became of its facilities); 0 and nothing sent for any
 * other record. */
ORV_API int orvlib_remove_object_entry(LDAP* ld, ORVLibEntry* entry);
/* URLs of a facility (one) or of every facility of a server, each the base
 * URL followed by "?" and the URN, or by the URN alone when the base URL
 * already holds a "?".  For a server the list has one slot per facility
 * and a terminating NULL; a facility without a base URL leaves its slot
 * NULL, which ends the list there: the slots after it are NULL as well.
 * NULL for a record that is neither. */
ORV_API char** orvlib_generate_application_facility_urls(LDAP* ld, ORVLibEntry* entry,
                                                         const char* URN);

/* Helpers.  Each add returns the status of its add request. */
ORV_API int add_application_server(LDAP* ld, const char* toolOID, const char* serverId,
                                   const char** extendedId);
ORV_API int add_application_facility(LDAP* ld, const char* baseURL, const char* facilityId,
                                     const char* facilityStatus, const char* facilityType,
                                     const char* serverId);
/* New DN strings, or NULL for a NULL id. */
ORV_API char* get_appserver_dn_from_uuid(const char* uid);
ORV_API char* get_appfacility_dn_from_uuid(const char* facility_uid, const char* server_uid);
/* 0, 3029 or 3028. */
ORV_API int remove_application_facility(LDAP* ld, ORVLibEntry* entry);
ORV_API int remove_application_server(LDAP* ld, ORVLibEntry* entry);
ORV_API char** populate_facility_url(ORVLibEntry* entry, const char* URN);
ORV_API char** populate_all_facility_urls_of_server(LDAP* ld, ORVLibEntry* entry, const char* URN);
/* New copies of the stored texts, or NULL for an unknown id. */
ORV_API char* getToolOIDFromID(unsigned long id);
ORV_API char* getFaciltiyTypeFromID(unsigned long id);
ORV_API char* getFaciltiyStatusFromID(unsigned long id);

/* ---- databases and their access roles ---- */

/* Registers a database (databaseId NULL: a new UUID) and an access role for
 * it.  0 once the database entry exists (a role that could not be added
 * shows only in the last status), 3007, or 3026 when the database entry
 * cannot be added. */
ORV_API int orvlib_create_zorla_database(LDAP* ld, const char* databaseId,
                                         const char* databaseName, const char* hostName,
                                         int portNumber);
ORV_API int create_zorla_database(LDAP* ld, const char* databaseId, const char* databaseName,
                                  const char* hostName, const char* portNumber);
ORV_API char* get_zorla_database_dn_from_id(const char* databaseId);
/* Always 0; the status of the add is the last status. */
ORV_API int add_database_role(LDAP* ld, const char* roleId, const char* databaseId,
                              const char* databaseName, const char* hostName,
                              const char* databasePortNumber);
/* Settings of the database of a registered repository, or NULL. */
ORV_API ORVLibEntry* orvlib_get_database_details(LDAP* ld, char* repository_id);
/* 1 when the instance's "orvInstanceIsMigrated" is exactly "1", 0 when it
 * is anything else, otherwise the status of the failed look-up (check the
 * last status as well: a status of 1 reads as "migrated"). */
ORV_API int orvlib_instance_is_migrated(LDAP* ld);

#ifdef __cplusplus
}
#endif

#endif /* ORVLDAP_REGISTRY_H */
