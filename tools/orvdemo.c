/*
 * orvdemo - a short tour of orvlib.  Without a directory it shows status
 * texts, a generated GUID and how typed filters are repaired.  Given a
 * directory (orvdemo HOST PORT [SSLPORT CERTDIR]) it opens a session, plain
 * and then over SSL, shows what the server reports, searches people and
 * groups, and registers an application server with a facility, prints its
 * URLs and removes both again; it relates two objects of two repositories
 * under a relationship type, lists the relationship and removes it.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <orvldap.h>
#include <orvldap_registry.h>
#include <orvldap_utils.h>

static void show_status(int code) {
    char* text = NULL;
    int saved = ldapErrCode;
    ldapErrCode = code;
    orvlib_get_last_error(NULL, &text);
    printf("  %5d  %s\n", code, text ? text : "(none)");
    orvlib_memfree(text);
    ldapErrCode = saved;
}

static void show_filter(const char* typed, int type) {
    char* out = NULL;
    _setFilter(typed, type, &out);
    printf("  %-22s -> %s\n", typed ? typed : "(null)", out ? out : "(null)");
    orvlib_memfree(out);
}

static const char* mode_name(void) {
    if (ORV_OS_AUTH == 1) return "operating-system authentication (2)";
    return ORV_OPERATION_MODE == 1 ? "corporate (1)" : "standalone (0)";
}

/* orvlib_init and a session (ssl 0 or 1).  When it cannot be opened, the
 * status and its text are printed, the library is released again and NULL
 * is returned. */
static LDAP* open_session(const char* host, int port, int ssl, ORVLibInfo** info) {
    char* text = NULL;
    LDAP* ld;
    orvlib_init();
    ld = orvlib_getsession_context(host, port, info, ssl);
    if (!ld) {
        orvlib_get_last_error(NULL, &text);
        printf("  %s session to %s:%d failed: %d %s\n", ssl ? "SSL" : "plain", host, port, ldapErrCode,
               text ? text : "");
        orvlib_memfree(text);
        orvlib_uninitialize_lib();
    }
    return ld;
}

/* Frees the information record with the strings the caller owns, unbinds
 * and releases the library. */
static void close_session(LDAP* ld, ORVLibInfo* info) {
    if (info) {
        orvlib_memfree((void*)info->orv_server_version);
        orvlib_memfree((void*)info->orv_server_lib_compatibility_version);
        orvlib_orvlibinfo_free(info);
    }
    orvlib_unbind(ld);
    orvlib_uninitialize_lib();
}

/* Opens one session and prints the library and server information. */
static int show_session(const char* host, int port, int ssl) {
    ORVLibInfo* info = NULL;
    char* text = NULL;
    LDAP* ld;
    int rc;

    ld = open_session(host, port, ssl, &info);
    if (!ld) return 1;
    printf("  %s session to %s:%d\n", ssl ? "SSL" : "Plain", host, port);
    orvlib_get_orvlibinfo(info, 4000, &text);
    printf("    library version   %s\n", text ? text : "");
    orvlib_memfree(text);
    orvlib_get_orvlibinfo(info, 4001, &text);
    printf("    server version    %s\n", text ? text : "");
    orvlib_memfree(text);
    orvlib_get_orvlibinfo(info, 4002, &text);
    printf("    oldest client     %s\n", text ? text : "");
    orvlib_memfree(text);
    orvlib_get_orvlibinfo(info, 4009, &text);
    printf("    instance id       %s\n", text ? text : "");
    orvlib_memfree(text);
    printf("    operation mode    %s\n", mode_name());
    rc = orvlib_get_connection_status(ld);
    printf("    connection        %s\n", rc == 3040 ? "active" : "inactive");

    close_session(ld, info);
    return 0;
}

/* First value of an attribute, or "" (the caller frees *vals). */
static const char* first(ORVLibEntry* entry, int id, char*** vals) {
    *vals = orvlib_get_entry_vals(entry, id);
    return (*vals && (*vals)[0]) ? (*vals)[0] : "";
}

/* Short form of a DN: the value of its first component. */
static void print_rdn_values(char** dns, int width) {
    int used = 0;
    for (; dns && *dns; ++dns) {
        const char* dn = *dns;
        const char* eq = strchr(dn, '=');
        const char* comma = strchr(dn, ',');
        int len;
        if (!eq) continue;
        ++eq;
        len = comma && comma > eq ? (int)(comma - eq) : (int)strlen(eq);
        used += printf("%s%.*s", used ? ", " : "", len, eq);
    }
    if (used < width) printf("%*s", width - used, "");
}

/* Runs one search and prints its entries as a table. */
static int show_search(LDAP* ld, const char* title, const char* filter, int type) {
    LDAPMessage* result = NULL;
    LDAPMessage* cursor;
    ORVLibEntry* entry = NULL;
    int rc = orvlib_search_ext_s(ld, filter, type, &result);
    int rows = 0;

    printf("\n%s (filter \"%s\")\n", title, filter);
    if (rc != 0) {
        char* text = NULL;
        orvlib_get_last_error(NULL, &text);
        printf("  search failed: %d %s\n", rc, text ? text : "");
        orvlib_memfree(text);
        return 1;
    }
    if (type == 5002)
        printf("  %-14s %-34s %s\n", "cn", "description", "members");
    else
        printf("  %-10s %-16s %-26s %s\n", "uid", "cn", "mail", "roles");
    for (cursor = orvlib_first_entry(ld, &entry, result); entry;
         cursor = orvlib_next_entry(ld, &entry, cursor)) {
        char **a, **b, **c, **d;
        if (type == 5002) {
            printf("  %-14s %-34s ", first(entry, 1, &a), first(entry, 4, &b));
            c = orvlib_get_entry_vals(entry, 10);
            print_rdn_values(c, 0);
            d = NULL;
        } else {
            printf("  %-10s %-16s %-26s ", first(entry, 3, &a), first(entry, 1, &b), first(entry, 6, &c));
            d = orvlib_get_entry_vals(entry, 19);
            print_rdn_values(d, 0);
        }
        printf("\n");
        orvlib_free_values(a);
        orvlib_free_values(b);
        orvlib_free_values(c);
        orvlib_free_values(d);
        orvlib_orvlibentry_free(entry);
        entry = NULL;
        ++rows;
    }
    printf("  (%d entr%s)\n", rows, rows == 1 ? "y" : "ies");
    if (result) orvlib_orvmessage_free(result);
    return 0;
}

/* People, groups and a group's members over one plain session. */
static int show_searches(const char* host, int port) {
    ORVLibInfo* info = NULL;
    LDAP* ld;
    int failures = 0;
    ld = open_session(host, port, 0, &info);
    if (!ld) return 1;
    failures += show_search(ld, "People", "*", 5001);
    failures += show_search(ld, "People whose name starts with B", "b*", 5001);
    failures += show_search(ld, "Groups", "*", 5002);
    failures += show_search(ld, "Members of Developers", "Developers", 5005);
    close_session(ld, info);
    return failures;
}

/* Prints a NULL-terminated list of URLs. */
static void print_urls(const char* title, char** urls) {
    printf("  %s\n", title);
    for (; urls && *urls; ++urls) printf("    %s\n", *urls);
}

/* Registers an application server with one facility, prints the facility's
 * URLs and removes both again. */
static int show_registry(const char* host, int port) {
    static const char* URN = "urn:orv:zorla:object:42";
    ORVLibInfo* info = NULL;
    ORVLibEntry* server;
    ORVLibEntry* facility;
    char** urls;
    char** ids;
    char* text = NULL;
    LDAP* ld;
    int rc, failures = 0;

    printf("\nApplication registry\n");
    ld = open_session(host, port, 0, &info);
    if (!ld) return 1;
    server = orvlib_register_application_server(ld, ORV_TOOL_2, NULL, NULL);
    facility = server ? orvlib_add_application_facility(ld, server, "http://zorla.demo.test/app",
                                                        ORV_FACILITY_STATUS_ON, ORV_FACILITY_WEB_CLIENT)
                      : NULL;
    if (!server || !facility) {
        orvlib_get_last_error(NULL, &text);
        printf("  registration failed: %d %s\n", ldapErrCode, text ? text : "");
        orvlib_memfree(text);
        failures = 1;
    } else {
        ids = orvlib_get_entry_vals(server, 22);
        printf("  server registered      %s\n", ids && ids[0] ? ids[0] : "");
        orvlib_free_values(ids);
        ids = orvlib_get_entry_vals(facility, 22);
        printf("  facility added         %s\n", ids && ids[0] ? ids[0] : "");
        orvlib_free_values(ids);
        urls = orvlib_generate_application_facility_urls(ld, facility, URN);
        print_urls("URLs of the facility:", urls);
        orvlib_free_values(urls);
        urls = orvlib_generate_application_facility_urls(ld, server, URN);
        print_urls("URLs of the server:", urls);
        orvlib_free_values(urls);
    }
    if (server) {
        rc = orvlib_remove_object_entry(ld, server);
        printf("  server and facility removed: %d\n", rc);
        if (rc != 0) failures = 1;
    }
    orvlib_orvlibentry_free(facility);
    orvlib_orvlibentry_free(server);
    close_session(ld, info);
    return failures;
}

/* Relates two objects of two repositories under a relationship type made
 * for them, lists the relationships of the first repository and removes the
 * relationship, the type and its end types again. */
static int show_relationships(const char* host, int port) {
    static char* urn1 = "urn:morvane:DEMO-REPO-1:document:1";
    static char* urn2 = "urn:morvane:DEMO-REPO-2:item:7";
    char* repo1[] = {"DEMO-REPO-1", NULL};
    char* repo2[] = {"DEMO-REPO-2", NULL};
    ORVLibInfo* info = NULL;
    ORVLibEntry* end_a = NULL;
    ORVLibEntry* end_b = NULL;
    ORVLibEntry* type = NULL;
    ORVLibEntry* rel = NULL;
    ORVLibEntry* entry = NULL;
    LDAPMessage* res = NULL;
    LDAPMessage* cur;
    char** vals;
    char** desc;
    char* urn = NULL;
    LDAP* ld;
    int rc, failures = 0;

    printf("\nExternal relationships\n");
    ld = open_session(host, port, 0, &info);
    if (!ld) return 1;
    end_a = orvlib_create_end_type_object(ld, "demo-end-a", "repository", repo1, "documents of repository 1");
    end_b = orvlib_create_end_type_object(ld, "demo-end-b", "repository", repo2, "items of repository 2");
    type = end_a && end_b ? orvlib_create_relationship_type(ld, "demo-type", "document describes item", end_a, end_b)
                          : NULL;
    rel = type ? orvlib_create_external_relationship(ld, urn1, "Design document", "release-1", urn2,
                                                     "Work item 7", "release-1", type, "describes")
               : NULL;
    if (!rel) {
        printf("  relating failed: %d\n", ldapErrCode);
        failures = 1;
    } else {
        printf("  related %s\n       to %s under demo-type\n", urn1, urn2);
        rc = orvlib_search_external_relationship(ld, repo1, NULL, &res, 0);
        printf("  relationships of DEMO-REPO-1 (status %d):\n", rc);
        for (cur = orvlib_first_er_entry(ld, &entry, res); cur; cur = orvlib_next_er_entry(ld, &entry, cur)) {
            vals = orvlib_get_entry_er_vals(ld, entry, 113);
            desc = orvlib_get_entry_er_vals(ld, entry, 127);
            printf("    \"%s\" -> %s\n", desc && desc[0] ? desc[0] : "", vals && vals[0] ? vals[0] : "");
            orvlib_free_values(vals);
            orvlib_free_values(desc);
            orvlib_orvlibentry_free(entry);
            entry = NULL;
        }
        orvlib_orvmessage_free(res);
        vals = orvlib_get_entry_er_vals(ld, rel, 22);
        if (vals && vals[0]) {
            urn = orvlib_str_malloc((unsigned int)strlen(vals[0]) + 24);
            if (urn) sprintf(urn, "urn:morvane:relation:%s", vals[0]);
        }
        orvlib_free_values(vals);
        rc = orvlib_remove_external_relationship(ld, urn, 0);
        printf("  relationship removed: %d\n", rc);
        if (rc != 0) failures = 1;
        orvlib_memfree(urn);
    }
    if (type) {
        rc = orvlib_remove_relationship_type(ld, "demo-type");
        printf("  relationship type removed: %d\n", rc);
        if (rc != 0) failures = 1;
    }
    if (end_a) printf("  end types removed: %d %d\n", orvlib_modify_end_rule(ld, "demo-end-a", 0, NULL, 0),
                      end_b ? orvlib_modify_end_rule(ld, "demo-end-b", 0, NULL, 0) : -1);
    orvlib_orvlibentry_free(rel);
    orvlib_orvlibentry_free(type);
    orvlib_orvlibentry_free(end_b);
    orvlib_orvlibentry_free(end_a);
    close_session(ld, info);
    return failures;
}

static int online_demo(int argc, char** argv) {
    int failures = 0;
    printf("\nSessions:\n");
    failures += show_session(argv[1], atoi(argv[2]), 0);
    if (argc >= 5) {
        orvlib_setcertdb_path(argv[4]);
        failures += show_session(argv[1], atoi(argv[3]), 1);
    }
    failures += show_searches(argv[1], atoi(argv[2]));
    failures += show_registry(argv[1], atoi(argv[2]));
    failures += show_relationships(argv[1], atoi(argv[2]));
    return failures;
}

/* Corporate mode: the ORV directory's partition names an Active Directory
 * domain controller; people and group members come from it first. */
static int corporate_demo(const char* host, int port) {
    ORVLibInfo* info = NULL;
    int failures = 0;
    LDAP* ld;

    printf("Corporate session (ORV directory %s:%d in front of Active Directory)\n", host, port);
    ld = open_session(host, port, 0, &info);
    if (!ld) return 1;
    printf("    operation mode    %s\n", mode_name());
    printf("    corporate server  %s:%d (%s)\n", PARTITION_INFO ? PARTITION_INFO->hostname : "",
           PARTITION_INFO ? PARTITION_INFO->port_num : 0,
           mechanism == ORV_PAGING ? "paged results" : "virtual list view");
    printf("    connection        %s\n", orvlib_get_connection_status(ld) == 3040 ? "active" : "inactive");
    failures += show_search(ld, "People: AD users first, then the ORV directory's", "j*", 5001);
    failures += show_search(ld, "Members of the AD group Engineering (nested groups one level)", "Engineering",
                            5005);
    failures += orvlib_authenticate_user(ld, "jsmith", "Secret123!") != 0;
    printf("\nAD user jsmith logs in: %s\n", failures ? "refused" : "accepted");
    close_session(ld, info);
    return failures;
}

int main(int argc, char** argv) {
    static const int codes[] = {0, 49, 3007, 3009, 3012, 3020, 3035, 3041};
    char* guid;
    unsigned i;
    int failures = 0;

    if (argc == 4 && strcmp(argv[1], "--corporate") == 0) return corporate_demo(argv[2], atoi(argv[3])) ? 1 : 0;

    printf("orvlib %s, directory root %s\n\n", ORVLIB_CLIENT_LIBRARY_VERSION, ORV_ROOT_SUFFIX);

    printf("Status texts:\n");
    for (i = 0; i < sizeof codes / sizeof codes[0]; ++i) show_status(codes[i]);

    guid = orvlib_create_guid();
    printf("\nA new GUID: %s\n", guid ? guid : "(failed)");
    orvlib_memfree(guid);

    printf("\nFilters as typed and as sent (people search):\n");
    show_filter("jsmith", 5001);
    show_filter("uid=jsmith", 5001);
    show_filter("(cn=Smith*", 5001);
    show_filter(NULL, 5001);
    printf("Group search:\n");
    show_filter("Developers", 5002);

    if (argc >= 3) failures = online_demo(argc, argv);

    printf("\nOutstanding allocations: %d\n", _memCnt);
    return (failures == 0 && _memCnt == 0) ? 0 : 1;
}
