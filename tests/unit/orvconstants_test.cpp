// Directory layout constants and the starting state of the library.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvldap.h"

namespace {

std::vector<std::string> names(const char* const* list) {
    std::vector<std::string> out;
    for (; *list != nullptr; ++list) out.emplace_back(*list);
    return out;
}

// Nothing in this program calls into the library before this test reads
// the globals, so they still hold their starting values.
TEST(OrvConstants, LibraryStartsInItsDocumentedState) {
    EXPECT_EQ(ldapErrCode, 3008);
    EXPECT_EQ(isServerInStandaloneMode, 1);
    EXPECT_EQ(enable_paging, 1);
    EXPECT_EQ(ORVLIB_PRIMARY_CACHE_SIZE, 6000000);
    EXPECT_EQ(ORVLIB_SECONDARY_CACHE_SIZE, 2000000);
    EXPECT_EQ(mechanism, -1);
    EXPECT_EQ(operatingMechanism, -1);
    EXPECT_EQ(user_uuid_generation_flag, 1);
    EXPECT_EQ(connection_retries, 3);
    EXPECT_EQ(ORV_PAGING, 1);
    EXPECT_EQ(ORV_VLV, 0);
    EXPECT_EQ(ORV_MAX_PARTITIONS, 50);
    EXPECT_EQ(current_search_type, 5001);
    EXPECT_EQ(ORV_OPERATION_MODE, 0);
    EXPECT_EQ(ORV_OP_MODE_SEARCH, 0);
    EXPECT_EQ(ORV_OS_AUTH, 0);
    EXPECT_EQ(ORVLIB_IS_RADIUS_CONFIGURED, 0);
    EXPECT_EQ(_memCnt, 0);
    EXPECT_EQ(cache_is_intialized, 0);
    EXPECT_EQ(user_authenticated, 0);
    EXPECT_EQ(_sslPath[0], '\0');
    EXPECT_EQ(sizeof _sslPath, 501u);
    EXPECT_EQ(PARTITION_INFO, nullptr);
    EXPECT_EQ(RADIUS_INFO, nullptr);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(corporate_admin_ld, nullptr);
    EXPECT_EQ(corporate_user_ld, nullptr);
    EXPECT_EQ(ORVLIB_SYSTEM_DEFAULT_DOMAIN, nullptr);
    EXPECT_EQ(instanceID, nullptr);
    EXPECT_EQ(_user_id, nullptr);
    EXPECT_EQ(_pwd, nullptr);
    EXPECT_EQ(AUTH_USER_ORVLIBENTRY, nullptr);
    EXPECT_EQ(radius_err_str, nullptr);
}

TEST(OrvConstants, EveryBaseDnEndsInTheConfiguredRootSuffix) {
    // The suffix comes from the build and nowhere else.
    EXPECT_STREQ(ORV_ROOT_SUFFIX, ORV_ROOT_SUFFIX_VALUE);
    const std::string suffix = ORV_ROOT_SUFFIX;
    EXPECT_EQ(suffix.rfind("dc=", 0), 0u) << suffix;
    EXPECT_NE(suffix.find(",dc="), std::string::npos) << suffix;

    struct Base {
        const char* name;
        const char* value;
        const char* head;  // what precedes the suffix
    };
    const Base bases[] = {
        {"ORV_PEOPLE_SRCH_BASE", ORV_PEOPLE_SRCH_BASE, "ou=People,"},
        {"ORV_INACTIVE_USER_SRCH_BASE", ORV_INACTIVE_USER_SRCH_BASE,
         "cn=inactive users,ou=Groups,"},
        {"ORV_GROUP_SRCH_BASE", ORV_GROUP_SRCH_BASE, ""},
        {"ORV_MORVANE_ZORLA_APP_SRCH_BASE", ORV_MORVANE_ZORLA_APP_SRCH_BASE,
         "ou=Morvane Zorla,ou=Applications,"},
        {"ORV_MORVANE_KM_APP_SRCH_BASE", ORV_MORVANE_KM_APP_SRCH_BASE,
         "ou=Morvane Keldrin Modeler,ou=Applications,"},
        {"ORV_PARTITION_SEARCH_BASE", ORV_PARTITION_SEARCH_BASE,
         "ou=Partitions,ou=Corporate,ou=Config,"},
        {"ORV_APPLICATION_REGISTRY_BASE", ORV_APPLICATION_REGISTRY_BASE,
         "ou=Application Registry,"},
        {"ORV_WIN_USER_SYSTEM_INFO_BASE", ORV_WIN_USER_SYSTEM_INFO_BASE,
         "ou=Windows User System Information,"},
        {"ORV_RADIUS_CONFIG_SEARCH_BASE", ORV_RADIUS_CONFIG_SEARCH_BASE,
         "ou=RadiusConfiguration,ou=Config,"},
        {"PEX_END_TYPE_BASE", PEX_END_TYPE_BASE, "ou=PEXEndTypes,"},
        {"PEX_RELATIONSHIP_TYPE_BASE", PEX_RELATIONSHIP_TYPE_BASE, "ou=PEXRelationshipTypes,"},
        {"PEX_EXTERNAL_OBJECT_BASE", PEX_EXTERNAL_OBJECT_BASE, "ou=ExternalRelationshipObjects,"},
        {"PEX_RELATIONSHIP_BASE", PEX_RELATIONSHIP_BASE, "ou=PEXRelationships,"},
        {"bindingUser", bindingUser, "uid=orvadmin,ou=people,"},
    };
    for (const Base& base : bases) {
        ASSERT_NE(base.value, nullptr) << base.name;
        EXPECT_EQ(std::string(base.value), std::string(base.head) + suffix) << base.name;
    }
}

TEST(OrvConstants, AttributeListsHaveTheirNamesInOrder) {
    const std::vector<std::string> user = names(ORVLIB_USER_ATTR_LIST);
    ASSERT_EQ(user.size(), 33u);
    EXPECT_EQ(user.front(), "cn");
    EXPECT_EQ(user[1], "uid");
    EXPECT_EQ(user.back(), "givenName");

    // The extended list is the user list without "uid", order kept.
    std::vector<std::string> without_uid = user;
    without_uid.erase(without_uid.begin() + 1);
    EXPECT_EQ(names(ORVLIB_EXT_USER_ATTR_LIST), without_uid);

    EXPECT_EQ(names(ORVLIB_GROUP_ATTR_LIST).size(), 10u);
    EXPECT_EQ(names(ORVLIB_APPLICATION_SERVER_ATTR_LIST).size(), 5u);
    EXPECT_EQ(names(ORVLIB_APPLICATION_FACILITY_ATTR_LIST).size(), 6u);
    EXPECT_EQ(names(ORVLIB_MORVANE_PASSWORD_POLICY_ATTR_LIST).size(), 6u);
    EXPECT_EQ(names(ORVLIB_PASSWORD_POLICY_ATTR_LIST).size(), 5u);
    EXPECT_EQ(names(ORVLIB_ZORLA_DATABASE_ATTR_LIST).size(), 4u);
    EXPECT_EQ(names(PEXLIB_RULE_TYPE_ANY_VALUES), std::vector<std::string>{"EMPTY_STRING"});

    // The configuration reader takes partition values by position.
    const std::vector<std::string> partition = {
        "orvHostName", "orvPortNumber", "description", "orvSSLEnabled", "orvsearchbasesuffix",
        "orvPartitionAdminDN", "orvPartitionAdminPassword", "orvPrimarySearchBaseSuffix",
        "orvPartitionAllowsBlankPassword", "orvPartitionLogonAttribute",
        "orvPartitionIsDomainController", "pexPeopleSearchBaseSuffix", "pexGroupSearchBaseSuffix",
        "pexPartitionSearchBaseType", "pexZorlaGroupForUsers", "pexZorlaGroupForGroups",
        "pexPartitionIsMetaSchemaConfigured"};
    EXPECT_EQ(names(ORVLIB_PARTITION_ATTR_LIST), partition);
}

}  // namespace
