// Searches and result iteration through orvlib_search_ext_s,
// orvlib_first_entry, orvlib_next_entry and orvlib_get_entry_vals against
// the ORV test directory in standalone mode.  Every test checks that the
// library's allocation counter comes back to where it started once the
// entries, values and result messages are freed.
//
// Data added on top of the "standalone" scenario (kExtraLdif): a group
// "Outer" holding two users, a nested group "Inner", a member DN that does
// not exist; "Inner" holds carol and a group "Deep" (two levels down, so its
// user erin is not delivered); a mirrored corporate group that local group
// searches must never return.

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
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));

orv::testbed::Directory& directory() { return orv::testbed::Environment::directory(); }
std::string suffix() { return directory().suffix(); }
std::string group_dn(const std::string& cn) { return "cn=" + cn + ",ou=Groups," + suffix(); }

std::string extra_ldif() {
    const std::string s = suffix();
    auto user = [&](const char* uid) { return "uid=" + std::string(uid) + ",ou=People," + s; };
    return "dn: " + group_dn("Deep") +
           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
           "objectClass: morvaneGroup\ncn: Deep\nuniqueMember: " + user("erin") +
           "\n\n"
           "dn: " + group_dn("Inner") +
           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
           "objectClass: morvaneGroup\ncn: Inner\nuniqueMember: " + user("carol") +
           "\nuniqueMember: " + group_dn("Deep") +
           "\n\n"
           "dn: " + group_dn("Outer") +
           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
           "objectClass: morvaneGroup\ncn: Outer\nuniqueMember: " + user("alice") +
           "\nuniqueMember: " + group_dn("Inner") + "\nuniqueMember: " + user("ghost") +
           "\nuniqueMember: " + user("bob") +
           "\n\n"
           "dn: " + group_dn("Mirrored Engineering") +
           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
           "objectClass: morvaneGroup\ncn: Mirrored Engineering\n"
           "uniqueMember: uid=dummyMemberDN,ou=people," + s +
           "\norvCorporateDN: cn=Engineering,ou=Groups,dc=corp,dc=test\n";
}

using orvtest::Session;

// First value of attribute id, "" when the entry has none.
std::string value_of(ORVLibEntry* entry, int id) {
    char** vals = orvlib_get_entry_vals(entry, id);
    std::string v = vals && vals[0] ? vals[0] : "";
    orvlib_free_values(vals);
    return v;
}

struct Outcome {
    int status = -1;
    std::vector<std::string> values;  // value of the attribute asked for, per entry
};

// Runs a search, walks every entry and reads one attribute from each; frees
// everything it was handed.
Outcome run(LDAP* ld, const std::string& filter, int type, int attrId) {
    Outcome out;
    LDAPMessage* res = nullptr;
    out.status = orvlib_search_ext_s(ld, filter.c_str(), type, &res);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        EXPECT_NE(entry, nullptr) << "a cursor without an entry for " << filter;
        out.values.push_back(value_of(entry, attrId));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    EXPECT_EQ(entry, nullptr);
    orvlib_orvmessage_free(res);
    return out;
}

// Allocations the library keeps between searches: the filter of the last
// search (released by the next search).
int kept() { return user_input_filter ? 1 : 0; }

std::set<std::string> as_set(const std::vector<std::string>& v) { return {v.begin(), v.end()}; }

class SearchTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        session_ = new Session(directory());
        if (session_->ld()) directory().apply_ldif(extra_ldif());
    }
    static void TearDownTestSuite() {
        delete session_;
        session_ = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(session_->ld(), nullptr)
            << "no session with the test directory, status " << session_->status();
        ASSERT_EQ(ORV_OPERATION_MODE, 0);
        saved_mechanism_ = mechanism;
        mem_start_ = _memCnt - kept();
    }
    void TearDown() override {
        mechanism = saved_mechanism_;
        ORV_OPERATION_MODE = 0;
        EXPECT_EQ(_memCnt - kept(), mem_start_) << "library allocations not released";
    }
    LDAP* ld() const { return session_->ld(); }

    static Session* session_;
    int mem_start_ = 0;
    int saved_mechanism_ = -1;
};
Session* SearchTest::session_ = nullptr;

TEST_F(SearchTest, StandaloneSessionUsesVirtualListView) {
    EXPECT_EQ(mechanism, ORV_VLV);
    // The test directory lists the virtual list view control before paged
    // results in its root entry: it wins.
    mechanism = -1;
    determine_control(ld());
    EXPECT_EQ(mechanism, ORV_VLV);
    // No answer leaves the mechanism as it was.
    mechanism = ORV_PAGING;
    determine_control(nullptr);
    EXPECT_EQ(mechanism, ORV_PAGING);
}

TEST_F(SearchTest, PeopleByNamePartialFilterFullFilterAndDn) {
    Outcome bare = run(ld(), "alice", ORV_SEARCH_PEOPLE, 3);
    EXPECT_EQ(bare.status, 0);
    EXPECT_EQ(bare.values, std::vector<std::string>{"alice"});

    // A bare value matches cn as well as uid.
    Outcome by_cn = run(ld(), "Carol Carter", ORV_SEARCH_PEOPLE, 3);
    EXPECT_EQ(by_cn.values, std::vector<std::string>{"carol"});

    Outcome partial = run(ld(), "pp*", ORV_SEARCH_PEOPLE, 3);
    EXPECT_EQ(partial.status, 0);
    EXPECT_EQ(as_set(partial.values),
              (std::set<std::string>{"ppexpired", "pplocked", "ppwarning"}));
    EXPECT_EQ(partial.values.size(), 3u) << "an entry delivered twice";

    Outcome full = run(ld(), "(sn=Baker)", ORV_SEARCH_PEOPLE, 2);
    EXPECT_EQ(full.values, std::vector<std::string>{"Baker"});

    Outcome dn = run(ld(), directory().user_dn("dave"), ORV_SEARCH_PEOPLE, 0);
    ASSERT_EQ(dn.values.size(), 1u);
    EXPECT_EQ(strcmp_case_insensitive(dn.values[0].c_str(), directory().user_dn("dave").c_str()), 0)
        << dn.values[0];

    Outcome none = run(ld(), "nobody-at-all", ORV_SEARCH_PEOPLE, 3);
    EXPECT_EQ(none.status, LDAP_NO_SUCH_OBJECT);
    EXPECT_TRUE(none.values.empty());
}

TEST_F(SearchTest, PeopleEntriesCarryIdsRolesAndDatabases) {
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "bob", ORV_SEARCH_PEOPLE, &res), 0);
    ORVLibEntry* entry = nullptr;
    LDAPMessage* cur = orvlib_first_entry(ld(), &entry, res);
    ASSERT_NE(cur, nullptr);
    EXPECT_EQ(value_of(entry, 1), "Bob Baker");
    EXPECT_EQ(value_of(entry, 6), "bob@orv.test");
    EXPECT_FALSE(value_of(entry, 11).empty()) << "application user id";
    EXPECT_NE(value_of(entry, 19).find("ou=roles"), std::string::npos) << "role of the user";
    EXPECT_FALSE(value_of(entry, 40).empty()) << "database reachable through the role";
    EXPECT_EQ(orvlib_get_entry_vals(entry, 9999), nullptr);
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(orvlib_next_entry(ld(), &entry, cur), nullptr);
    EXPECT_EQ(entry, nullptr);
    orvlib_orvmessage_free(res);
}

TEST_F(SearchTest, BadInputsAnswerWithoutSearchingOrCrashing) {
    LDAPMessage* res = reinterpret_cast<LDAPMessage*>(0x1);
    ORVLibEntry* entry = reinterpret_cast<ORVLibEntry*>(0x1);
    EXPECT_EQ(orvlib_search_ext_s(nullptr, "alice", ORV_SEARCH_PEOPLE, &res), 3007);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(orvlib_first_entry(nullptr, &entry, nullptr), nullptr);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(ldapErrCode, 3007);
    entry = reinterpret_cast<ORVLibEntry*>(0x1);
    EXPECT_EQ(orvlib_next_entry(nullptr, &entry, nullptr), nullptr);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(orvlib_search_ext_s(ld(), nullptr, ORV_SEARCH_PEOPLE, &res), 87);  // filter error
    EXPECT_EQ(orvlib_get_entry_vals(nullptr, 1), nullptr);
    EXPECT_EQ(ldapErrCode, 3009);
    ORVLibEntry empty{nullptr};
    EXPECT_EQ(orvlib_get_entry_vals(&empty, 1), nullptr);

    // The types that need a filter refuse a missing one in the dispatch.
    for (int type : {ORV_SEARCH_USER_GROUPS, ORV_SEARCH_USER_GROUP_MEMBERSHIP,
                     ORV_SEARCH_GROUP_MEMBERS}) {
        EXPECT_EQ(invoke_underlaying_search_mechanism(type, ld(), nullptr, &res), 3009) << type;
        EXPECT_EQ(res, nullptr);
    }
    EXPECT_EQ(invoke_underlaying_search_mechanism(ORV_SEARCH_PEOPLE, nullptr, "x", &res), 3007);

    // "cn=" starts no search: the results of the search before stay usable.
    ASSERT_EQ(orvlib_search_ext_s(ld(), "carol", ORV_SEARCH_PEOPLE, &res), 0);
    LDAPMessage* none = reinterpret_cast<LDAPMessage*>(0x1);
    EXPECT_EQ(orvlib_search_ext_s(ld(), "cn=", ORV_SEARCH_PEOPLE, &none), 0);
    // The caller's result pointer is left exactly as it was.
    EXPECT_EQ(none, reinterpret_cast<LDAPMessage*>(0x1));
    ASSERT_NE(user_input_filter, nullptr);
    EXPECT_STREQ(user_input_filter, "cn=");
    entry = nullptr;
    ASSERT_NE(orvlib_first_entry(ld(), &entry, res), nullptr);
    EXPECT_EQ(value_of(entry, 3), "carol");
    orvlib_orvlibentry_free(entry);
    orvlib_orvmessage_free(res);

    // Unbalanced parentheses are repaired or escaped, stray backslashes
    // escaped: each gives a status, none crashes.
    EXPECT_EQ(run(ld(), "(uid=alice", ORV_SEARCH_PEOPLE, 3).values,
              std::vector<std::string>{"alice"});
    EXPECT_EQ(run(ld(), "uid=alice)", ORV_SEARCH_PEOPLE, 3).values,
              std::vector<std::string>{"alice"});
    for (const char* odd : {"al\\ice", "\\", "\\\\", "((", "))", ")(", "(cn=a)(", "a)b(",
                            "(uid=alice))", "*)(uid=*", "\\28", "cn=\\", "(&(uid=alice)"}) {
        for (int type : {ORV_SEARCH_PEOPLE, ORV_SEARCH_GROUPS, ORV_SEARCH_USER_GROUPS,
                         ORV_SEARCH_USER_GROUP_MEMBERSHIP, ORV_SEARCH_GROUP_MEMBERS}) {
            Outcome o = run(ld(), odd, type, 0);
            EXPECT_NE(o.status, -1) << odd << " type " << type;
        }
    }
    // An unknown search type is refused and iterates nothing.
    Outcome unknown = run(ld(), "alice", 4711, 0);
    EXPECT_EQ(unknown.status, 3009);
    EXPECT_TRUE(unknown.values.empty());
}

TEST_F(SearchTest, WindowsSystemUserLookupAddsTheApplicationUser) {
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "orvWindowsUserSystemName=ali*", ORV_SEARCH_PEOPLE, &res),
              0);
    EXPECT_EQ(ORV_WIN_USER_SEARCH, 1);
    ORVLibEntry* entry = nullptr;
    LDAPMessage* cur = orvlib_first_entry(ld(), &entry, res);
    ASSERT_NE(cur, nullptr);
    EXPECT_EQ(value_of(entry, 71), "alice");
    EXPECT_EQ(value_of(entry, 70), "S-1-5-21-1000-2000-3000-1001");
    // The follow-up search appends the application user's own entry.
    EXPECT_EQ(value_of(entry, 3), "alice");
    EXPECT_EQ(value_of(entry, 2), "Archer");
    EXPECT_EQ(_UUID, nullptr) << "the captured user id is released";
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(orvlib_next_entry(ld(), &entry, cur), nullptr);
    orvlib_orvmessage_free(res);

    Outcome none = run(ld(), "orvWindowsUserSystemName=zz*", ORV_SEARCH_PEOPLE, 3);
    EXPECT_EQ(none.status, LDAP_NO_SUCH_OBJECT);
    EXPECT_TRUE(none.values.empty());
    EXPECT_EQ(ORV_WIN_USER_SEARCH, 0);
}

TEST_F(SearchTest, GroupsByNamePatternFilterAndDn) {
    EXPECT_EQ(run(ld(), "Developers", ORV_SEARCH_GROUPS, 1).values,
              std::vector<std::string>{"Developers"});
    EXPECT_EQ(run(ld(), "(cn=Testers)", ORV_SEARCH_GROUPS, 1).values,
              std::vector<std::string>{"Testers"});
    EXPECT_EQ(run(ld(), group_dn("Admins"), ORV_SEARCH_GROUPS, 1).values,
              std::vector<std::string>{"Admins"});
    EXPECT_EQ(as_set(run(ld(), "*e*", ORV_SEARCH_GROUPS, 1).values),
              (std::set<std::string>{"Developers", "Testers", "Empty Group", "Inner", "Outer",
                                     "Deep"}));
    // A local group search never returns a mirrored corporate group.
    Outcome all = run(ld(), "*", ORV_SEARCH_GROUPS, 1);
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.values.size(), 7u);
    EXPECT_EQ(as_set(all.values).count("Mirrored Engineering"), 0u);
    EXPECT_EQ(run(ld(), "Mirrored Engineering", ORV_SEARCH_GROUPS, 1).values.size(), 0u);
    // The group entries carry their members.
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "Admins", ORV_SEARCH_GROUPS, &res), 0);
    ORVLibEntry* entry = nullptr;
    ASSERT_NE(orvlib_first_entry(ld(), &entry, res), nullptr);
    char** members = orvlib_get_entry_vals(entry, 10);
    ASSERT_NE(members, nullptr);
    EXPECT_EQ(std::string(members[0]), directory().user_dn("alice"));
    EXPECT_EQ(members[1], nullptr);
    orvlib_free_values(members);
    orvlib_orvlibentry_free(entry);
    orvlib_orvmessage_free(res);
}

TEST_F(SearchTest, GroupsOfAUser) {
    Outcome alice = run(ld(), "alice", ORV_SEARCH_USER_GROUPS, 1);
    EXPECT_EQ(alice.status, 0);
    std::set<std::string> groups = as_set(alice.values);
    EXPECT_EQ(groups.count("Developers"), 1u);
    EXPECT_EQ(groups.count("Admins"), 1u);
    EXPECT_EQ(groups.count("Outer"), 1u);
    EXPECT_EQ(groups.count("Testers"), 0u);
    EXPECT_EQ(groups.count("Inner"), 0u) << "nested membership is not followed";

    Outcome carol = run(ld(), "(uid=carol)", ORV_SEARCH_USER_GROUPS, 1);
    EXPECT_EQ(as_set(carol.values), (std::set<std::string>{"Testers", "Inner"}));
    Outcome by_dn = run(ld(), directory().user_dn("carol"), ORV_SEARCH_USER_GROUPS, 1);
    EXPECT_EQ(as_set(by_dn.values), as_set(carol.values));

    Outcome nobody = run(ld(), "nobody-at-all", ORV_SEARCH_USER_GROUPS, 1);
    EXPECT_EQ(nobody.status, 3009);
    EXPECT_TRUE(nobody.values.empty());
}

TEST_F(SearchTest, MembershipOfAUserInAGroup) {
    LDAPMessage* res = reinterpret_cast<LDAPMessage*>(0x1);
    ASSERT_EQ(orvlib_search_ext_s(ld(), "(uid=alice)(groupCN=Admins)",
                                  ORV_SEARCH_USER_GROUP_MEMBERSHIP, &res),
              0);
    EXPECT_EQ(res, nullptr) << "membership results are kept by the library";
    ORVLibEntry* entry = nullptr;
    LDAPMessage* cur = orvlib_first_entry(ld(), &entry, res);
    ASSERT_NE(cur, nullptr);
    EXPECT_EQ(value_of(entry, 1), "Admins");
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(orvlib_next_entry(ld(), &entry, cur), nullptr);
    EXPECT_EQ(entry, nullptr);

    Outcome not_member = run(ld(), "(uid=carol)(groupCN=Admins)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1);
    EXPECT_EQ(not_member.status, 0);
    EXPECT_TRUE(not_member.values.empty());
    Outcome by_cn = run(ld(), "(cn=Carol Carter)(groupCN=Testers)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1);
    EXPECT_EQ(by_cn.values, std::vector<std::string>{"Testers"});
    Outcome no_group = run(ld(), "(uid=alice)(groupCN=No Such Group)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1);
    EXPECT_EQ(no_group.status, 0);
    EXPECT_TRUE(no_group.values.empty());

    EXPECT_EQ(run(ld(), "(uid=alice)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1).status, 57);
    EXPECT_EQ(run(ld(), "alice", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1).status, 57);
    EXPECT_EQ(run(ld(), "(uid=nobody)(groupCN=Admins)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, 1).status,
              3009);
}

TEST_F(SearchTest, MembersOfAGroupFollowNestedGroupsOneLevel) {
    // Outer: alice, bob, a member that does not exist, and Inner (carol and
    // Deep, whose user erin is two levels down).
    Outcome outer = run(ld(), "Outer", ORV_SEARCH_GROUP_MEMBERS, 3);
    EXPECT_EQ(outer.status, 0);
    ASSERT_EQ(outer.values.size(), 3u);
    EXPECT_EQ(as_set({outer.values[0], outer.values[1]}), (std::set<std::string>{"alice", "bob"}));
    EXPECT_EQ(outer.values[2], "carol");
    EXPECT_EQ(group_is_standalone, 1);

    Outcome by_dn = run(ld(), group_dn("Developers"), ORV_SEARCH_GROUP_MEMBERS, 3);
    EXPECT_EQ(as_set(by_dn.values), (std::set<std::string>{"alice", "bob"}));
    EXPECT_EQ(by_dn.values.size(), 2u);

    // Member entries are user entries with roles.
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld(), "(cn=Testers)", ORV_SEARCH_GROUP_MEMBERS, &res), 0);
    ORVLibEntry* entry = nullptr;
    std::map<std::string, std::string> roles;
    for (LDAPMessage* cur = orvlib_first_entry(ld(), &entry, res); cur;
         cur = orvlib_next_entry(ld(), &entry, cur)) {
        roles[value_of(entry, 3)] = value_of(entry, 19);
        orvlib_orvlibentry_free(entry);
    }
    orvlib_orvmessage_free(res);
    ASSERT_EQ(roles.size(), 2u);
    EXPECT_NE(roles["dave"].find("Inactive User"), std::string::npos);
    EXPECT_EQ(roles["carol"], "");

    // Only the placeholder member, which is no user.
    Outcome empty = run(ld(), "Empty Group", ORV_SEARCH_GROUP_MEMBERS, 3);
    EXPECT_TRUE(empty.values.empty());
    Outcome missing = run(ld(), "No Such Group", ORV_SEARCH_GROUP_MEMBERS, 3);
    EXPECT_NE(missing.status, 0);
    EXPECT_TRUE(missing.values.empty());
}

TEST_F(SearchTest, ApplicationServersAndFacilities) {
    Outcome servers = run(ld(), "", ORV_SEARCH_APPLICATION_SERVERS, 22);
    ASSERT_EQ(servers.status, 0);
    ASSERT_EQ(servers.values.size(), 1u);
    const std::string server_id = servers.values[0];
    ASSERT_FALSE(server_id.empty());
    EXPECT_EQ(run(ld(), server_id, ORV_SEARCH_APPLICATION_SERVERS, 22).values,
              std::vector<std::string>{server_id});
    EXPECT_TRUE(run(ld(), "no-such-server", ORV_SEARCH_APPLICATION_SERVERS, 22).values.empty());

    const std::string rdn = "orvFullyQualifiedObjectId=" + server_id;
    const std::string server_dn = rdn + ",ou=Application Registry," + suffix();
    const std::vector<std::string> url{"http://zorla.orv.test:8080/zorla"};
    EXPECT_EQ(run(ld(), server_dn, ORV_SEARCH_APPLICATION_FACILITY, 30).values, url);
    EXPECT_EQ(run(ld(), rdn, ORV_SEARCH_APPLICATION_FACILITY, 30).values, url);
    EXPECT_EQ(run(ld(), "(orvApplicationServerFacilityType=web client)",
                  ORV_SEARCH_APPLICATION_FACILITY, 30).values,
              url);
    // The server's DN given to the server search names the server.
    EXPECT_EQ(run(ld(), server_dn, ORV_SEARCH_APPLICATION_SERVERS, 22).values,
              std::vector<std::string>{server_id});
}

TEST_F(SearchTest, PagedResultsMechanismDeliversTheSameEntries) {
    for (int m : {ORV_VLV, ORV_PAGING, -1}) {
        mechanism = m;
        Outcome people = run(ld(), "(objectClass=morvanePerson)", ORV_SEARCH_PEOPLE, 3);
        EXPECT_EQ(people.status, 0) << "mechanism " << m;
        EXPECT_EQ(people.values.size(), 10u) << "mechanism " << m;  // nine users and orvadmin
        EXPECT_EQ(as_set(people.values).size(), people.values.size()) << "mechanism " << m;
        Outcome groups = run(ld(), "*", ORV_SEARCH_GROUPS, 1);
        EXPECT_EQ(groups.values.size(), 7u) << "mechanism " << m;
    }
}

TEST(SearchEntryValues, SurnameAndUserIdRules) {
    const int mem_start = _memCnt;
    const int saved_mode = ORV_OPERATION_MODE;
    partition_info* saved_partition = PARTITION_INFO;

    ORVLibEntry* entry = orv::new_entry();
    ASSERT_NE(entry, nullptr);
    char* sn_corp[] = {const_cast<char*>("Corporate"), nullptr};
    char* sn_local[] = {const_cast<char*>("Mirrored"), nullptr};
    char* uid[] = {const_cast<char*>("jsmith"), nullptr};
    char* account[] = {const_cast<char*>("JSMITH01"), nullptr};
    char* corp_dn[] = {const_cast<char*>("cn=John Smith,ou=People,dc=corp,dc=test"), nullptr};
    ASSERT_TRUE(orv::append_attribute(entry, 2, "sn", sn_corp));
    ASSERT_TRUE(orv::append_attribute(entry, 3, "uid", uid));
    ASSERT_TRUE(orv::append_attribute(entry, 38, "sAMAccountName", account));

    // Standalone: the first match.
    ORV_OPERATION_MODE = 0;
    EXPECT_EQ(value_of(entry, 2), "Corporate");
    EXPECT_EQ(value_of(entry, 3), "jsmith");
    // Any mode other than standalone and corporate wants two surnames.
    ORV_OPERATION_MODE = 2;
    EXPECT_EQ(orvlib_get_entry_vals(entry, 2), nullptr);

    partition_info partition{};
    partition.user_logon_attribute_name = const_cast<char*>("sAMAccountName");
    PARTITION_INFO = &partition;
    ORV_OPERATION_MODE = 1;
    // Without "orvCorporateDN" the entry is an ordinary one.
    EXPECT_EQ(value_of(entry, 2), "Corporate");
    EXPECT_EQ(value_of(entry, 3), "jsmith");
    // A corporate user: the logon attribute is the user id, and the surname
    // needs the mirrored one after the corporate one.
    ASSERT_TRUE(orv::append_attribute(entry, 13, "orvCorporateDN", corp_dn));
    EXPECT_EQ(value_of(entry, 3), "JSMITH01");
    EXPECT_EQ(orvlib_get_entry_vals(entry, 2), nullptr);
    ASSERT_TRUE(orv::append_attribute(entry, 2, "sn", sn_local));
    EXPECT_EQ(value_of(entry, 2), "Corporate");
    partition.user_logon_attribute_name = const_cast<char*>("uid");
    EXPECT_EQ(value_of(entry, 3), "jsmith");

    PARTITION_INFO = saved_partition;
    ORV_OPERATION_MODE = saved_mode;
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(_memCnt, mem_start);
}

std::string take(char* text) {
    std::string out = text ? text : "<null>";
    orvlib_memfree(text);
    return out;
}

TEST(SearchFilters, LocalGroupRegistryAndTier2Filters) {
    const int mem_start = _memCnt;
    const int saved_mode = ORV_OPERATION_MODE;
    char* out = nullptr;

    // Local group searches never find mirrored corporate groups.
    set_standalone_group_search_filter("Dev*", &out);
    EXPECT_EQ(take(out), "(&(objectClass=groupOfUniqueNames)(cn=Dev*)(!(orvCorporateDN=*)))");
    set_standalone_group_search_filter("cn=Dev*", &out);
    EXPECT_EQ(take(out), "(&(objectClass=groupOfUniqueNames)(cn=Dev*)(!(orvCorporateDN=*)))");
    set_standalone_group_search_filter("(a", &out);
    EXPECT_EQ(take(out), "(&(objectClass=groupOfUniqueNames)(cn=\\28a)(!(orvCorporateDN=*)))");

    get_updated_search_filter("abc", ORV_SEARCH_APPLICATION_SERVERS, &out);
    EXPECT_EQ(take(out), "(&(objectClass=orvApplicationServer)(orvFullyQualifiedObjectId=abc))");
    get_updated_search_filter("orvBaseURL=x", ORV_SEARCH_APPLICATION_FACILITY, &out);
    EXPECT_EQ(take(out), "(&(objectClass=orvApplicationServerFacility)(orvBaseURL=x))");
    const std::string spaced = "ou=Application Registry, " + std::string(ORV_ROOT_SUFFIX);
    EXPECT_EQ(application_registry_filter_is_dn(spaced.c_str()), 1);
    EXPECT_EQ(application_registry_filter_is_dn("abc"), 0);
    EXPECT_EQ(application_registry_filter_is_dn(nullptr), 0);

    // Standalone: every filter names the library's own directory.
    ORV_OPERATION_MODE = 0;
    EXPECT_EQ(is_tier2_filter("uid=x"), 1);
    EXPECT_EQ(is_tier2_filter(nullptr), 0);
    ORV_OPERATION_MODE = 1;
    EXPECT_EQ(is_tier2_filter("(orvZORLAUserId=x)"), 1);
    EXPECT_EQ(is_tier2_filter("orvOSNTUserName=x"), 1);
    EXPECT_EQ(is_tier2_filter("uid=x"), 0);
    // A Windows system-user filter is not one.
    EXPECT_EQ(is_tier2_filter("orvWindowsUserSystemName=x"), 0);
    ORV_OPERATION_MODE = 2;
    EXPECT_EQ(is_tier2_filter("orvZORLAUserId=x"), 0);
    ORV_OPERATION_MODE = saved_mode;

    // The group DN list.
    groups_node* tail = nullptr;
    for (const char* dn : {"cn=a", "cn=b", "cn=c"}) append_to_groupDN_list(&tail, dn);
    ASSERT_NE(get_head_of_list(), nullptr);
    EXPECT_STREQ(get_head_of_list()->str, "cn=a");
    EXPECT_STREQ(tail->str, "cn=c");
    delete_from_linked_list("cn=a");
    EXPECT_STREQ(get_head_of_list()->str, "cn=b");
    delete_from_linked_list("cn=c");
    ASSERT_NE(get_head_of_list(), nullptr);
    EXPECT_EQ(get_head_of_list()->link, nullptr);
    delete_from_linked_list("cn=none");
    clear_group_dn_list();
    EXPECT_EQ(get_head_of_list(), nullptr);

    EXPECT_EQ(_memCnt, mem_start);
}

// 5000 generated users on an instance of their own: every user is delivered
// exactly once with each paging mechanism (the server hands the paged and
// windowed results out 1000 at a time), and the allocation counter comes back
// to its start once entries, values and the result are freed.
TEST(SearchLarge, FiveThousandPeopleEachExactlyOnce) {
    orv::testbed::Directory large(orv::testbed::Options().with_scenario("standalone-large"));
    Session session(large);
    LDAP* ld = session.ld();
    ASSERT_NE(ld, nullptr) << "status " << session.status();
    const int saved_mechanism = mechanism;
    for (int m : {ORV_VLV, ORV_PAGING, -1}) {
        mechanism = m;
        const int mem_start = _memCnt - kept();
        LDAPMessage* res = nullptr;
        ASSERT_EQ(orvlib_search_ext_s(ld, "(uid=user*)", ORV_SEARCH_PEOPLE, &res), 0);
        EXPECT_EQ(has_more_pages, m == -1 ? 0 : 1) << "mechanism " << m;
        EXPECT_EQ(ldap_count_entries(ld, res), m == -1 ? 5000 : ORV_SEARCH_PAGE_SIZE)
            << "mechanism " << m;
        std::vector<std::string> uids;
        ORVLibEntry* entry = nullptr;
        for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
             cur = orvlib_next_entry(ld, &entry, cur)) {
            uids.push_back(value_of(entry, 3));
            orvlib_orvlibentry_free(entry);
        }
        orvlib_orvmessage_free(res);
        EXPECT_EQ(uids.size(), 5000u) << "mechanism " << m;
        std::set<std::string> unique = as_set(uids);
        EXPECT_EQ(unique.size(), 5000u) << "mechanism " << m;
        EXPECT_EQ(unique.count("user00001"), 1u);
        EXPECT_EQ(unique.count("user05000"), 1u);
        EXPECT_EQ(has_more_pages, 0) << "mechanism " << m;
        EXPECT_EQ(_memCnt - kept(), mem_start) << "mechanism " << m;
    }

    // An iteration left half-way (in its second page) is replaced by the
    // next search.
    mechanism = ORV_PAGING;
    const int mem_start = _memCnt - kept();
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld, "(uid=user*)", ORV_SEARCH_PEOPLE, &res), 0);
    ORVLibEntry* entry = nullptr;
    int delivered = 0;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur && delivered < 1500;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        ++delivered;
    }
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(delivered, 1500);
    EXPECT_EQ(has_more_pages, 1);
    orvlib_orvmessage_free(res);
    EXPECT_EQ(run(ld, "(uid=user04242)", ORV_SEARCH_PEOPLE, 3).values,
              std::vector<std::string>{"user04242"});
    EXPECT_EQ(has_more_pages, 0);
    EXPECT_EQ(_memCnt - kept(), mem_start);
    mechanism = saved_mechanism;
}

}  // namespace
