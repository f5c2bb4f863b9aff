// Binary layout of the public header's records and exported arrays on the
// two architectures the library ships for: x86-64 and 32-bit x86 (i386).
// Client applications are compiled against these layouts; a change to a
// field, its type or its order shows up here as a different size or offset.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "orvldap.h"

namespace {

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t expected;
};

void expect_layout(const char* record, std::size_t size, std::size_t expected_size,
                   const std::vector<Field>& fields) {
    SCOPED_TRACE(record);
    EXPECT_EQ(size, expected_size) << "sizeof(" << record << ")";
    for (const Field& f : fields) EXPECT_EQ(f.offset, f.expected) << record << "." << f.name;
}

#define FIELD(type, member, x86_64, i386) \
    Field { #member, offsetof(type, member), ORV_ABI(x86_64, i386) }

#if defined(__x86_64__) && defined(__LP64__)
#define ORV_ABI(x86_64, i386) static_cast<std::size_t>(x86_64)
#define ORV_ABI_NAME "x86-64"
#elif defined(__i386__)
#define ORV_ABI(x86_64, i386) static_cast<std::size_t>(i386)
#define ORV_ABI_NAME "i386"
#endif

#ifdef ORV_ABI_NAME

TEST(AbiLayout, RecordsOfTheEntryIteration) {
    expect_layout("ORVLibAttribute", sizeof(ORVLibAttribute), ORV_ABI(24, 12),
                  {FIELD(ORVLibAttribute, attrId, 0, 0), FIELD(ORVLibAttribute, attrName, 8, 4),
                   FIELD(ORVLibAttribute, attrVals, 16, 8)});
    expect_layout("ORVLibEntry", sizeof(ORVLibEntry), ORV_ABI(8, 4),
                  {FIELD(ORVLibEntry, orvlibEntryAttrData, 0, 0)});
    expect_layout("groups_node", sizeof(groups_node), ORV_ABI(16, 8),
                  {FIELD(groups_node, str, 0, 0), FIELD(groups_node, link, 8, 4)});
}

TEST(AbiLayout, InformationAndTokenRecords) {
    static_assert(sizeof(ORVLibInfo) == sizeof(ORVClient_Info), "ORVLibInfo names ORVClient_Info");
    expect_layout("ORVClient_Info", sizeof(ORVClient_Info), ORV_ABI(24, 12),
                  {FIELD(ORVClient_Info, orv_client_library_version, 0, 0),
                   FIELD(ORVClient_Info, orv_server_version, 8, 4),
                   FIELD(ORVClient_Info, orv_server_lib_compatibility_version, 16, 8)});
    expect_layout("ORVSSOToken", sizeof(ORVSSOToken), ORV_ABI(16, 8),
                  {FIELD(ORVSSOToken, token_key, 0, 0), FIELD(ORVSSOToken, token_value, 8, 4)});
}

TEST(AbiLayout, ConfigurationRecords) {
    expect_layout("partition_info", sizeof(partition_info), ORV_ABI(120, 64),
                  {FIELD(partition_info, admin_dn, 0, 0),
                   FIELD(partition_info, admin_pwd, 8, 4),
                   FIELD(partition_info, hostname, 16, 8),
                   FIELD(partition_info, port_num, 24, 12),
                   FIELD(partition_info, search_base, 32, 16),
                   FIELD(partition_info, user_logon_attribute_name, 40, 20),
                   FIELD(partition_info, orv_ssl_enabled, 48, 24),
                   FIELD(partition_info, description, 56, 28),
                   FIELD(partition_info, partition_allows_blank_password, 64, 32),
                   FIELD(partition_info, partition_is_domain_controller, 68, 36),
                   FIELD(partition_info, people_search_base_suffix, 72, 40),
                   FIELD(partition_info, group_search_base_suffix, 80, 44),
                   FIELD(partition_info, partition_search_base_type, 88, 48),
                   FIELD(partition_info, meta_group_for_users, 96, 52),
                   FIELD(partition_info, meta_group_for_groups, 104, 56),
                   FIELD(partition_info, partition_isMetaSchema_Configured, 112, 60)});
    expect_layout("radius_info", sizeof(radius_info), ORV_ABI(24, 12),
                  {FIELD(radius_info, radius_hostname, 0, 0), FIELD(radius_info, radius_port_number, 8, 4),
                   FIELD(radius_info, radius_secret, 16, 8)});
}

TEST(AbiLayout, ExportedArraysAndScalars) {
    EXPECT_EQ(sizeof(LDAP_ErrorMessageCodes), 117u * 15u);
    EXPECT_EQ(sizeof(PEX_ErrorMessageCodes), 43u * 15u);
    EXPECT_EQ(sizeof(_sslPath), 501u);
    EXPECT_EQ(sizeof(enable_paging), 2u);
    EXPECT_EQ(sizeof(ldapErrCode), 4u);
    EXPECT_EQ(sizeof(lengthofstring), 4u);
    // orvlib_validate_sso_token answers unsigned long: 8 bytes on x86-64, 4 on i386.
    EXPECT_EQ(sizeof(orvlib_validate_sso_token(nullptr, nullptr, nullptr)), ORV_ABI(8, 4));
}

TEST(AbiLayout, Architecture) {
    // The layouts above are those of this architecture.
    EXPECT_EQ(std::string(ORV_ABI_NAME), sizeof(void*) == 8 ? "x86-64" : "i386");
}

#else

TEST(AbiLayout, Architecture) {
    GTEST_SKIP() << "layouts are recorded for x86-64 and i386 only";
}

#endif

}  // namespace
