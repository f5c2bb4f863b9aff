// The registry's id tables, DN builders and search filters, without a
// directory.
#include <gtest/gtest.h>

#include <string>

#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_registry.h"
#include "orvldap_search.h"

namespace {

std::string take(char* text) {
    std::string out = text ? text : "<null>";
    orvlib_memfree(text);
    return out;
}

TEST(RegistryTables, ToolFacilityTypeAndStateIds) {
    const int start = _memCnt;
    for (unsigned long id = 23; id <= 29; ++id)
        EXPECT_EQ(take(getToolOIDFromID(id)), "1.3.6.1.4.1.47391." + std::to_string(id - 21)) << id;
    for (unsigned long id : {0ul, 1ul, 22ul, 30ul, 33ul, 36ul, 5006ul, ~0ul})
        EXPECT_EQ(getToolOIDFromID(id), nullptr) << id;

    EXPECT_EQ(take(getFaciltiyTypeFromID(33)), "FACILITY_RICH_CLIENT");
    EXPECT_EQ(take(getFaciltiyTypeFromID(34)), "FACILITY_WEB_CLIENT");
    EXPECT_EQ(take(getFaciltiyTypeFromID(35)), "FACILITY_WEB_SERVICE");
    EXPECT_EQ(take(getFaciltiyTypeFromID(39)), "FACILITY_APPLICATION_INTERNAL_1");
    // 36 to 38 are no facility types.
    for (unsigned long id : {0ul, 23ul, 32ul, 36ul, 37ul, 38ul, 40ul, ~0ul})
        EXPECT_EQ(getFaciltiyTypeFromID(id), nullptr) << id;

    EXPECT_EQ(take(getFaciltiyStatusFromID(36)), "ON");
    EXPECT_EQ(take(getFaciltiyStatusFromID(37)), "OFF");
    for (unsigned long id : {0ul, 33ul, 35ul, 38ul, 39ul, ~0ul}) EXPECT_EQ(getFaciltiyStatusFromID(id), nullptr) << id;

    // Each answer is a copy of its own.
    char* a = getToolOIDFromID(23);
    char* b = getToolOIDFromID(23);
    EXPECT_NE(a, b);
    orvlib_memfree(a);
    orvlib_memfree(b);
    EXPECT_EQ(_memCnt, start);
}

TEST(RegistryNames, DnsFollowTheRootSuffix) {
    const int start = _memCnt;
    const std::string registry = std::string("ou=Application Registry,") + ORV_ROOT_SUFFIX;
    EXPECT_EQ(registry, ORV_APPLICATION_REGISTRY_BASE);
    EXPECT_EQ(take(get_appserver_dn_from_uuid("s-1")), "orvFullyQualifiedObjectId=s-1," + registry);
    EXPECT_EQ(take(get_appfacility_dn_from_uuid("f-1", "s-1")),
              "orvFullyQualifiedObjectId=f-1,orvFullyQualifiedObjectId=s-1," + registry);
    EXPECT_EQ(get_appserver_dn_from_uuid(nullptr), nullptr);
    EXPECT_EQ(get_appfacility_dn_from_uuid(nullptr, "s"), nullptr);
    EXPECT_EQ(get_appfacility_dn_from_uuid("f", nullptr), nullptr);
    EXPECT_EQ(take(get_zorla_database_dn_from_id("d-1")),
              std::string("orvZORLADatabaseId=d-1,ou=Databases,ou=Application Data,") +
                  ORV_MORVANE_ZORLA_APP_SRCH_BASE);
    EXPECT_EQ(get_zorla_database_dn_from_id(nullptr), nullptr);
    EXPECT_EQ(_memCnt, start);
}

TEST(RegistryFilters, UpdatedSearchFilterAndDnTest) {
    const int start = _memCnt;
    const std::string suffix = ORV_ROOT_SUFFIX;
    char* out = nullptr;

    // A bare text is an object id.
    get_updated_search_filter("abc", ORV_SEARCH_APPLICATION_SERVERS, &out);
    EXPECT_EQ(take(out), "(&(objectClass=orvApplicationServer)(orvFullyQualifiedObjectId=abc))");
    // Unbalanced parentheses are escaped.
    get_updated_search_filter("a(b", ORV_SEARCH_APPLICATION_SERVERS, &out);
    EXPECT_EQ(take(out), "(&(objectClass=orvApplicationServer)(orvFullyQualifiedObjectId=a\\28b))");
    // A filter joins the class filter.
    get_updated_search_filter("(orvKXSToolOID=1.2)", ORV_SEARCH_APPLICATION_SERVERS, &out);
    EXPECT_EQ(take(out), "(&(objectClass=orvApplicationServer)(orvKXSToolOID=1.2))");
    // A DN becomes an ordinary filter as well.
    const std::string dn = "orvFullyQualifiedObjectId=s," + std::string(ORV_APPLICATION_REGISTRY_BASE);
    get_updated_search_filter(dn.c_str(), ORV_SEARCH_APPLICATION_SERVERS, &out);
    EXPECT_EQ(take(out).rfind("(&(objectClass=orvApplicationServer)(orvFullyQualifiedObjectId=s,", 0), 0u);
    get_updated_search_filter("abc", ORV_SEARCH_APPLICATION_SERVERS, nullptr);

    // Any text that holds the suffix, letter case and blanks aside, is a DN.
    std::string spaced;
    for (char c : suffix) {
        spaced += static_cast<char>(toupper(static_cast<unsigned char>(c)));
        if (c == ',') spaced += "  ";
    }
    EXPECT_EQ(application_registry_filter_is_dn(suffix.c_str()), 1);
    EXPECT_EQ(application_registry_filter_is_dn(spaced.c_str()), 1);
    EXPECT_EQ(application_registry_filter_is_dn(("(cn=x" + suffix + "junk").c_str()), 1);
    EXPECT_EQ(application_registry_filter_is_dn(suffix.substr(0, suffix.size() - 1).c_str()), 0);
    EXPECT_EQ(application_registry_filter_is_dn("orvFullyQualifiedObjectId=abc"), 0);
    EXPECT_EQ(application_registry_filter_is_dn(""), 0);
    EXPECT_EQ(application_registry_filter_is_dn(nullptr), 0);
    EXPECT_EQ(_memCnt, start);
}

}  // namespace
