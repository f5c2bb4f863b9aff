// Corporate mode against a second 389 Directory Server playing a plain
// corporate LDAP server (scenario "corporate-directory", dc=corp,dc=test):
// the library detects VLV there and reads groups of class
// groupOfUniqueNames through "uniqueMember"; the membership of one user in
// one group asks for "uniquemember" on such a server, so groups that list
// their members as "member" do not answer it.
//
// Added to the scenario here: QA (groupOfUniqueNames: jsmith, kwhite and
// the group QA Leads) and QA Leads (groupOfUniqueNames: mjones).
#include <gtest/gtest.h>

#include <ldap.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "corporate_support.hpp"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& dir() { return orv::testbed::Environment::directory(); }

const std::string kCorp = "dc=corp,dc=test";

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::vector<std::string> dns_of(LDAP* ld, const std::string& filter, int type, int* status) {
    std::vector<std::string> out;
    LDAPMessage* res = nullptr;
    *status = orvlib_search_ext_s(ld, filter.c_str(), type, &res);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur; cur = orvlib_next_entry(ld, &entry, cur)) {
        char** vals = orvlib_get_entry_vals(entry, 0);
        out.push_back(lower(vals && vals[0] ? vals[0] : ""));
        orvlib_free_values(vals);
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    orvlib_orvmessage_free(res);
    return out;
}

size_t count(const std::vector<std::string>& v, const std::string& dn) {
    return std::count(v.begin(), v.end(), lower(dn));
}

class CorporateLdapTest : public orvtest::CorporateSessionTest {
protected:
    static void SetUpTestSuite() {
        corp_ = std::make_unique<Directory>(
            Options().with_scenario("corporate-directory").with_suffix(kCorp).without_plugin());
        const std::string g = ",ou=Groups," + kCorp;
        corp_->apply_ldif("dn: cn=QA Leads" + g +
                          "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\ncn: QA Leads\n"
                          "uniqueMember: " + corp_->user_dn("mjones") + "\n\n"
                          "dn: cn=QA" + g +
                          "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\ncn: QA\n"
                          "uniqueMember: " + corp_->user_dn("jsmith") + "\nuniqueMember: " +
                          corp_->user_dn("kwhite") + "\nuniqueMember: cn=QA Leads" + g + "\n");
        orvtest::use_partition(dir(), *corp_);
    }
    static std::string group(const std::string& cn) { return "cn=" + cn + ",ou=Groups," + kCorp; }

};

TEST_F(CorporateLdapTest, VirtualListViewIsDetected) {
    EXPECT_EQ(mechanism, ORV_VLV);
    EXPECT_EQ(operatingMechanism, ORV_VLV);
    EXPECT_EQ(session_.status(), 0);
    int on = -1;
    ASSERT_EQ(ldap_get_option(corporate_admin_ld, LDAP_OPT_REFERRALS, &on), LDAP_OPT_SUCCESS);
    EXPECT_EQ(on, 0);
}

TEST_F(CorporateLdapTest, SearchTypesWithUniqueMemberGroups) {
    int status = -1;
    auto people = dns_of(ld(), "jsmith", ORV_SEARCH_PEOPLE, &status);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(people.size(), 1u);
    EXPECT_EQ(people[0], lower(corp_->user_dn("jsmith")));

    // Star: the corporate people, then the local ones, mirrored ones once.
    people = dns_of(ld(), "*", ORV_SEARCH_PEOPLE, &status);
    EXPECT_EQ(status, 0);
    const auto first_local = std::find(people.begin(), people.end(), lower(dir().user_dn("bob")));
    ASSERT_NE(first_local, people.end());
    EXPECT_EQ(count(people, corp_->user_dn("kwhite")), 1u);
    EXPECT_LT(std::find(people.begin(), people.end(), lower(corp_->user_dn("kwhite"))), first_local);
    EXPECT_EQ(std::set<std::string>(people.begin(), people.end()).size(), people.size());

    auto groups = dns_of(ld(), "QA", ORV_SEARCH_GROUPS, &status);
    EXPECT_EQ(status, 0);
    ASSERT_GE(groups.size(), 1u);
    EXPECT_EQ(groups[0], lower(group("QA")));

    // Members through uniqueMember, then the nested group's.
    auto members = dns_of(ld(), "QA", ORV_SEARCH_GROUP_MEMBERS, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(members, (std::vector<std::string>{lower(corp_->user_dn("jsmith")), lower(corp_->user_dn("kwhite")),
                                                 lower(corp_->user_dn("mjones"))}));

    // Groups of a user: both uniqueMember and member groups.
    groups = dns_of(ld(), "kwhite", ORV_SEARCH_USER_GROUPS, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(count(groups, group("QA")), 1u);
    EXPECT_EQ(count(groups, group("Sales")), 1u);
    EXPECT_EQ(count(groups, group("Engineering")), 0u);

    // Membership asks for "uniquemember": QA answers, Sales (member) not.
    groups = dns_of(ld(), "(uid=kwhite)(groupCN=QA)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(groups, std::vector<std::string>{lower(group("QA"))});
    groups = dns_of(ld(), "(uid=kwhite)(groupCN=Sales)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, &status);
    EXPECT_EQ(groups.size(), 0u);
    groups = dns_of(ld(), "(uid=mjones)(groupCN=QA)", ORV_SEARCH_USER_GROUP_MEMBERSHIP, &status);
    EXPECT_EQ(groups.size(), 0u);
}

TEST_F(CorporateLdapTest, AuthenticationAndRestart) {
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", "Secret123!"), 0);
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", "Wrong-pass1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_authenticate_user(ld(), "carol", "Secret123!"), 0);  // local only
    EXPECT_EQ(orvlib_authenticate_user(ld(), "jsmith", "Secret123!"), 0);
    corp_->stop_server();
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_INACTIVE);
    corp_->start_server();
    EXPECT_EQ(orvlib_get_connection_status(ld()), ORV_LDAPLIB_CONNECTION_ACTIVE);
    ASSERT_NE(corporate_admin_ld, nullptr);
    int status = -1;
    auto people = dns_of(ld(), "mjones", ORV_SEARCH_PEOPLE, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(people, std::vector<std::string>{lower(corp_->user_dn("mjones"))});
}

}  // namespace
