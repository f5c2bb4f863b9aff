// Every registry and database operation given NULL or nonsense arguments,
// without a session or with a handle to nowhere, answers its status and
// never crashes; the allocation counter ends where it started.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "../api_sweep.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_registry.h"
#include "orvldap_search.h"

namespace {

using orvtest::closed_port;

// A record with the given object class and DN (either may be NULL).
ORVLibEntry* record(const char* objectClass, const char* dn) {
    ORVLibEntry* e = orv::new_entry();
    if (objectClass) {
        char* classes[] = {const_cast<char*>("top"), const_cast<char*>(objectClass), nullptr};
        orv::append_attribute(e, 18, "objectclass", classes);
    }
    if (dn) {
        char* dns[] = {const_cast<char*>(dn), nullptr};
        orv::append_attribute(e, 0, "entrydn", dns);
    }
    return e;
}

TEST(RegistryApi, NullSessionAnswers3007Everywhere) {
    const int start = _memCnt;
    ORVLibEntry* server = record("orvApplicationServer", "orvFullyQualifiedObjectId=x,dc=x");
    ORVLibEntry* facility = record("orvApplicationServerFacility", "orvFullyQualifiedObjectId=y,dc=x");
    const char* extended[] = {"a", nullptr};

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_register_application_server(nullptr, ORV_TOOL_2, "id", extended), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_register_application_server(nullptr, 22, nullptr, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_add_application_facility(nullptr, server, "http://x", 36, 34), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_remove_object_entry(nullptr, server), 0);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_generate_application_facility_urls(nullptr, facility, "U"), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_create_zorla_database(nullptr, "d", "n", "h", 1), ORV_LDAPLIB_SESSION_INVALID);
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_database_details(nullptr, const_cast<char*>("r")), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_instance_is_migrated(nullptr), ORV_LDAPLIB_SESSION_INVALID);

    LDAPMessage* res = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orv_custom_application_server_srch(nullptr, "", 2, "abc", nullptr, &res), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(res, nullptr);
    res = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orv_custom_application_facility_srch(nullptr, "", 2, "abc", nullptr, &res),
              ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(res, nullptr);

    orvlib_orvlibentry_free(server);
    orvlib_orvlibentry_free(facility);
    EXPECT_EQ(_memCnt, start);
}

TEST(RegistryApi, HandleToNowhereAndNonsenseArgumentsAnswerTheirStatus) {
    const int start = _memCnt;
    LDAP* saved = orv_ld;
    const int port = closed_port();
    LDAP* nowhere = ldap_init("127.0.0.1", port);
    ASSERT_NE(nowhere, nullptr);
    timeval tv{2, 0};
    ldap_set_option(nowhere, LDAP_OPT_NETWORK_TIMEOUT, &tv);

    ORVLibEntry* server = record("orvApplicationServer", "orvFullyQualifiedObjectId=x,dc=x");
    ORVLibEntry* facility = record("orvApplicationServerFacility", "orvFullyQualifiedObjectId=y,dc=x");
    ORVLibEntry* no_dn_server = record("orvApplicationServer", nullptr);
    ORVLibEntry* no_dn_facility = record("orvApplicationServerFacility", nullptr);
    ORVLibEntry* empty = orv::new_entry();
    const char* extended[] = {"a", nullptr};

    for (LDAP* own : {static_cast<LDAP*>(nullptr), nowhere}) {
        orv_ld = own;
        SCOPED_TRACE(own ? "library connection to nowhere" : "no library connection");

        // Public operations with a handle that is not NULL.
        EXPECT_EQ(orvlib_register_application_server(nowhere, ORV_TOOL_2, "id", extended), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        EXPECT_EQ(orvlib_register_application_server(nowhere, ORV_TOOL_2, nullptr, nullptr), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        EXPECT_EQ(orvlib_register_application_server(nowhere, 0, nullptr, nullptr), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(orvlib_register_application_server(nowhere, ~0ul, nullptr, extended), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);

        EXPECT_EQ(orvlib_add_application_facility(nowhere, nullptr, nullptr, 36, 34), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(orvlib_add_application_facility(nowhere, empty, "u", 36, 34), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);

        EXPECT_EQ(orvlib_remove_object_entry(nowhere, nullptr), 0);
        EXPECT_EQ(orvlib_remove_object_entry(nowhere, empty), 0);
        EXPECT_EQ(orvlib_remove_object_entry(nowhere, server), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
        EXPECT_EQ(orvlib_remove_object_entry(nowhere, facility), ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);
        EXPECT_EQ(orvlib_remove_object_entry(nowhere, no_dn_server), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
        EXPECT_EQ(orvlib_remove_object_entry(nowhere, no_dn_facility), ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);

        EXPECT_EQ(orvlib_generate_application_facility_urls(nowhere, nullptr, nullptr), nullptr);
        EXPECT_EQ(orvlib_generate_application_facility_urls(nowhere, empty, "U"), nullptr);
        EXPECT_EQ(orvlib_generate_application_facility_urls(nowhere, server, "U"), nullptr);
        EXPECT_EQ(orvlib_generate_application_facility_urls(nowhere, no_dn_server, "U"), nullptr);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
        char** urls = orvlib_generate_application_facility_urls(nowhere, no_dn_facility, nullptr);
        ASSERT_NE(urls, nullptr);
        EXPECT_EQ(urls[0], nullptr);
        orvlib_free_values(urls);

        EXPECT_EQ(orvlib_create_zorla_database(nowhere, nullptr, nullptr, nullptr, 0),
                  ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        EXPECT_EQ(orvlib_create_zorla_database(nowhere, "d", "n", "h", -1), ORV_LDAPLIB_UNABLE_TO_ADD_SERVER);
        EXPECT_EQ(orvlib_get_database_details(nowhere, nullptr), nullptr);
        EXPECT_EQ(orvlib_get_database_details(nowhere, const_cast<char*>("r")), nullptr);
        const int migrated = orvlib_instance_is_migrated(nowhere);
        EXPECT_EQ(migrated, own ? 81 : 89) << "the failed look-up's status";
        EXPECT_EQ(ldapErrCode, migrated);

        // Helpers.
        EXPECT_EQ(add_application_server(own, nullptr, nullptr, nullptr), ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(add_application_server(own, "1.2", "id", nullptr), own ? 81 : 89);
        EXPECT_EQ(add_application_facility(own, nullptr, nullptr, nullptr, nullptr, nullptr),
                  ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(add_application_facility(own, nullptr, "f", nullptr, nullptr, "s"), own ? 81 : 89);
        EXPECT_EQ(remove_application_facility(own, nullptr), ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY);
        EXPECT_EQ(remove_application_server(own, nullptr), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
        EXPECT_EQ(remove_application_server(own, server), ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER);
        EXPECT_EQ(populate_all_facility_urls_of_server(own, nullptr, "U"), nullptr);
        EXPECT_EQ(populate_all_facility_urls_of_server(own, server, "U"), nullptr);
        urls = populate_facility_url(nullptr, nullptr);
        ASSERT_NE(urls, nullptr);
        EXPECT_EQ(urls[0], nullptr);
        orvlib_free_values(urls);
        EXPECT_EQ(create_zorla_database(own, nullptr, nullptr, nullptr, nullptr), ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(create_zorla_database(own, "d", nullptr, nullptr, nullptr), own ? 81 : 89);
        EXPECT_EQ(add_database_role(own, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(add_database_role(own, "r", nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(ldapErrCode, own ? 81 : 89);
        EXPECT_EQ(orvlib_get_database_details_internal(own, nullptr), nullptr);
        EXPECT_EQ(orvlib_get_database_details_internal(own, "d"), nullptr);
        char* database_id = reinterpret_cast<char*>(0x1);
        EXPECT_EQ(get_database_id_from_repository_id(own, nullptr, &database_id), 0);
        EXPECT_EQ(database_id, nullptr);
        database_id = reinterpret_cast<char*>(0x1);
        EXPECT_EQ(get_database_id_from_repository_id(own, "r", &database_id), own ? 81 : 89);
        EXPECT_EQ(database_id, nullptr);
        EXPECT_EQ(get_database_id_from_repository_id(own, "r", nullptr), own ? 81 : 89);

        LDAPMessage* res = nullptr;
        EXPECT_EQ(orv_custom_application_server_srch(nowhere, nullptr, 2, nullptr, nullptr, nullptr),
                  ORV_LDAPLIB_INVALID_INPUT);
        EXPECT_EQ(orv_custom_application_facility_srch(nowhere, nullptr, 2, nullptr, nullptr, nullptr),
                  ORV_LDAPLIB_INVALID_INPUT);
        const std::string dn = std::string("x,") + ORV_ROOT_SUFFIX;
        for (const char* filter : {static_cast<const char*>(nullptr), "", "abc", "((", "orvFullyQualifiedObjectId=a",
                                   dn.c_str(), "(cn=a"}) {
            EXPECT_EQ(orv_custom_application_server_srch(nowhere, nullptr, 2, filter, nullptr, &res), 81) << filter;
            EXPECT_EQ(res, nullptr);
            EXPECT_EQ(orv_custom_application_facility_srch(nowhere, ORV_APPLICATION_REGISTRY_BASE, 2, filter,
                                                           nullptr, &res),
                      81)
                << filter;
            EXPECT_EQ(res, nullptr);
        }
        // A text with "=" that is no filter: the client refuses it.
        EXPECT_EQ(orv_custom_application_server_srch(nowhere, nullptr, 2, "x,dc=elsewhere", nullptr, &res),
                  87);
        EXPECT_EQ(ldapErrCode, 87);
        EXPECT_EQ(res, nullptr);
    }
    orv_ld = saved;

    // Nothing above reached into the caller's id string unasked: the
    // refused tool id releases it (and only then).
    char* id = _orvlib_dupString("caller-id");
    const int before = _memCnt;
    EXPECT_EQ(orvlib_register_application_server(nowhere, 30, id, nullptr), nullptr);
    EXPECT_EQ(_memCnt, before - 1);

    orvlib_orvlibentry_free(server);
    orvlib_orvlibentry_free(facility);
    orvlib_orvlibentry_free(no_dn_server);
    orvlib_orvlibentry_free(no_dn_facility);
    orvlib_orvlibentry_free(empty);
    ldap_unbind_ext_s(nowhere, nullptr, nullptr);
    EXPECT_EQ(_memCnt, start);
}

}  // namespace
