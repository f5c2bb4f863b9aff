// Corporate mode against a Samba Active Directory domain controller (the
// test bed's orvsamba, on a loopback address of its own) in front of the
// ORV test directory: sessions plain and over LDAPS, the search types with
// the corporate entries first and the local ones after them, mirroring of
// corporate users and groups, authentication with the local fallback, and
// the corporate connection coming back after the server was stopped and
// started under an open session.
//
// The domain (testbed/orvsamba): OU=Staff holds jsmith, mjones, pbrown,
// kwhite, alice (also a local user), smithj ("Smith, John"), ddisabled
// (account disabled), llocked (locked out), a computer WKS01 and a contact;
// OU=Bulk holds 1100 bulk users (more than one page of 1000); OU=Groups
// holds Engineering (jsmith, mjones, Platform), Platform (pbrown, smithj,
// Deep), Deep (kwhite), Sales (kwhite, alice), "Ops (EU)" (smithj, mjones)
// and the meta groups
// ZorlaUsers (jsmith, mjones, smithj, pbrown) and ZorlaGroups (Engineering,
// Platform).  CN=Users holds Samba's own Administrator, Guest and krbtgt.
#include <gtest/gtest.h>

#include <ldap.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orv_member_entries.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "corporate_support.hpp"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::testbed::Directory;
using orv::testbed::Options;
using orv::testbed::Samba;
using orvtest::Session;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& dir() { return orv::testbed::Environment::directory(); }

const char kUserPw[] = "Secret123!";
const std::string kBase = "DC=corp,DC=test";
const std::string kStaff = "OU=Staff," + kBase;
const std::string kGroups = "OU=Groups," + kBase;

std::string staff(const std::string& cn) { return "CN=" + cn + "," + kStaff; }
std::string ad_group(const std::string& cn) { return "CN=" + cn + "," + kGroups; }

std::string value_of(ORVLibEntry* entry, int id) {
    char** vals = orvlib_get_entry_vals(entry, id);
    std::string v = vals && vals[0] ? vals[0] : "";
    orvlib_free_values(vals);
    return v;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

// One delivered entry: its DN (id 0, lower case), user id (3), state (17)
// and corporate DN (13).
struct Row {
    std::string dn, uid, state, corp_dn;
};

struct Outcome {
    int status = -1;
    std::vector<Row> rows;
    std::vector<std::string> dns() const {
        std::vector<std::string> out;
        for (const Row& r : rows) out.push_back(r.dn);
        return out;
    }
    std::set<std::string> dn_set() const {
        auto d = dns();
        return {d.begin(), d.end()};
    }
    size_t count(const std::string& dn) const {
        auto d = dns();
        return std::count(d.begin(), d.end(), lower(dn));
    }
};

Outcome run(LDAP* ld, const std::string& filter, int type) {
    Outcome out;
    LDAPMessage* res = nullptr;
    out.status = orvlib_search_ext_s(ld, filter.c_str(), type, &res);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur; cur = orvlib_next_entry(ld, &entry, cur)) {
        if (!entry) {
            ADD_FAILURE() << "a cursor without an entry for " << filter;
            continue;
        }
        out.rows.push_back({lower(value_of(entry, 0)), value_of(entry, 3), value_of(entry, 17), value_of(entry, 13)});
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    orvlib_orvmessage_free(res);
    return out;
}

// Local entries (as the root DN) below a base, with one attribute.
std::map<std::string, std::string> local_entries(const std::string& base, const std::string& filter,
                                                 const std::string& attr) {
    std::map<std::string, std::string> out;
    LDAP* ld = nullptr;
    const std::string uri = dir().uri(), root_dn = dir().root_dn();
    std::string root_pw = dir().root_pw();
    if (ldap_initialize(&ld, uri.c_str()) != LDAP_SUCCESS) return out;
    int v3 = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    berval cred{static_cast<ber_len_t>(root_pw.size()), &root_pw[0]};
    if (ldap_sasl_bind_s(ld, root_dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr) == 0) {
        LDAPMessage* res = nullptr;
        char* attrs[] = {const_cast<char*>(attr.c_str()), nullptr};
        if (ldap_search_ext_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, nullptr, nullptr,
                              nullptr, 0, &res) == 0) {
            for (LDAPMessage* e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
                char* dn = ldap_get_dn(ld, e);
                berval** vals = ldap_get_values_len(ld, e, attr.c_str());
                out[lower(dn ? dn : "")] = vals && vals[0] ? std::string(vals[0]->bv_val, vals[0]->bv_len) : "";
                ldap_value_free_len(vals);
                ldap_memfree(dn);
            }
        }
        ldap_msgfree(res);
    }
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return out;
}

// Mirrored users: local DN -> orvCorporateDN.
std::map<std::string, std::string> mirrored_users() {
    return local_entries("ou=People," + dir().suffix(), "(orvCorporateDN=*)", "orvCorporateDN");
}
std::map<std::string, std::string> mirrored_groups() {
    return local_entries("ou=Groups," + dir().suffix(), "(orvCorporateDN=*)", "orvCorporateDN");
}

class AdTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        samba_ = std::make_unique<Samba>();
        seed({});
    }
    static void TearDownTestSuite() {
        samba_.reset();
        dir().reseed("standalone");
    }
    // The local directory in corporate mode with a partition naming the
    // domain root as its primary base.
    static void seed(std::map<std::string, std::string> params) {
        std::map<std::string, std::string> p{{"corp_host", samba_->host()},
                                             {"corp_port", "389"},
                                             {"corp_suffix", kBase},
                                             {"corp_admin_dn", samba_->admin_dn()},
                                             {"corp_admin_pw", samba_->admin_pw()},
                                             {"corp_logon_attr", "sAMAccountName"},
                                             {"corp_is_dc", "1"},
                                             {"corp_people_base", kStaff},
                                             {"corp_group_base", kGroups},
                                             {"corp_meta_users", ad_group("ZorlaUsers")},
                                             {"corp_meta_groups", ad_group("ZorlaGroups")}};
        for (auto& kv : params) p[kv.first] = kv.second;
        dir().reseed("corporate", p);
    }
    void SetUp() override {
        orvlib_setcertdb_path("");
        session_.open(dir());
        ASSERT_NE(session_.ld(), nullptr) << "status " << session_.status();
        ASSERT_EQ(ORV_OPERATION_MODE, 1);
        ASSERT_NE(corporate_admin_ld, nullptr);
    }
    void TearDown() override { session_.close(); }
    LDAP* ld() const { return session_.ld(); }

    static std::unique_ptr<Samba> samba_;
    Session session_;
};
std::unique_ptr<Samba> AdTest::samba_;

TEST_F(AdTest, SessionReadsThePartitionAndPicksPagedResults) {
    ASSERT_NE(PARTITION_INFO, nullptr);
    EXPECT_EQ(std::string(PARTITION_INFO->hostname), samba_->host());
    EXPECT_EQ(PARTITION_INFO->port_num, 389);
    EXPECT_EQ(std::string(PARTITION_INFO->admin_pwd), samba_->admin_pw());
    EXPECT_EQ(PARTITION_INFO->partition_is_domain_controller, 1);
    // Samba lists paged results before VLV in its root entry.
    EXPECT_EQ(mechanism, ORV_PAGING);
    EXPECT_EQ(operatingMechanism, ORV_PAGING);
    EXPECT_EQ(session_.status(), 0);
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_ACTIVE);
    char* rdn = orvlib_get_user_rdn(ld());
    EXPECT_STREQ(rdn, "sAMAccountName");
    orvlib_memfree(rdn);
}

TEST_F(AdTest, ReferralsAtTheDomainRootAreSkipped) {
    // The partition's base is the domain root: Samba's answer carries
    // references to the Configuration and DNS zone partitions, which are
    // never followed (they name host names outside the test bed).
    int on = -1;
    ASSERT_EQ(ldap_get_option(corporate_admin_ld, LDAP_OPT_REFERRALS, &on), LDAP_OPT_SUCCESS);
    EXPECT_EQ(on, 0);
    LDAPMessage* raw = nullptr;
    ASSERT_EQ(ldap_search_ext_s(corporate_admin_ld, kBase.c_str(), LDAP_SCOPE_SUBTREE, "(sAMAccountName=jsmith)",
                                nullptr, 0, nullptr, nullptr, nullptr, 0, &raw),
              LDAP_SUCCESS);
    EXPECT_GE(ldap_count_references(corporate_admin_ld, raw), 1);
    ldap_msgfree(raw);

    Outcome o = run(ld(), "jsmith", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(staff("John Smith")));
    EXPECT_EQ(o.rows[0].uid, "jsmith");
}

TEST_F(AdTest, PeopleSearchesCorporateFirstThenLocal) {
    // A star search pages through more than 1000 corporate users, then the
    // local people follow; mirrored users are never delivered twice.
    Outcome o = run(ld(), "*", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    // staff, and Samba's Administrator, Guest, krbtgt and dns-<host>
    const size_t corporate = samba_->bulk_users() + 8 + 4;
    size_t seen_corporate = 0, first_local = o.rows.size();
    for (size_t i = 0; i < o.rows.size(); ++i) {
        const std::string& dn = o.rows[i].dn;
        if (dn.size() >= kBase.size() && dn.compare(dn.size() - kBase.size(), kBase.size(), lower(kBase)) == 0) {
            ++seen_corporate;
            EXPECT_LT(i, first_local) << "a corporate entry after a local one: " << dn;
        } else if (first_local == o.rows.size()) {
            first_local = i;
        }
    }
    EXPECT_EQ(seen_corporate, corporate);
    EXPECT_EQ(o.dn_set().size(), o.rows.size()) << "an entry delivered twice";
    EXPECT_EQ(o.count(dir().user_dn("bob")), 1u);
    EXPECT_EQ(o.count(staff("Administrator")), 0u);
    EXPECT_EQ(o.count("CN=Administrator,CN=Users," + kBase), 1u);
    EXPECT_EQ(o.count(staff("WKS01")), 0u);
    EXPECT_EQ(o.count(staff("Contact Person")), 0u);
    // Every corporate user delivered has its local counterpart now.
    const auto mirrored = mirrored_users();
    std::set<std::string> delivered, counterparts;
    for (const Row& r : o.rows)
        if (r.dn.find(lower(kBase)) != std::string::npos) delivered.insert(r.dn);
    for (const auto& m : mirrored) {
        counterparts.insert(lower(m.second));
        EXPECT_EQ(o.count(m.first), 0u) << m.first;
    }
    // The corporate alice has none: the local alice holds its DN and stays
    // what she is (and is delivered as herself after the corporate people).
    counterparts.insert(lower(staff("Alice Corporate")));
    EXPECT_EQ(counterparts, delivered);
    EXPECT_EQ(mirrored.count(lower(dir().user_dn("alice"))), 0u);
    EXPECT_EQ(o.count(dir().user_dn("alice")), 1u);

    // Exact: the account name, the cn; the entries now carry what their
    // local counterparts hold.
    o = run(ld(), "mjones", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(staff("Mary Jones")));
    EXPECT_EQ(o.rows[0].uid, "mjones");
    EXPECT_EQ(o.rows[0].state, "ON");
    EXPECT_EQ(o.rows[0].corp_dn, staff("Mary Jones"));
    o = run(ld(), "Kate White", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].uid, "kwhite");

    // A name with a comma, written as a DN value is.
    o = run(ld(), "smithj", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower("CN=Smith\\, John," + kStaff));
    EXPECT_EQ(o.rows[0].corp_dn, "CN=Smith\\, John," + kStaff);

    // Disabled and locked accounts: only the disabled bit turns a user off.
    o = run(ld(), "ddisabled", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].state, "OFF");
    o = run(ld(), "llocked", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].state, "ON");

    // Computers and contacts are never people.
    EXPECT_EQ(run(ld(), "WKS01", ORV_SEARCH_PEOPLE).rows.size(), 0u);
    EXPECT_EQ(run(ld(), "Contact Person", ORV_SEARCH_PEOPLE).rows.size(), 0u);

    // A partial search.
    o = run(ld(), "bulk0000*", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.rows.size(), 9u);

    // Nothing on the corporate side: the local directory answers, for a
    // bare name and for a full filter.
    o = run(ld(), "carol", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(dir().user_dn("carol")));
    o = run(ld(), "(uid=carol)", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(dir().user_dn("carol")));
}

TEST_F(AdTest, GroupsMembersAndMemberships) {
    // Groups: the corporate group, then the local ones.
    Outcome o = run(ld(), "Engineering", ORV_SEARCH_GROUPS);
    EXPECT_EQ(o.status, 0);
    ASSERT_GE(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(ad_group("Engineering")));
    o = run(ld(), "*", ORV_SEARCH_GROUPS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(ad_group("Sales")), 1u);
    EXPECT_EQ(o.count("cn=Developers,ou=Groups," + dir().suffix()), 1u);
    for (const auto& m : mirrored_groups()) EXPECT_EQ(o.count(m.first), 0u) << m.first;

    // Members: users first, then those of the nested group, one level only.
    o = run(ld(), "Engineering", ORV_SEARCH_GROUP_MEMBERS);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 4u);
    EXPECT_EQ((std::set<std::string>{o.rows[0].dn, o.rows[1].dn}),
              (std::set<std::string>{lower(staff("John Smith")), lower(staff("Mary Jones"))}));
    EXPECT_EQ((std::set<std::string>{o.rows[2].dn, o.rows[3].dn}),
              (std::set<std::string>{lower(staff("Paul Brown")), lower("CN=Smith\\, John," + kStaff)}));
    // A member DN with a comma in its name.
    o = run(ld(), "Platform", ORV_SEARCH_GROUP_MEMBERS);
    EXPECT_EQ(o.count("CN=Smith\\, John," + kStaff), 1u);
    EXPECT_EQ(o.count(staff("Kate White")), 1u);

    // A local group's members are local users: delivered as they are,
    // never mirrored as corporate ones (nothing written, no 68).
    const size_t mirrored_before = mirrored_users().size();
    o = run(ld(), "Developers", ORV_SEARCH_GROUP_MEMBERS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(dir().user_dn("alice")), 1u);
    EXPECT_NE(ldapErrCode, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(mirrored_users().size(), mirrored_before);
    for (const Row& r : o.rows) EXPECT_EQ(r.corp_dn, "") << r.dn;

    // Groups of a user, also of the one whose DN needs escaping in a filter.
    o = run(ld(), "jsmith", ORV_SEARCH_USER_GROUPS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(ad_group("Engineering")), 1u);
    EXPECT_EQ(o.count(ad_group("ZorlaUsers")), 1u);
    EXPECT_EQ(o.count(ad_group("Sales")), 0u);
    o = run(ld(), "smithj", ORV_SEARCH_USER_GROUPS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(ad_group("Platform")), 1u);
    EXPECT_EQ(o.count(ad_group("ZorlaUsers")), 1u);

    // Membership of one user in one group.
    o = run(ld(), "(uid=kwhite)(groupCN=Sales)", ORV_SEARCH_USER_GROUP_MEMBERSHIP);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(ad_group("Sales")));
    o = run(ld(), "(uid=smithj)(groupCN=Platform)", ORV_SEARCH_USER_GROUP_MEMBERSHIP);
    EXPECT_EQ(o.status, 0);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(ad_group("Platform")));
    o = run(ld(), "(uid=jsmith)(groupCN=Sales)", ORV_SEARCH_USER_GROUP_MEMBERSHIP);
    EXPECT_EQ(o.rows.size(), 0u);
}

// The member walk reads its members a window ahead: the domain controller
// matches them by "distinguishedName" at the first attempt (one search of
// OU=Staff for pbrown and smithj, whose name has an escaped comma, one of
// their counterparts), and the entries are those of the member-by-member
// walk.
TEST_F(AdTest, MemberWalkReadsAheadByDistinguishedName) {
    orv::set_member_read_ahead_enabled(false);
    orvtest::member_entries(ld(), ad_group("Platform"));  // counterparts made where missing
    const std::vector<orvtest::Entry> reference = orvtest::member_entries(ld(), ad_group("Platform"));
    orv::set_member_read_ahead_enabled(true);
    int window_requests = -1;
    const std::vector<orvtest::Entry> ahead = orvtest::member_entries(
        ld(), ad_group("Platform"), [&](size_t n) {
            if (n == 2) window_requests = orv::corporate_window_requests();
        });
    ASSERT_EQ(reference.size(), 3u);  // pbrown, smithj, then kwhite of Deep
    EXPECT_EQ(ahead, reference);
    EXPECT_EQ(window_requests, 2);
}

TEST_F(AdTest, MetaGroupsRestrictUsersAndGroups) {
    session_.close();
    seed({{"corp_search_base_type", "2"}});
    session_.open(dir());
    ASSERT_NE(ld(), nullptr);
    ASSERT_EQ(PARTITION_INFO->partition_search_base_type, 2);

    // Star: exactly the members of the meta group for users.
    Outcome o = run(ld(), "*", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.status, 0);
    std::set<std::string> corp;
    for (const std::string& dn : o.dns())
        if (dn.find(lower(kBase)) != std::string::npos) corp.insert(dn);
    EXPECT_EQ(corp, (std::set<std::string>{lower(staff("John Smith")), lower(staff("Mary Jones")),
                                           lower(staff("Paul Brown")), lower("CN=Smith\\, John," + kStaff)}));
    // Exact: a member, one whose DN has a comma, and a non-member.
    EXPECT_EQ(run(ld(), "pbrown", ORV_SEARCH_PEOPLE).rows.size(), 1u);
    o = run(ld(), "smithj", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].uid, "smithj");
    o = run(ld(), "kwhite", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.rows.size(), 0u);

    // Groups: the members of the meta group for groups.
    o = run(ld(), "*", ORV_SEARCH_GROUPS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(ad_group("Engineering")), 1u);
    EXPECT_EQ(o.count(ad_group("Platform")), 1u);
    EXPECT_EQ(o.count(ad_group("Sales")), 0u);
    EXPECT_EQ(run(ld(), "Engineering", ORV_SEARCH_GROUPS).count(ad_group("Engineering")), 1u);
    EXPECT_EQ(run(ld(), "Sales", ORV_SEARCH_GROUPS).count(ad_group("Sales")), 0u);

    session_.close();
    seed({});
    session_.open(dir());
}

TEST_F(AdTest, FirstSearchMirrorsSecondUpdatesTheState) {
    session_.close();
    seed({});  // no mirrored objects yet
    session_.open(dir());
    ASSERT_NE(ld(), nullptr);
    ASSERT_EQ(orvlib_get_user_uuid_generation_flag(), 1);

    Outcome o = run(ld(), "ddisabled", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    auto users = mirrored_users();
    const std::string local_dn = lower("uid=ddisabled,ou=People," + dir().suffix());
    ASSERT_EQ(users.count(local_dn), 1u);
    EXPECT_EQ(users[local_dn], staff("Dora Disabled"));
    auto state = local_entries(local_dn, "(objectClass=morvanePerson)", "orvUserState");
    EXPECT_EQ(state[local_dn], "OFF");
    auto id = local_entries(local_dn, "(objectClass=morvanePerson)", "orvZORLAUserId");
    ASSERT_EQ(id[local_dn].size(), 36u) << "a UUID";
    EXPECT_EQ(local_entries(local_dn, "(objectClass=*)", "orvFullyQualifiedObjectId")[local_dn], id[local_dn]);

    // A name with a comma: the local DN escapes it.
    run(ld(), "smithj", ORV_SEARCH_PEOPLE);
    users = mirrored_users();
    const std::string smith_local = lower("uid=smithj,ou=People," + dir().suffix());
    ASSERT_EQ(users.count(smith_local), 1u);
    EXPECT_EQ(users[smith_local], "CN=Smith\\, John," + kStaff);

    // The second search creates nothing new and keeps the id; a changed
    // state is written.
    dir().apply_ldif("dn: " + local_dn + "\nchangetype: modify\nreplace: orvUserState\norvUserState: ON\n");
    const size_t before = mirrored_users().size();
    o = run(ld(), "ddisabled", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(mirrored_users().size(), before);
    EXPECT_EQ(local_entries(local_dn, "(objectClass=*)", "orvUserState")[local_dn], "OFF");
    EXPECT_EQ(local_entries(local_dn, "(objectClass=*)", "orvZORLAUserId")[local_dn], id[local_dn]);

    // Groups: a standalone group per corporate group found.
    run(ld(), "Sales", ORV_SEARCH_GROUPS);
    auto groups = mirrored_groups();
    const std::string sales_local = lower("cn=Sales,ou=Groups," + dir().suffix());
    ASSERT_EQ(groups.count(sales_local), 1u);
    EXPECT_EQ(groups[sales_local], ad_group("Sales"));
    const size_t group_count = groups.size();
    run(ld(), "Sales", ORV_SEARCH_GROUPS);
    EXPECT_EQ(mirrored_groups().size(), group_count);

    // Without generated ids a search mirrors nothing, and an existing
    // counterpart is still found by its corporate DN, comma and all.
    orvlib_set_user_uuid_generation_flag(0);
    run(ld(), "mjones", ORV_SEARCH_PEOPLE);
    o = run(ld(), "smithj", ORV_SEARCH_PEOPLE);
    orvlib_set_user_uuid_generation_flag(1);
    EXPECT_EQ(mirrored_users().count(lower("uid=mjones,ou=People," + dir().suffix())), 0u);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].corp_dn, "CN=Smith\\, John," + kStaff);
}

TEST_F(AdTest, ModifyWritesToTheLocalCounterpart) {
    session_.close();
    seed({});  // no counterparts yet
    session_.open(dir());
    ASSERT_NE(ld(), nullptr);
    const std::string people = "ou=People," + dir().suffix();
    const std::string groups = "ou=Groups," + dir().suffix();
    char v1[] = "attr-one";
    char v2[] = "attr-two";
    char* one[] = {v1, nullptr};
    char* two[] = {v2, nullptr};

    // Replacing a value of a corporate user without a counterpart creates
    // the counterpart first; so does adding one.
    EXPECT_EQ(orvlib_modify_ext_s(ld(), staff("Paul Brown").c_str(), 1, 12, one), 0);
    const std::string pbrown = lower("uid=pbrown," + people);
    EXPECT_EQ(mirrored_users()[pbrown], staff("Paul Brown"));
    EXPECT_EQ(local_entries(pbrown, "(objectClass=*)", "orvZORLAUserAttribute")[pbrown], "attr-one");
    EXPECT_EQ(orvlib_modify_ext_s(ld(), "CN=Smith\\, John,OU=Staff,DC=corp,DC=test", 0, 12, two), 0);
    const std::string smithj = lower("uid=smithj," + people);
    EXPECT_EQ(mirrored_users()[smithj], "CN=Smith\\, John," + kStaff);
    // The counterpart found again by its corporate DN takes the next change.
    EXPECT_EQ(orvlib_modify_ext_s(ld(), "CN=Smith\\, John,OU=Staff,DC=corp,DC=test", 1, 12, one), 0);
    EXPECT_EQ(local_entries(smithj, "(objectClass=*)", "orvZORLAUserAttribute")[smithj], "attr-one");
    // Deleting from a user without a counterpart has nothing to delete.
    EXPECT_EQ(orvlib_modify_ext_s(ld(), staff("Kate White").c_str(), 2, 12, one), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(mirrored_users().count(lower("uid=kwhite," + people)), 0u);

    // A corporate group: the standalone group is made, with parentheses in
    // its name kept, and takes the value; the next change finds it again.
    EXPECT_EQ(orvlib_modify_ext_s(ld(), ad_group("Ops (EU)").c_str(), 1, 8, one), 0);
    const std::string ops = lower("cn=Ops (EU)," + groups);
    EXPECT_EQ(mirrored_groups()[ops], ad_group("Ops (EU)"));
    EXPECT_EQ(orvlib_modify_ext_s(ld(), ad_group("Ops (EU)").c_str(), 1, 8, two), 0);
    EXPECT_EQ(local_entries(ops, "(objectClass=*)", "pexZORLAGroupAttribute")[ops], "attr-two");
    EXPECT_EQ(mirrored_groups().size(), 1u);
    EXPECT_EQ(orvlib_modify_ext_s(ld(), ad_group("Sales").c_str(), 2, 8, one), LDAP_NO_SUCH_OBJECT);

    // The groups of a user, found by a member DN with a comma, include the
    // group with parentheses, mirrored once.
    Outcome o = run(ld(), "smithj", ORV_SEARCH_USER_GROUPS);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.count(ad_group("Ops (EU)")), 1u);
    EXPECT_EQ(o.count(ad_group("Platform")), 1u);
    EXPECT_EQ(mirrored_groups().count(ops), 1u);
}

TEST_F(AdTest, AuthenticationWithLocalFallback) {
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", kUserPw), 0);
    EXPECT_EQ(user_authenticated, 1);
    EXPECT_EQ(std::string(_user_id), staff("John Smith"));
    ASSERT_NE(corporate_user_ld, nullptr);
    EXPECT_NE(corporate_user_ld, corporate_admin_ld);
    // The account with a comma in its name.
    EXPECT_EQ(orvlib_authenticate_user(ld(), "smithj", kUserPw), 0);
    EXPECT_EQ(std::string(_user_id), "CN=Smith\\, John," + kStaff);
    // AD's "data 52e" (wrong password) is 49 and final.
    EXPECT_EQ(orvlib_authenticate_user(ld(), "mjones", "Wrong-pass1"), LDAP_INVALID_CREDENTIALS);
    // A disabled account cannot bind.
    EXPECT_EQ(orvlib_authenticate_user(ld(), "ddisabled", kUserPw), LDAP_INVALID_CREDENTIALS);
    // Unknown on the corporate side: the local directory decides.
    EXPECT_EQ(orvlib_authenticate_user(ld(), "bob", kUserPw), 0);
    EXPECT_EQ(std::string(_user_id), dir().user_dn("bob"));
    EXPECT_EQ(orvlib_authenticate_user(ld(), "bob", "Wrong-pass1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_authenticate_user(ld(), "nobody", kUserPw), LDAP_INVALID_CREDENTIALS);
}

TEST_F(AdTest, CorporateConnectionComesBackAfterARestart) {
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", kUserPw), 0);
    ASSERT_EQ(run(ld(), "mjones", ORV_SEARCH_PEOPLE).rows.size(), 1u);

    samba_->stop_server();
    // The probe finds the server down and cannot open it again.
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_INACTIVE);
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_INACTIVE);
    // Searches fall back to the local directory meanwhile.
    Outcome o = run(ld(), "bob", ORV_SEARCH_PEOPLE);
    EXPECT_EQ(o.rows.size(), 1u);

    samba_->start_server();
    // A lost or never re-opened connection counts as a server that went
    // down: the next probe opens it again.
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_ACTIVE);
    ASSERT_NE(corporate_admin_ld, nullptr);
    ASSERT_NE(corporate_user_ld, nullptr);
    o = run(ld(), "mjones", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(staff("Mary Jones")));
    EXPECT_EQ(orvlib_authenticate_user(ld(), "mjones", kUserPw), 0);

    // A wrong administrator password (49) does not start a re-open.
    LDAP* admin = corporate_admin_ld;
    char* saved = PARTITION_INFO->admin_pwd;
    std::string wrong = "Wrong-pass1";
    PARTITION_INFO->admin_pwd = &wrong[0];
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_ACTIVE);
    EXPECT_EQ(corporate_admin_ld, admin);
    PARTITION_INFO->admin_pwd = saved;
}

TEST_F(AdTest, LdapsWithTheTestCa) {
    session_.close();
    seed({{"corp_port", "636"}, {"corp_ssl", "on"}});
    orvlib_setcertdb_path((samba_->tls_dir() + "/").c_str());
    session_.open(dir());
    ASSERT_NE(ld(), nullptr) << session_.status();
    ASSERT_EQ(PARTITION_INFO->orv_ssl_enabled, 1);
    ASSERT_NE(corporate_admin_ld, nullptr);
    EXPECT_EQ(mechanism, ORV_PAGING);
    Outcome o = run(ld(), "jsmith", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(o.rows.size(), 1u);
    EXPECT_EQ(o.rows[0].dn, lower(staff("John Smith")));
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", kUserPw), 0);
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_ACTIVE);
    session_.close();

    // A store that does not trust the server's CA: no corporate session.
    orvlib_setcertdb_path((samba_->tls_untrusted_dir() + "/").c_str());
    session_.open(dir());
    EXPECT_EQ(session_.ld(), nullptr);
    EXPECT_EQ(corporate_admin_ld, nullptr);
    session_.close();

    orvlib_setcertdb_path("");
    seed({});
    session_.open(dir());
}

}  // namespace
