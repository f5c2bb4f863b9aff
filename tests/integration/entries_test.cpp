// Entry population, the directory helpers and orvlib_modify_ext_s against the
// ORV test directory (standalone scenario).  Every test checks that the
// library's allocation counter comes back to where it started.
//
// Data added on top of the scenario (see kExtraLdif): a user with more
// attributes than an entry's first attribute array holds, roles that list
// users with database ids, a user whose uid holds a comma, a user for the
// modify tests, and local counterparts of a corporate user and group.

#include <gtest/gtest.h>

#include <ldap.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));

orv::testbed::Directory& directory() { return orv::testbed::Environment::directory(); }
std::string suffix() { return directory().suffix(); }
std::string people(const std::string& rdn) { return rdn + ",ou=People," + suffix(); }
std::string roles(const std::string& rdn) { return rdn + ",ou=roles," + suffix(); }

const char* const kCorpUser = "uid=jsmith,ou=People,dc=corp,dc=test";
const char* const kCorpGroup = "cn=Engineering,ou=Groups,dc=corp,dc=test";

// Attribute types of the wide user besides objectClass: more than 49.
const std::vector<std::pair<std::string, std::string>> kWideAttrs = {
    {"uid", "wide"}, {"cn", "Wide Person"}, {"sn", "Person"}, {"givenName", "Wide"},
    {"mail", "wide@orv.test"}, {"telephoneNumber", "+1 555 0101"},
    {"description", "many attributes"}, {"title", "Tester"}, {"street", "1 Main St"},
    {"postOfficeBox", "PO 1"}, {"postalCode", "12345"}, {"postalAddress", "1 Main St$Town"},
    {"physicalDeliveryOfficeName", "HQ"}, {"ou", "QA"}, {"st", "State"}, {"l", "Town"},
    {"facsimileTelephoneNumber", "+1 555 0102"}, {"businessCategory", "Testing"},
    {"carLicense", "ORV-1"}, {"departmentNumber", "42"}, {"displayName", "Wide P."},
    {"employeeNumber", "1001"}, {"employeeType", "staff"}, {"homePhone", "+1 555 0103"},
    {"homePostalAddress", "2 Side St$Town"}, {"initials", "WP"},
    {"labeledURI", "http://orv.test/wide"}, {"mobile", "+1 555 0104"}, {"o", "ORV"},
    {"pager", "+1 555 0105"}, {"roomNumber", "101"}, {"preferredLanguage", "en"},
    {"destinationIndicator", "AA"}, {"internationaliSDNNumber", "12345"},
    {"x121Address", "12345"}, {"registeredAddress", "3 Reg St$Town"},
    {"orvZORLAUserAttribute", "attr"}, {"orvZORLAUserId", "wide-user-id"},
    {"orvOSNTUserName", "wide"}, {"orvOSPosixUserName", "wide"}, {"orvVELTRANUserName", "wide"},
    {"orvUserState", "active"}, {"orvChangePassword", "on"}, {"orvPasswordMustChange", "off"},
    {"orvRadius2FactorAuthenticationRequired", "0"}, {"orvFullyQualifiedObjectId", "wide-fq"},
    {"orvRadiusUserName", "wide"}, {"orvUserMayUseCmdLinePwd", "1"},
    {"seeAlso", "cn=Developers,ou=Groups,@S@"}, {"manager", "uid=alice,ou=People,@S@"},
    {"secretary", "uid=bob,ou=People,@S@"},
};

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::string extra_ldif() {
    std::string ldif;
    ldif += "dn: uid=wide,ou=People,@S@\nchangetype: add\nobjectClass: top\nobjectClass: person\n"
            "objectClass: organizationalPerson\nobjectClass: inetOrgPerson\n"
            "objectClass: morvanePerson\nobjectClass: extensibleObject\n";
    for (const auto& [name, value] : kWideAttrs) ldif += name + ": " + value + "\n";
    ldif += R"(
dn: uid=smith\, jr,ou=People,@S@
changetype: add
objectClass: top
objectClass: person
objectClass: organizationalPerson
objectClass: inetOrgPerson
objectClass: morvanePerson
uid: smith, jr
cn: Smith Junior
sn: Smith

dn: uid=moduser,ou=People,@S@
changetype: add
objectClass: top
objectClass: person
objectClass: organizationalPerson
objectClass: inetOrgPerson
objectClass: morvanePerson
uid: moduser
cn: Mod User
sn: User
description: original

dn: uid=jsmith,ou=People,@S@
changetype: add
objectClass: top
objectClass: person
objectClass: organizationalPerson
objectClass: inetOrgPerson
objectClass: morvanePerson
uid: jsmith
cn: jsmith
sn: Smith
orvCorporateDN: uid=jsmith,ou=People,dc=corp,dc=test
orvZORLAUserId: jsmith-local-id
orvUserState: ON

dn: cn=Engineering,ou=Groups,@S@
changetype: add
objectClass: top
objectClass: groupOfUniqueNames
objectClass: morvaneGroup
cn: Engineering
uniqueMember: uid=dummyMemberDN,ou=people,@S@
orvZORLAGroupId: engineering-local-id
orvCorporateDN: cn=Engineering,ou=Groups,dc=corp,dc=test

dn: cn=Outside,ou=roles,@S@
changetype: add
objectClass: top
objectClass: groupOfNames
cn: Outside
member: uid=carol,ou=People,@S@

dn: cn=Wide DB One,ou=roles,@S@
changetype: add
objectClass: top
objectClass: accessRole
objectClass: morvaneRole
cn: Wide DB One
orvZORLADatabaseId: db-one
member: uid=wide,ou=People,@S@

dn: cn=Wide DB Two,ou=roles,@S@
changetype: add
objectClass: top
objectClass: accessRole
objectClass: morvaneRole
cn: Wide DB Two
orvZORLADatabaseId: db-two
member: uid=wide,ou=People,@S@
member: uid=smith\, jr,ou=People,@S@
member: uid=jsmith,ou=People,dc=corp,dc=test

dn: cn=Wide Plain Role,ou=roles,@S@
changetype: add
objectClass: top
objectClass: morvaneRole
cn: Wide Plain Role
member: uid=wide,ou=People,@S@
)";
    return replace_all(ldif, "@S@", suffix());
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Values of every attribute with this id, in entry order.
std::vector<std::string> values(const ORVLibEntry* entry, int id) {
    std::vector<std::string> out;
    if (entry == nullptr || entry->orvlibEntryAttrData == nullptr) return out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a != nullptr; ++a)
        if ((*a)->attrId == id && (*a)->attrVals != nullptr)
            for (char** v = (*a)->attrVals; *v != nullptr; ++v) out.emplace_back(*v);
    return out;
}

const ORVLibAttribute* named(const ORVLibEntry* entry, const std::string& name) {
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a != nullptr; ++a)
        if ((*a)->attrName != nullptr && lower((*a)->attrName) == lower(name)) return *a;
    return nullptr;
}

std::set<std::string> as_set(const std::vector<std::string>& v) {
    return std::set<std::string>(v.begin(), v.end());
}

std::set<std::string> lowered_set(const std::vector<std::string>& v) {
    std::set<std::string> out;
    for (const auto& s : v) out.insert(lower(s));
    return out;
}

// Values of one attribute as the server has them now.
std::vector<std::string> server_values(const std::string& dn, const char* attr) {
    const char* attrs[] = {attr, nullptr};
    LDAPMessage* res = nullptr;
    std::vector<std::string> out;
    if (ldap_search_ext_s(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                          const_cast<char**>(attrs), 0, nullptr, nullptr, nullptr, 0,
                          &res) == LDAP_SUCCESS) {
        LDAPMessage* e = ldap_first_entry(orv_ld, res);
        berval** vals = e != nullptr ? ldap_get_values_len(orv_ld, e, attr) : nullptr;
        for (berval** v = vals; v != nullptr && *v != nullptr; ++v)
            out.emplace_back((*v)->bv_val, (*v)->bv_len);
        ber_bvecfree(vals);
    }
    ldap_msgfree(res);
    return out;
}

bool server_has(const std::string& dn) {
    LDAPMessage* res = nullptr;
    const int rc = ldap_search_ext_s(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                     nullptr, 0, nullptr, nullptr, nullptr, 0, &res);
    ldap_msgfree(res);
    return rc == LDAP_SUCCESS;
}

std::string take(char* p) {
    std::string text = p != nullptr ? p : "<null>";
    orvlib_memfree(p);
    return text;
}

char* cs(const char* s) { return const_cast<char*>(s); }

class EntriesTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        session_ = new orvtest::Session(directory());
        session_status_ = session_->status();
        session_ok_ = session_->ld() != nullptr;
        if (session_ok_) directory().apply_ldif(extra_ldif());
    }
    static void TearDownTestSuite() {
        delete session_;
        session_ = nullptr;
    }

    void SetUp() override {
        ASSERT_TRUE(session_ok_) << "no session with the test directory, status " << session_status_;
        ASSERT_EQ(ORV_OPERATION_MODE, 0) << "the standalone scenario runs in mode 0";
        mem_start_ = _memCnt;
        _current_search_type = ORV_SEARCH_PEOPLE;
        ORV_WIN_USER_SEARCH = 0;
        _isFirstEntry = 0;
    }
    void TearDown() override {
        ORV_OPERATION_MODE = 0;
        EXPECT_EQ(_memCnt, mem_start_) << "library allocations not released";
    }

    // Fills a new entry from the server entry at dn (the people attribute
    // list unless attrs is given).
    static ORVLibEntry* fill(const std::string& dn, const char* const* attrs = ORVLIB_USER_ATTR_LIST) {
        LDAPMessage* res = nullptr;
        const int rc = ldap_search_ext_s(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                         const_cast<char**>(attrs), 0, nullptr, nullptr, nullptr,
                                         0, &res);
        EXPECT_EQ(rc, LDAP_SUCCESS) << dn;
        ORVLibEntry* entry = nullptr;
        LDAPMessage* e = ldap_first_entry(orv_ld, res);
        if (e != nullptr) populate_orvlibentry_entry(orv_ld, &entry, &e);
        ldap_msgfree(res);
        return entry;
    }

    int mem_start_ = 0;
    static orvtest::Session* session_;
    static bool session_ok_;
    static int session_status_;
};
orvtest::Session* EntriesTest::session_ = nullptr;
bool EntriesTest::session_ok_ = false;
int EntriesTest::session_status_ = 0;

// The seeded role that gives alice and bob the database "zorladb".
std::string zorladb_role_and_id(std::string* id) {
    LDAPMessage* res = nullptr;
    const char* attrs[] = {"orvZORLADatabaseId", nullptr};
    const std::string base = "ou=roles," + suffix();
    std::string dn;
    if (ldap_search_ext_s(orv_ld, base.c_str(), LDAP_SCOPE_ONELEVEL,
                          "(&(objectClass=accessRole)(cn=zorladb*))", const_cast<char**>(attrs), 0,
                          nullptr, nullptr, nullptr, 0, &res) == LDAP_SUCCESS) {
        LDAPMessage* e = ldap_first_entry(orv_ld, res);
        if (e != nullptr) {
            char* d = ldap_get_dn(orv_ld, e);
            dn = d;
            ldap_memfree(d);
            berval** vals = ldap_get_values_len(orv_ld, e, "orvZORLADatabaseId");
            if (vals != nullptr && vals[0] != nullptr) id->assign(vals[0]->bv_val, vals[0]->bv_len);
            ber_bvecfree(vals);
        }
    }
    ldap_msgfree(res);
    return dn;
}

TEST_F(EntriesTest, PeopleEntriesMapIdsAndCarryRolesAndDatabases) {
    std::string db_id;
    const std::string zorla_role = zorladb_role_and_id(&db_id);
    ASSERT_FALSE(zorla_role.empty());
    ASSERT_FALSE(db_id.empty());

    ORVLibEntry* alice = fill(people("uid=alice"));
    ASSERT_NE(alice, nullptr);
    EXPECT_EQ(values(alice, 3), std::vector<std::string>{"alice"});
    EXPECT_EQ(values(alice, 1), std::vector<std::string>{"Alice Archer"});
    EXPECT_EQ(values(alice, 2), std::vector<std::string>{"Archer"});
    EXPECT_EQ(values(alice, 101), std::vector<std::string>{"Alice"});
    EXPECT_EQ(values(alice, 6), std::vector<std::string>{"alice@orv.test"});
    EXPECT_EQ(values(alice, 5), std::vector<std::string>{"+1 555 0100"});
    EXPECT_EQ(values(alice, 17), std::vector<std::string>{"active"});
    EXPECT_EQ(lowered_set(values(alice, 18)),
              (std::set<std::string>{"top", "person", "organizationalperson", "inetorgperson",
                                     "morvaneperson"}));
    EXPECT_EQ(values(alice, 11).size(), 1u);
    EXPECT_EQ(values(alice, 22), values(alice, 11));
    // Names keep the server's spelling; ids follow the table.
    const ORVLibAttribute* phone = named(alice, "telephoneNumber");
    ASSERT_NE(phone, nullptr);
    EXPECT_EQ(phone->attrId, 5);
    for (ORVLibAttribute** a = alice->orvlibEntryAttrData; *a != nullptr; ++a)
        EXPECT_EQ((*a)->attrId, getMappedAttrId((*a)->attrName)) << (*a)->attrName;
    // The DN is there exactly once, under id 0.
    ASSERT_EQ(values(alice, 0).size(), 1u);
    EXPECT_EQ(lower(values(alice, 0)[0]), lower(people("uid=alice")));
    // Roles that list her, and the database of the access role.
    EXPECT_EQ(lowered_set(values(alice, 19)), (std::set<std::string>{lower(zorla_role)}));
    EXPECT_EQ(values(alice, 40), std::vector<std::string>{db_id});
    EXPECT_STREQ(named(alice, "accessibleDatabases")->attrName, "accessibleDatabases");
    orvlib_orvlibentry_free(alice);

    // A role without a database id gives the role only.
    ORVLibEntry* dave = fill(people("uid=dave"));
    EXPECT_EQ(lowered_set(values(dave, 19)),
              (std::set<std::string>{lower(roles("cn=Inactive User"))}));
    EXPECT_TRUE(values(dave, 40).empty());
    orvlib_orvlibentry_free(dave);

    // In no role: neither attribute.
    ORVLibEntry* carol = fill(people("uid=carol"));
    EXPECT_TRUE(values(carol, 19).empty());
    EXPECT_TRUE(values(carol, 40).empty());
    EXPECT_EQ(named(carol, "nsRoleDN"), nullptr);
    orvlib_orvlibentry_free(carol);

    // Roles are looked up for people and group-member searches only.
    _current_search_type = ORV_SEARCH_GROUPS;
    alice = fill(people("uid=alice"));
    EXPECT_TRUE(values(alice, 19).empty());
    EXPECT_TRUE(values(alice, 40).empty());
    orvlib_orvlibentry_free(alice);
    _current_search_type = ORV_SEARCH_GROUP_MEMBERS;
    alice = fill(people("uid=alice"));
    EXPECT_EQ(values(alice, 40), std::vector<std::string>{db_id});
    orvlib_orvlibentry_free(alice);
}

TEST_F(EntriesTest, DnAttributeIsAddedOnlyWhenTheServerSendsNone) {
    const char* cn_only[] = {"cn", nullptr};
    ORVLibEntry* entry = fill(people("uid=bob"), cn_only);
    ASSERT_NE(entry, nullptr);
    const ORVLibAttribute* dn = named(entry, "dn");
    ASSERT_NE(dn, nullptr);
    EXPECT_EQ(dn->attrId, 0);
    EXPECT_EQ(lower(dn->attrVals[0]), lower(people("uid=bob")));
    ASSERT_EQ(dn->attrVals[1], nullptr);
    orvlib_orvlibentry_free(entry);

    const char* with_entrydn[] = {"cn", "entrydn", nullptr};
    entry = fill(people("uid=bob"), with_entrydn);
    EXPECT_EQ(named(entry, "dn"), nullptr);
    EXPECT_EQ(values(entry, 0).size(), 1u) << "the server's entrydn stands for the DN";
    orvlib_orvlibentry_free(entry);

    // Group entries: ids of the group attribute list.
    _current_search_type = ORV_SEARCH_GROUPS;
    entry = fill("cn=Developers,ou=Groups," + suffix(), ORVLIB_GROUP_ATTR_LIST);
    EXPECT_EQ(values(entry, 1), std::vector<std::string>{"Developers"});
    EXPECT_EQ(values(entry, 4), std::vector<std::string>{"Software developers"});
    EXPECT_EQ(lowered_set(values(entry, 10)),
              (std::set<std::string>{lower(people("uid=alice")), lower(people("uid=bob"))}));
    EXPECT_EQ(values(entry, 11).size(), 1u) << "orvZORLAGroupId is reported under 11";
    EXPECT_EQ(is_group_local_group(entry), 1);
    orvlib_orvlibentry_free(entry);
}

TEST_F(EntriesTest, EntryWithMoreThanFortyNineAttributesIsFilledCompletely) {
    ORVLibEntry* entry = fill(people("uid=wide"), nullptr);  // all user attributes
    ASSERT_NE(entry, nullptr);
    const int count = orv::attribute_count(entry);
    // objectClass + the attributes above + dn + nsRoleDN + accessibleDatabases
    EXPECT_EQ(count, 1 + static_cast<int>(kWideAttrs.size()) + 3);
    EXPECT_GT(count, 49);
    for (const auto& [name, value] : kWideAttrs) {
        const ORVLibAttribute* a = named(entry, name);
        ASSERT_NE(a, nullptr) << name;
        EXPECT_EQ(a->attrId, getMappedAttrId(a->attrName)) << name;
        EXPECT_EQ(lower(a->attrVals[0]), lower(replace_all(value, "@S@", suffix()))) << name;
    }
    // Computed attributes come after the server's, even past the first 49.
    EXPECT_EQ(lowered_set(values(entry, 19)),
              (std::set<std::string>{lower(roles("cn=Wide DB One")), lower(roles("cn=Wide DB Two")),
                                     lower(roles("cn=Wide Plain Role"))}));
    EXPECT_EQ(as_set(values(entry, 40)), (std::set<std::string>{"db-one", "db-two"}));
    EXPECT_EQ(values(entry, 40).size(), 2u);
    EXPECT_EQ(std::string(entry->orvlibEntryAttrData[count - 1]->attrName), "accessibleDatabases");

    // A second fill of the same entry appends after what is there.
    LDAPMessage* res = nullptr;
    const char* cn_only[] = {"cn", nullptr};
    ASSERT_EQ(ldap_search_ext_s(orv_ld, people("uid=carol").c_str(), LDAP_SCOPE_BASE,
                                "(objectClass=*)", const_cast<char**>(cn_only), 0, nullptr, nullptr,
                                nullptr, 0, &res),
              LDAP_SUCCESS);
    LDAPMessage* e = ldap_first_entry(orv_ld, res);
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    ldap_msgfree(res);
    // cn, no second DN, carol's roles (none), and the databases of the roles
    // the entry holds once more.
    EXPECT_EQ(orv::attribute_count(entry), count + 2);
    EXPECT_EQ(values(entry, 1), (std::vector<std::string>{"Wide Person", "Carol Carter"}));
    EXPECT_EQ(values(entry, 0).size(), 1u);
    EXPECT_EQ(values(entry, 40).size(), 4u);
    orvlib_orvlibentry_free(entry);
}

TEST_F(EntriesTest, RolesAreFoundForDnsWithEscapedCharacters) {
    char** found = getRolesOfUser(orv_ld, people("uid=smith\\, jr").c_str());
    ASSERT_NE(found, nullptr);
    ASSERT_NE(found[0], nullptr);
    EXPECT_EQ(lower(found[0]), lower(roles("cn=Wide DB Two")));
    EXPECT_EQ(found[1], nullptr);
    orvlib_free_values(found);

    ORVLibEntry* entry = fill(people("uid=smith\\, jr"));
    EXPECT_EQ(values(entry, 40), std::vector<std::string>{"db-two"});
    EXPECT_EQ(values(entry, 3), std::vector<std::string>{"smith, jr"});
    orvlib_orvlibentry_free(entry);

    EXPECT_EQ(getRolesOfUser(orv_ld, people("uid=carol").c_str()), nullptr);
    EXPECT_EQ(getRolesOfUser(orv_ld, "not a dn ((("), nullptr);
}

TEST_F(EntriesTest, WindowsLookupKeepsTheApplicationIdOutOfTheFirstEntry) {
    const std::vector<std::string> expected = server_values(people("uid=alice"), "orvZORLAUserId");
    ASSERT_EQ(expected.size(), 1u);
    ORV_WIN_USER_SEARCH = 1;
    _isFirstEntry = 1;
    ORVLibEntry* entry = fill(people("uid=alice"));
    EXPECT_TRUE(values(entry, 11).empty());
    ASSERT_NE(_UUID, nullptr);
    EXPECT_EQ(std::string(_UUID[0]), expected[0]);
    EXPECT_EQ(_UUID[1], nullptr);
    EXPECT_EQ(values(entry, 3), std::vector<std::string>{"alice"});
    orvlib_orvlibentry_free(entry);
    orvlib_free_values(_UUID);
    _UUID = nullptr;

    // Not the first entry: the id stays in the entry.
    _isFirstEntry = 0;
    entry = fill(people("uid=alice"));
    EXPECT_EQ(values(entry, 11), expected);
    EXPECT_EQ(_UUID, nullptr);
    orvlib_orvlibentry_free(entry);
}

TEST_F(EntriesTest, MirroredCorporateUsersAndGroupsAreFoundInTheLocalDirectory) {
    ORVLibEntry* entry = orv::new_entry();
    ASSERT_EQ(entry_dn_exists_in_tier2(orv_ld, kCorpUser, &entry), 1);
    EXPECT_EQ(values(entry, 11), std::vector<std::string>{"jsmith-local-id"});
    EXPECT_EQ(values(entry, 13), std::vector<std::string>{kCorpUser});
    EXPECT_TRUE(values(entry, 3).empty()) << "the extended list leaves out uid";
    EXPECT_EQ(lowered_set(values(entry, 19)),
              (std::set<std::string>{lower(roles("cn=Wide DB Two"))}));
    EXPECT_EQ(values(entry, 40), std::vector<std::string>{"db-two"});
    const int filled = orv::attribute_count(entry);
    EXPECT_EQ(entry_dn_exists_in_tier2(orv_ld, "uid=nobody,ou=People,dc=corp,dc=test", &entry), 0);
    EXPECT_EQ(orv::attribute_count(entry), filled) << "nothing added when not found";
    orvlib_orvlibentry_free(entry);

    entry = orv::new_entry();
    ASSERT_EQ(populate_libentry_extended_attributes(orv_ld, kCorpUser, &entry), 0);
    EXPECT_EQ(values(entry, 3), std::vector<std::string>{"jsmith"});
    EXPECT_EQ(values(entry, 17), std::vector<std::string>{"ON"});
    EXPECT_EQ(populate_libentry_extended_attributes(orv_ld, "uid=nobody,dc=corp,dc=test", &entry), 0);
    orvlib_orvlibentry_free(entry);

    entry = orv::new_entry();
    ASSERT_EQ(group_dn_exists_in_tier2(orv_ld, kCorpGroup, &entry), 1);
    EXPECT_EQ(values(entry, 11), std::vector<std::string>{"engineering-local-id"});
    EXPECT_EQ(values(entry, 1), std::vector<std::string>{"Engineering"});
    EXPECT_EQ(group_dn_exists_in_tier2(orv_ld, "cn=Nope,ou=Groups,dc=corp,dc=test", &entry), 0);
    orvlib_orvlibentry_free(entry);

    // entry_dn_exists_in_orv: a base lookup in mode 0, a corporate-DN lookup in mode 1.
    char* local = nullptr;
    EXPECT_EQ(entry_dn_exists_in_orv(orv_ld, people("uid=bob").c_str(), &local), 1);
    EXPECT_EQ(lower(take(local)), lower(people("uid=bob")));
    local = nullptr;
    // A DN that is not there does not exist (0), it is no failure.
    EXPECT_EQ(entry_dn_exists_in_orv(orv_ld, people("uid=ghost").c_str(), &local), 0);
    EXPECT_EQ(local, nullptr);
    ORV_OPERATION_MODE = 1;
    EXPECT_EQ(entry_dn_exists_in_orv(orv_ld, kCorpUser, &local), 1);
    ORV_OPERATION_MODE = 0;
    EXPECT_EQ(lower(take(local)), lower(people("uid=jsmith")));
}

// The corporate branches, with entries of the test directory standing in for
// corporate ones (the corporate server itself is not needed to read them).
TEST_F(EntriesTest, CorporateEntriesGetTheirLocalCounterparts) {
    ORV_OPERATION_MODE = 1;
    const std::string carol = people("uid=carol");
    LDAPMessage* res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(orv_ld, carol.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                const_cast<char**>(ORVLIB_USER_ATTR_LIST), 0, nullptr, nullptr,
                                nullptr, 0, &res),
              LDAP_SUCCESS);
    LDAPMessage* e = ldap_first_entry(orv_ld, res);
    ORVLibEntry* entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    const int before = orv::attribute_count(entry);
    // No counterpart yet: one is made from the logon value (cn without a
    // partition) and the new id is appended.
    check_and_populate_extended_information(orv_ld, &e, &entry, ORV_SEARCH_PEOPLE);
    const std::string local = people("uid=Carol Carter");
    const std::vector<std::string> ids = server_values(local, "orvZORLAUserId");
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_EQ(server_values(local, "orvFullyQualifiedObjectId"), ids);
    EXPECT_EQ(server_values(local, "orvCorporateDN"), std::vector<std::string>{carol});
    EXPECT_EQ(server_values(local, "orvUserState"), std::vector<std::string>{"ON"});
    EXPECT_EQ(server_values(local, "mail"), std::vector<std::string>{"carol@orv.test"});
    EXPECT_EQ(orv::attribute_count(entry), before + 3) << "id, sn and uid; no VELTRAN name";
    EXPECT_EQ(values(entry, 11).back(), ids[0]);
    EXPECT_EQ(values(entry, 3).back(), "Carol Carter");
    orvlib_orvlibentry_free(entry);

    // Found: the mirrored attributes are appended and a changed state is
    // written back.
    directory().apply_ldif("dn: " + local + "\nchangetype: modify\nreplace: orvUserState\n"
                           "orvUserState: OFF\n");
    entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    check_and_populate_extended_information(orv_ld, &e, &entry, ORV_SEARCH_PEOPLE);
    EXPECT_EQ(values(entry, 11).size(), 2u) << "carol's own id and the counterpart's";
    EXPECT_EQ(values(entry, 17), (std::vector<std::string>{"active", "OFF"}));
    EXPECT_EQ(server_values(local, "orvUserState"), std::vector<std::string>{"ON"});
    orvlib_orvlibentry_free(entry);

    // Without automatic ids only existing counterparts are read.
    orvlib_set_user_uuid_generation_flag(0);
    entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    check_and_populate_extended_information(orv_ld, &e, &entry, ORV_SEARCH_GROUP_MEMBERS);
    EXPECT_EQ(values(entry, 3), (std::vector<std::string>{"carol", "Carol Carter"}));
    orvlib_set_user_uuid_generation_flag(1);
    orvlib_orvlibentry_free(entry);
    ldap_msgfree(res);

    // A corporate group gets a standalone group once.
    const std::string outside = roles("cn=Outside");
    ASSERT_EQ(ldap_search_ext_s(orv_ld, outside.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                const_cast<char**>(ORVLIB_GROUP_ATTR_LIST), 0, nullptr, nullptr,
                                nullptr, 0, &res),
              LDAP_SUCCESS);
    e = ldap_first_entry(orv_ld, res);
    _current_search_type = ORV_SEARCH_GROUPS;
    entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    check_and_populate_extended_information(orv_ld, &e, &entry, ORV_SEARCH_GROUPS);
    const std::string standalone = "cn=Outside,ou=Groups," + suffix();
    const std::vector<std::string> group_ids = server_values(standalone, "orvZORLAGroupId");
    ASSERT_EQ(group_ids.size(), 1u);
    EXPECT_EQ(server_values(standalone, "orvCorporateDN"), std::vector<std::string>{outside});
    EXPECT_EQ(values(entry, 11), group_ids);
    orvlib_orvlibentry_free(entry);
    entry = nullptr;
    populate_orvlibentry_entry(orv_ld, &entry, &e);
    check_and_populate_extended_information(orv_ld, &e, &entry, ORV_SEARCH_USER_GROUPS);
    EXPECT_EQ(values(entry, 11), group_ids) << "found, not made again";
    EXPECT_EQ(values(entry, 1), (std::vector<std::string>{"Outside", "Outside"}));
    orvlib_orvlibentry_free(entry);
    ldap_msgfree(res);
}

TEST_F(EntriesTest, StandaloneObjectsAreCreatedWithTheirAttributes) {
    ASSERT_EQ(create_extended_user_object(orv_ld, "doe, jane", "Doe", "uid=jdoe,dc=corp,dc=test",
                                          "jdoe-id", nullptr, "ON"),
              0);
    const std::string jane = people("uid=doe\\, jane");
    EXPECT_EQ(server_values(jane, "orvCorporateDN"),
              std::vector<std::string>{"uid=jdoe,dc=corp,dc=test"});
    EXPECT_EQ(server_values(jane, "orvZORLAUserId"), std::vector<std::string>{"jdoe-id"});
    EXPECT_EQ(server_values(jane, "orvUserState"), std::vector<std::string>{"ON"});
    EXPECT_TRUE(server_values(jane, "orvVELTRANUserName").empty());
    EXPECT_TRUE(server_values(jane, "mail").empty());
    EXPECT_EQ(create_extended_user_object(orv_ld, "doe, jane", "Doe", "x", "y", nullptr, nullptr),
              LDAP_ALREADY_EXISTS);
    EXPECT_EQ(ldapErrCode, LDAP_ALREADY_EXISTS);

    ASSERT_EQ(create_extended_user_object(orv_ld, "rroe", "Roe", "uid=rroe,dc=corp,dc=test",
                                          "rroe-id", "rroe@corp.test", nullptr),
              0);
    EXPECT_EQ(server_values(people("uid=rroe"), "orvVELTRANUserName"),
              std::vector<std::string>{"rroe"});
    EXPECT_EQ(server_values(people("uid=rroe"), "mail"), std::vector<std::string>{"rroe@corp.test"});

    ASSERT_EQ(create_standalone_user(orv_ld, "solo user", "Solo"), 0);
    EXPECT_EQ(lowered_set(server_values(people("uid=solo user"), "objectClass")),
              (std::set<std::string>{"top", "person", "organizationalperson", "inetorgperson",
                                     "morvaneperson"}));
    EXPECT_EQ(server_values(people("uid=solo user"), "cn"), std::vector<std::string>{"solo user"});

    ASSERT_EQ(create_standalone_group(orv_ld, "Sales, EMEA", "cn=Sales EMEA,dc=corp,dc=test",
                                      "sales-id"),
              0);
    const std::string group = "cn=Sales\\, EMEA,ou=Groups," + suffix();
    EXPECT_EQ(server_values(group, "uniqueMember"),
              std::vector<std::string>{"uid=dummyMemberDN,ou=people," + suffix()});
    EXPECT_EQ(server_values(group, "orvZORLAGroupId"), std::vector<std::string>{"sales-id"});
    EXPECT_EQ(server_values(group, "orvCorporateDN"),
              std::vector<std::string>{"cn=Sales EMEA,dc=corp,dc=test"});

    // A corporate group is changed through its standalone group.
    ORV_OPERATION_MODE = 1;
    char* vals[] = {cs("through the counterpart"), nullptr};
    EXPECT_EQ(modify_group_element(orv_ld, "cn=Sales EMEA,dc=corp,dc=test", 4, vals, 0, 2), 0);
    // A corporate group without a counterpart gets one made from the
    // corporate server; without a corporate connection nothing is written.
    EXPECT_EQ(modify_group_element(orv_ld, "cn=Unknown,dc=corp,dc=test", 4, vals, 0, 2), 3007);
    // Deleting from it has nothing to delete.
    EXPECT_EQ(modify_group_element(orv_ld, "cn=Unknown,dc=corp,dc=test", 4, vals, 2, 2), 32);
    ORV_OPERATION_MODE = 0;
    EXPECT_EQ(server_values(group, "description"),
              std::vector<std::string>{"through the counterpart"});
}

TEST_F(EntriesTest, ModifyUsersByDnFilterOrUid) {
    const std::string dn = people("uid=moduser");
    char* two[] = {cs("first"), cs("second"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 0, 4, two), 0);
    EXPECT_EQ(as_set(server_values(dn, "description")),
              (std::set<std::string>{"original", "first", "second"}));
    EXPECT_EQ(ldapErrCode, 0);

    char* one[] = {cs("only"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, "(uid=moduser)", 1, 4, one), 0);
    EXPECT_EQ(server_values(dn, "description"), std::vector<std::string>{"only"});

    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, "moduser", 2, 4, one), 0);
    EXPECT_TRUE(server_values(dn, "description").empty());

    char* mail[] = {cs("mod@orv.test"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, "mail=nobody@x", 0, 6, mail), 32);
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, "(cn=Mod User)", 0, 6, mail), 0);
    EXPECT_EQ(server_values(dn, "mail"), std::vector<std::string>{"mod@orv.test"});
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, "(mail=mod@orv.test)", 1, 48, one), 0)
        << "a filter names the user by its own attribute";
    EXPECT_EQ(server_values(dn, "postalAddress"), std::vector<std::string>{"only"});

    // The server's own refusals come back as they are.
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 0, 6, mail), LDAP_TYPE_OR_VALUE_EXISTS);
    EXPECT_EQ(ldapErrCode, LDAP_TYPE_OR_VALUE_EXISTS);
    char* missing[] = {cs("not there"), nullptr};
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 2, 6, missing), LDAP_NO_SUCH_ATTRIBUTE);

    // uid is never modified and nothing is sent.
    char* new_uid[] = {cs("renamed"), nullptr};
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 1, 3, new_uid), 3009);
    EXPECT_EQ(server_values(dn, "uid"), std::vector<std::string>{"moduser"});
    // Ids without a name to write.
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 0, 40, one), 3009);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 0, 777, one), 3009);

    // Missing entries.
    const std::string ghost = people("uid=ghost");
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, ghost.c_str(), 1, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, ghost.c_str(), 2, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, ghost.c_str(), 0, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, "(uid=ghost)", 1, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, "ghost", 0, 4, one), 32);
    EXPECT_FALSE(server_has(ghost));
    EXPECT_EQ(ldapErrCode, 32);

    // An unknown modification type changes nothing.
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 9, 4, one), 0);
    EXPECT_TRUE(server_values(dn, "description").empty());
    // Odd inputs.
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, "", 1, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, "((((", 1, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, "uid=moduser\\", 1, 4, one), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, dn.c_str(), 0, 4, nullptr), LDAP_PROTOCOL_ERROR);
}

TEST_F(EntriesTest, ModifyGroupsAndRegistryEntries) {
    const std::string group = "cn=Testers,ou=Groups," + suffix();
    char* attr[] = {cs("group-attribute"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, group.c_str(), 0, 8, attr), 0);
    EXPECT_EQ(server_values(group, "pexZORLAGroupAttribute"),
              std::vector<std::string>{"group-attribute"});
    char* desc[] = {cs("QA"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, group.c_str(), 1, 4, desc), 0);
    EXPECT_EQ(server_values(group, "description"), std::vector<std::string>{"QA"});
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, group.c_str(), 2, 8, nullptr), 0);
    EXPECT_TRUE(server_values(group, "pexZORLAGroupAttribute").empty());

    // Registry entries, found in any letter case, are changed as they stand.
    LDAPMessage* res = nullptr;
    const std::string registry = "ou=Application Registry," + suffix();
    ASSERT_EQ(ldap_search_ext_s(orv_ld, registry.c_str(), LDAP_SCOPE_SUBTREE,
                                "(objectClass=orvApplicationServerFacility)", nullptr, 0, nullptr,
                                nullptr, nullptr, 0, &res),
              LDAP_SUCCESS);
    char* raw = ldap_get_dn(orv_ld, ldap_first_entry(orv_ld, res));
    const std::string facility = raw;
    ldap_memfree(raw);
    ldap_msgfree(res);

    char* status[] = {cs("inactive"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, lower(facility).c_str(), 1, 32, status), 0);
    EXPECT_EQ(server_values(facility, "orvApplicationServerFacilityStatus"),
              std::vector<std::string>{"inactive"});
    char* url[] = {cs("http://other.orv.test/"), nullptr};
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, facility.c_str(), 0, 30, url), 0);
    EXPECT_EQ(server_values(facility, "orvBaseURL").size(), 2u);
    ASSERT_EQ(orvlib_modify_ext_s(orv_ld, facility.c_str(), 2, 30, url), 0);
    EXPECT_EQ(server_values(facility, "orvBaseURL").size(), 1u);
    const std::string gone = "orvFullyQualifiedObjectId=none," + registry;
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, gone.c_str(), 1, 32, status), 32);
    EXPECT_EQ(orvlib_modify_ext_s(orv_ld, facility.c_str(), 5, 32, status), 3009);
}

TEST_F(EntriesTest, DirectoryHelpersResolveUsersAndGroups) {
    EXPECT_EQ(lower(take(getDNFromUid(orv_ld, "alice", nullptr, nullptr))), lower(people("uid=alice")));
    EXPECT_EQ(lower(take(getDNFromUid(orv_ld, "Bob Baker", ORV_PEOPLE_SRCH_BASE, nullptr))),
              lower(people("uid=bob")));
    EXPECT_EQ(lower(take(getDNFromUid(orv_ld, "carol@orv.test", nullptr, "mail"))),
              lower(people("uid=carol")));
    EXPECT_EQ(getDNFromUid(orv_ld, "nobody", nullptr, nullptr), nullptr);
    const int not_found = ldapErrCode;
    // Filter characters in a user id are escaped: the look-up is a valid
    // filter that matches nobody, not a broken one.
    EXPECT_EQ(getDNFromUid(orv_ld, "bad)(filter", nullptr, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, not_found);

    const std::string developers = "cn=Developers,ou=Groups," + suffix();
    EXPECT_EQ(lower(take(getDNFromGroupCN(orv_ld, "Developers", nullptr))), lower(developers));
    EXPECT_EQ(lower(take(getDNFromGroupCN(orv_ld, "(cn=Developers)", nullptr))), lower(developers));
    EXPECT_EQ(take(getDNFromGroupCN(nullptr, developers.c_str(), nullptr)), developers)
        << "a DN is handed back without a search";
    EXPECT_EQ(getDNFromGroupCN(orv_ld, "No Such Group", nullptr), nullptr);

    LDAPMessage* first = nullptr;
    LDAPMessage* res = nullptr;
    EXPECT_EQ(isGroupDN(orv_ld, developers.c_str(), &first, &res), 1);
    EXPECT_NE(first, nullptr);
    ldap_msgfree(res);
    EXPECT_EQ(isGroupDN(orv_ld, people("uid=alice").c_str(), &first, &res), 0);
    ldap_msgfree(res);
    EXPECT_EQ(isGroupDN(orv_ld, roles("cn=Inactive User").c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(isGroupDN(orv_ld, people("uid=ghost").c_str(), &first, &res), 0);
    EXPECT_EQ(ldapErrCode, 32);
    ldap_msgfree(res);

    char* dn = nullptr;
    EXPECT_EQ(is_standalone_group(orv_ld, "Testers", &dn), 1);
    EXPECT_EQ(lower(take(dn)), lower("cn=Testers,ou=Groups," + suffix()));
    dn = nullptr;
    EXPECT_EQ(is_standalone_group(orv_ld, developers.c_str(), &dn), 1);
    EXPECT_EQ(take(dn), developers);
    dn = nullptr;
    EXPECT_EQ(is_standalone_group(orv_ld, "Nope", &dn), 1);
    EXPECT_EQ(dn, nullptr);
}

}  // namespace
