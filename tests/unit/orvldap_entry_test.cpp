// Attribute identifier table: names to ids, ids to names, and the
// external-relationship ids that names unknown to the general table get.

#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "orvldap.h"
#include "orvldap_utils.h"

namespace {

const int kUnknown = -1;  // all bits set

std::string upper(std::string text) {
    for (char& ch : text) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    return text;
}

// Text of a library string (or "<null>"), freed.
std::string take(char* p) {
    std::string text = p != nullptr ? p : "<null>";
    orvlib_memfree(p);
    return text;
}

class AttrTableTest : public ::testing::Test {
protected:
    void SetUp() override { mem_start_ = _memCnt; }
    void TearDown() override { EXPECT_EQ(_memCnt, mem_start_) << "a returned name was not freed"; }

private:
    int mem_start_ = 0;
};

struct Row {
    const char* name;
    int id;
    bool any_case;
};

// Rows of the general table that show each of its rules: any-case and exact
// names, names sharing an id, the first and the last rows.
const Row kGeneral[] = {
    {"cn", 1, true},
    {"givenName", 101, true},
    {"uid", 3, true},
    {"telephonenumber", 5, true},
    {"otherTelephone", 5, false},
    {"mail", 6, false},
    {"postalAddress", 48, false},
    {"streetAddress", 48, false},
    {"entrydn", 0, false},
    {"distinguishedName", 0, false},
    {"dn", 0, false},
    {"userAccountControl", 44, false},
    {"nsAccountlock", 54, false},
    {"orvZORLAUserId", 11, false},
    {"orvZORLAGroupId", 11, false},
    {"uniquemember", 10, false},
    {"member", 10, false},
    {"orvFullyQualifiedObjectId", 22, false},
    {"objectclass", 18, true},
    {"accessibleDatabases", 40, false},
    {"pwdlockout", 51, false},
    {"sAMAccountName", 38, true},
    {"objectsid", 73, true},
    {"orvRadius2FactorAuthenticationRequired", 64, true},
    {"pexZorlaGroupForUsers", 78, true},
    {"orvWindowsUserSystemName", 71, true},
};

// External-relationship names: every modifiable one (those can be named back
// from their id) and some that cannot.
const struct {
    const char* name;
    int id;
    bool modifiable;
} kRelationship[] = {
    {"pexEndId", 100, false},
    {"pexEndRuleType", 101, false},
    {"pexEndRuleValue", 102, true},
    {"pexEndDescription", 103, true},
    {"pexRelationshipTypeId", 104, false},
    {"orvExternalObjectURN", 108, false},
    {"orvExternalObjectContext", 109, true},
    {"orvExternalObjectDescription", 110, true},
    {"pexRelationshipMarkedForDelete", 114, true},
    {"pexExtObjectBRepId", 120, false},
    {"pexEndARuleValues", 121, true},
    {"pexEndBRuleValues", 122, true},
    {"pexProtocol", 123, false},
    {"orvPortNumber", 126, false},
};

TEST_F(AttrTableTest, NamesMapToIds) {
    // Several passes: answers remembered from earlier calls (names that
    // differ only in case, names that share a remembered slot) stay right.
    for (int pass = 0; pass < 3; ++pass) {
        for (const Row& row : kGeneral) {
            EXPECT_EQ(getMappedAttrId(row.name), row.id) << row.name;
            const std::string shouted = upper(row.name);
            // Exactly compared names fall through to the relationship table,
            // which knows none of them.
            EXPECT_EQ(getMappedAttrId(shouted.c_str()), row.any_case ? row.id : kUnknown)
                << shouted;
        }
    }

    EXPECT_EQ(getMappedAttrId("TELEPHONENUMBER"), 5);
    EXPECT_EQ(getMappedAttrId("telephoneNumber"), 5);
    EXPECT_EQ(getMappedAttrId("Mail"), kUnknown);
    EXPECT_EQ(getMappedAttrId("DN"), kUnknown);
    EXPECT_EQ(getMappedAttrId("objectClass"), 18);
    EXPECT_EQ(getMappedAttrId("samaccountname"), 38);
    EXPECT_EQ(getMappedAttrId("cn;binary"), kUnknown);
    EXPECT_EQ(getMappedAttrId(""), kUnknown);
    EXPECT_EQ(getMappedAttrId(nullptr), 3009);
}

TEST_F(AttrTableTest, UnknownNamesTakeRelationshipIds) {
    for (const auto& row : kRelationship) {
        EXPECT_EQ(get_mapped_er_attribute_id(row.name), row.id) << row.name;
        EXPECT_EQ(get_mapped_er_attribute_id(upper(row.name).c_str()), row.id) << row.name;
        EXPECT_EQ(getMappedAttrId(row.name), row.id) << row.name;
    }
    // The general table wins where both know a name or an id.
    EXPECT_EQ(getMappedAttrId("givenName"), 101);
    EXPECT_EQ(getMappedAttrId("pexEndRuleType"), 101);
    EXPECT_EQ(get_mapped_er_attribute_id("objectclass"), kUnknown);
    EXPECT_EQ(get_mapped_er_attribute_id("cn"), kUnknown);
    EXPECT_EQ(get_mapped_er_attribute_id("pexEndIdC"), kUnknown);
    EXPECT_EQ(get_mapped_er_attribute_id(""), kUnknown);
    EXPECT_EQ(get_mapped_er_attribute_id(nullptr), kUnknown);
}

TEST_F(AttrTableTest, IdsMapToNames) {
    const struct { int id; const char* name; } named[] = {
        {0, "entrydn"}, {1, "cn"}, {2, "sn"}, {5, "telephonenumber"}, {6, "mail"},
        {9, "orvZORLAGroupId"}, {11, "orvZORLAUserId"}, {48, "postalAddress"},
        {18, "objectclass"}, {22, "orvFullyQualifiedObjectId"}, {70, "orvWindowsUserSID"},
        {71, "orvWindowsUserSystemName"}, {72, "orvWindowsUserDomainName"},
        {102, "pexEndRuleValue"}, {110, "orvExternalObjectDescription"},
        {122, "pexEndBRuleValues"},
    };
    for (const auto& row : named) EXPECT_EQ(take(getAttrNameFromID(row.id)), row.name) << row.id;

    const int unnamed[] = {3,   10,  38,  40,  44,  54,  64,  65,  66,  67,  68,
                                     69,  73,  74,  75,  76,  77,  78,  101, 23,  100, 104,
                                     123, 126, 127, 128, 3009, kUnknown};
    for (int id : unnamed) EXPECT_EQ(getAttrNameFromID(id), nullptr) << id;
}

TEST_F(AttrTableTest, NamesGivenForIdsMapBack) {
    // Every name handed out for an id maps back to that id, except the group
    // application id, which is read under the user application id.
    std::set<int> named;
    for (int id = 0; id <= 200; ++id) {
        char* name = getAttrNameFromID(id);
        if (name == nullptr) continue;
        named.insert(id);
        EXPECT_EQ(getMappedAttrId(name), id == 9 ? 11 : id) << name;
        orvlib_memfree(name);
    }
    const std::set<int> expected = {0,  1,  2,  4,  5,  6,  7,  8,  9,  11, 12, 13,
                                              14, 15, 16, 17, 18, 19, 20, 21, 22, 30, 31, 32,
                                              41, 42, 43, 45, 46, 47, 48, 49, 50, 51, 52, 53,
                                              70, 71, 72, 102, 103, 109, 110, 114, 121, 122};
    EXPECT_EQ(named, expected);
}

TEST_F(AttrTableTest, OnlyModifiableRelationshipIdsHaveNames) {
    for (const auto& row : kRelationship) {
        char* name = get_external_relationship_attribute_name_from_id(row.id);
        if (row.modifiable) EXPECT_EQ(take(name), row.name) << row.id;
        else EXPECT_EQ(name, nullptr) << row.id;
    }
    for (int id : {0, 1, 18, 99, 127, 128, kUnknown})
        EXPECT_EQ(get_external_relationship_attribute_name_from_id(id), nullptr) << id;
}

}  // namespace
