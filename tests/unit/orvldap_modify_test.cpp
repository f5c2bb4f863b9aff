// Entry records, standalone DNs, filter escapes of backslashes, and the
// checks that the modify and population functions make before they talk to
// a server.  The handle used here points at a closed port: any request that
// reached the network would fail with "server down" instead of the status
// asserted.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"

namespace {

std::string take(char* p) {
    std::string text = p != nullptr ? p : "<null>";
    orvlib_memfree(p);
    return text;
}

char* cs(const char* s) { return const_cast<char*>(s); }

std::vector<std::string> values_of(const ORVLibEntry* entry, int id) {
    std::vector<std::string> out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a != nullptr; ++a)
        if ((*a)->attrId == id && (*a)->attrVals != nullptr)
            for (char** v = (*a)->attrVals; *v != nullptr; ++v) out.emplace_back(*v);
    return out;
}

class OfflineTest : public ::testing::Test {
protected:
    void SetUp() override {
        start_ = _memCnt;
        ld_ = orv::open_plain("127.0.0.1", 1);  // nothing listens there
        ASSERT_NE(ld_, nullptr);
    }
    void TearDown() override {
        orv::unbind(ld_);
        EXPECT_EQ(_memCnt, start_) << "library allocations not released";
    }
    int start_ = 0;
    LDAP* ld_ = nullptr;
};

TEST(DnEscapes, BackslashesGetTheFilterEscape) {
    // Mode 0: every backslash.
    EXPECT_EQ(take(dn_contains_backslash("uid=o\\,brien,ou=People", 0)),
              "uid=o\\5c,brien,ou=People");
    EXPECT_EQ(take(dn_contains_backslash("a\\\\b", 0)), "a\\5c\\5cb");
    EXPECT_EQ(take(dn_contains_backslash("cn=plain", 0)), "cn=plain");
    // Mode 1: only stray backslashes.
    EXPECT_EQ(take(dn_contains_backslash("dom\\user", 1)), "dom\\5cuser");
    EXPECT_EQ(take(dn_contains_backslash("a\\,b\\=c\\+d\\#e\\;f\\<g\\>h\\\"i", 1)),
              "a\\,b\\=c\\+d\\#e\\;f\\<g\\>h\\\"i");
    EXPECT_EQ(take(dn_contains_backslash("a\\\\b", 1)), "a\\\\b");
    EXPECT_EQ(take(dn_contains_backslash("end\\", 1)), "end\\5c");
    EXPECT_EQ(take(dn_contains_backslash("\\28x", 1)), "\\5c28x");
    EXPECT_EQ(dn_contains_backslash(nullptr, 0), nullptr);
}

TEST(StandaloneDns, UserAndGroupDnForms) {
    const std::string people = ORV_PEOPLE_SRCH_BASE;
    EXPECT_EQ(take(get_standalone_dn_from_uid("smith, jr")), "uid=smith\\, jr," + people);
    EXPECT_EQ(take(get_standalone_dn_from_uid("a=b+c#d;e\"f<g>h\\i")),
              "uid=a\\=b\\+c\\#d\\;e\\\"f\\<g\\>h\\\\i," + people);
    EXPECT_EQ(take(get_standalone_dn_from_uid("John Smith")), "uid=John Smith," + people);
    EXPECT_EQ(take(orvlib_get_user_dn("x")), "uid=x," + people);
    EXPECT_EQ(get_standalone_dn_from_uid(nullptr), nullptr);

    // The group form takes an already escaped cn.
    EXPECT_EQ(take(get_standalone_groupDN_from_cn("Sales\\, EMEA")),
              std::string("cn=Sales\\, EMEA,ou=Groups,") + ORV_GROUP_SRCH_BASE);
    EXPECT_EQ(get_standalone_groupDN_from_cn(nullptr), nullptr);
}

TEST_F(OfflineTest, EntryArrayGrowsPastFortyNineAttributesWithoutLosingAny) {
    ORVLibEntry* entry = orv::new_entry();
    ASSERT_NE(entry, nullptr);
    ORVLibAttribute** first_array = entry->orvlibEntryAttrData;
    std::vector<std::string> names;
    for (int i = 0; i < 49; ++i) {
        names.push_back("attr" + std::to_string(i));
        std::string value = "v" + std::to_string(i);
        char* vals[] = {&value[0], nullptr};
        ASSERT_TRUE(orv::append_attribute(entry, i + 1000, names.back().c_str(), vals));
    }
    EXPECT_EQ(entry->orvlibEntryAttrData, first_array) << "49 attributes fit the first array";
    EXPECT_EQ(entry->orvlibEntryAttrData[49], nullptr);

    for (int i = 49; i < 230; ++i) {
        names.push_back("attr" + std::to_string(i));
        std::string value = "v" + std::to_string(i);
        char* vals[] = {&value[0], nullptr};
        ASSERT_TRUE(orv::append_attribute(entry, i + 1000, names.back().c_str(), vals));
    }
    // The fill functions append after the last used slot of a grown array too.
    ASSERT_EQ(populate_local_attrs(ld_, &entry, "jsmith", "Smith", "id-1"), 0);
    ASSERT_EQ(populate_group_attrs_local(ld_, &entry, "Sales", "gid-1"), 0);

    ASSERT_EQ(orv::attribute_count(entry), 230 + 4 + 1);
    for (int i = 0; i < 230; ++i) {
        const ORVLibAttribute* a = entry->orvlibEntryAttrData[i];
        ASSERT_EQ(a->attrId, i + 1000);
        ASSERT_EQ(std::string(a->attrName), names[i]);
        ASSERT_EQ(std::string(a->attrVals[0]), "v" + std::to_string(i));
    }
    EXPECT_EQ(values_of(entry, 3), std::vector<std::string>{"jsmith"});
    EXPECT_EQ(values_of(entry, 11), (std::vector<std::string>{"id-1", "gid-1"}));
    orvlib_orvlibentry_free(entry);
}

TEST_F(OfflineTest, LocalAttributesOfMirroredUsersAndGroups) {
    ORVLibEntry* entry = orv::new_entry();
    ASSERT_EQ(populate_local_attrs(ld_, &entry, "jsmith", "Smith", "uuid-1"), 0);
    ASSERT_EQ(orv::attribute_count(entry), 4);
    const ORVLibAttribute* const* a = entry->orvlibEntryAttrData;
    EXPECT_STREQ(a[0]->attrName, "orvZORLAUserId");
    EXPECT_EQ(a[0]->attrId, 11);
    EXPECT_STREQ(a[1]->attrName, "sn");
    EXPECT_EQ(a[1]->attrId, 2);
    EXPECT_STREQ(a[2]->attrName, "uid");
    EXPECT_EQ(a[2]->attrId, 3);
    // Spelled differently from the table's "orvVELTRANUserName", so it has no id.
    EXPECT_STREQ(a[3]->attrName, "orvVeltranUserName");
    EXPECT_EQ(a[3]->attrId, getMappedAttrId("orvVeltranUserName"));
    EXPECT_STREQ(a[3]->attrVals[0], "jsmith");
    orvlib_orvlibentry_free(entry);

    // A logon value with a comma or a space gets no VELTRAN name.
    entry = orv::new_entry();
    ASSERT_EQ(populate_local_attrs(ld_, &entry, "Smith, John", "Smith", "u2"), 0);
    ASSERT_EQ(populate_local_attrs(ld_, &entry, "John Smith", "Smith", "u3"), 0);
    EXPECT_EQ(orv::attribute_count(entry), 6);
    EXPECT_EQ(values_of(entry, 3), (std::vector<std::string>{"Smith, John", "John Smith"}));
    orvlib_orvlibentry_free(entry);

    entry = orv::new_entry();
    ASSERT_EQ(populate_group_attrs_local(ld_, &entry, "Sales", "gid"), 0);
    ASSERT_EQ(orv::attribute_count(entry), 1);
    EXPECT_STREQ(entry->orvlibEntryAttrData[0]->attrName, "orvZORLAGroupId");
    EXPECT_EQ(entry->orvlibEntryAttrData[0]->attrId, 11);

    // Missing handle, entry or attribute array.
    EXPECT_EQ(populate_local_attrs(nullptr, &entry, "a", "b", "c"), 3009);
    EXPECT_EQ(populate_group_attrs_local(ld_, nullptr, "a", "b"), 3009);
    ORVLibEntry* none = nullptr;
    EXPECT_EQ(populate_local_attrs(ld_, &none, "a", "b", "c"), 3009);
    ORVLibEntry bare{nullptr};
    ORVLibEntry* bare_ptr = &bare;
    EXPECT_EQ(populate_group_attrs_local(ld_, &bare_ptr, "a", "b"), 3009);
    EXPECT_EQ(ldapErrCode, 3009);
    EXPECT_EQ(orv::attribute_count(entry), 1) << "failed calls add nothing";

    // Local group test by object class; no "nsRoleDN", no database lookup.
    char* classes[] = {cs("top"), cs("groupOfUniqueNames"), nullptr};
    orv::append_attribute(entry, 18, "objectClass", classes);
    EXPECT_EQ(is_group_local_group(entry), 0);
    char* more[] = {cs("MorvaneGroup"), nullptr};
    orv::append_attribute(entry, 18, "objectclass", more);
    EXPECT_EQ(is_group_local_group(entry), 1);
    EXPECT_EQ(is_group_local_group(nullptr), 0);
    EXPECT_EQ(getDatabaseAccessibleToUser(entry, ld_), nullptr);
    orvlib_orvlibentry_free(entry);
}

TEST_F(OfflineTest, ModifyStatusesBeforeAnythingIsSent) {
    char* vals[] = {cs("x"), nullptr};
    const std::string dn = std::string("uid=alice,") + ORV_PEOPLE_SRCH_BASE;

    EXPECT_EQ(orvlib_modify_ext_s(nullptr, dn.c_str(), 0, 4, vals), 3007);
    EXPECT_EQ(ldapErrCode, 3007);
    EXPECT_EQ(orvlib_modify_ext_s(ld_, dn.c_str(), 1, 3, vals), 3009);
    EXPECT_EQ(ldapErrCode, 3009);
    EXPECT_EQ(orvlib_modify_ext_s(ld_, nullptr, 1, 4, vals), 32);

    EXPECT_EQ(change_attribute_value_object(ld_, nullptr, 4, vals, LDAP_MOD_ADD), 32);
    EXPECT_EQ(change_attribute_value_object(ld_, dn.c_str(), 10, vals, LDAP_MOD_ADD), 3009)
        << "id 10 has no name to write";
    EXPECT_EQ(change_attribute_value_object(ld_, dn.c_str(), 4000000000UL, vals, LDAP_MOD_ADD), 3009);
    EXPECT_EQ(change_attribute_value_object(nullptr, dn.c_str(), 4, vals, LDAP_MOD_ADD), 3007);
    EXPECT_EQ(modify_appregistry_element(ld_, dn.c_str(), 4, vals, 7), 3009);
    EXPECT_EQ(modify_group_element(ld_, dn.c_str(), 4, vals, 9, 1), 3009);

    EXPECT_EQ(entry_dn_exists_in_orv(nullptr, dn.c_str(), nullptr), 3009);
    EXPECT_EQ(create_standalone_user(nullptr, "x", "y"), 3007);
    EXPECT_EQ(create_standalone_user(ld_, nullptr, "y"), 3009);
    EXPECT_EQ(create_standalone_group(ld_, nullptr, "cn=x", "id"), 3009);
    EXPECT_EQ(create_extended_user_object(ld_, nullptr, "sn", "cn=x", "id", nullptr, nullptr), 3009);
    EXPECT_EQ(does_user_exist_in_corporate(nullptr, nullptr, nullptr), 0);
    ORVLibEntry* entry = nullptr;
    EXPECT_EQ(group_dn_exists_in_tier2(ld_, "cn=x", &entry), 3009);
    EXPECT_EQ(entry_dn_exists_in_tier2(nullptr, "cn=x", &entry), 3009);
    EXPECT_EQ(populate_libentry_extended_attributes(ld_, nullptr, &entry), 3009);
    EXPECT_EQ(entry, nullptr);
}

TEST_F(OfflineTest, NullInputsNeverCrash) {
    ORVLibEntry* entry = nullptr;
    populate_orvlibentry_entry(nullptr, &entry, nullptr);
    populate_orvlibentry_entry(ld_, nullptr, nullptr);
    LDAPMessage* none = nullptr;
    populate_orvlibentry_entry(ld_, &entry, &none);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(ldapErrCode, 3009);
    check_and_populate_extended_information(ld_, nullptr, &entry, 5001);
    check_and_populate_extended_information(nullptr, &none, nullptr, 5002);

    EXPECT_EQ(getRolesOfUser(nullptr, "uid=a"), nullptr);
    EXPECT_EQ(getRolesOfUser(ld_, nullptr), nullptr);
    EXPECT_EQ(get_databaseId_from_role(nullptr, ld_), nullptr);
    EXPECT_EQ(getDNFromUid(nullptr, "alice", nullptr, nullptr), nullptr);
    EXPECT_EQ(getDNFromUid(ld_, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(getDNFromGroupCN(nullptr, "Admins", nullptr), nullptr);
    EXPECT_EQ(getDNFromGroupCN(ld_, nullptr, nullptr), nullptr);
    LDAPMessage* first = nullptr;
    LDAPMessage* res = nullptr;
    EXPECT_EQ(isGroupDN(nullptr, "cn=x", &first, &res), 0);
    EXPECT_EQ(isGroupDN(ld_, nullptr, &first, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(is_standalone_group(ld_, "x", nullptr), 0);
    EXPECT_EQ(searchForOtherMemberAttribute(nullptr, "cn=x", &res), 3009);

    // Nothing to check against without a corporate connection.
    LDAP* saved = corporate_admin_ld;
    corporate_admin_ld = nullptr;
    EXPECT_EQ(isValidMetaGroupMember("uid=a,dc=corp", 0), -1);
    EXPECT_EQ(isValidMetaGroupMember(nullptr, 1), -1);
    corporate_admin_ld = saved;

    char* logon = nullptr;
    char* sn = nullptr;
    get_user_attributes(nullptr, &logon, &sn);
    EXPECT_EQ(logon, nullptr);
    EXPECT_EQ(get_cn_from_group_in_corporate(nullptr), nullptr);
}

}  // namespace
