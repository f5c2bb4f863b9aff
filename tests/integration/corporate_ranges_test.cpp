// Corporate mode against a 389 Directory Server that hands out the members
// of large groups only in ranges of 1500, as Active Directory does (the
// test bed's member-ranges plugin): its root entry lists paged results
// first, so the library reads groups of class "group" through "member" in
// ranges.  The corporate server holds bulk users bulk00001... and the
// groups Range3200 (the first 3200 of them) and, outside the sanitizer
// build, Range36000 (36,000 of them); bulk03201 to bulk03300 belong to no
// group of the seed.  The requests the library sends are
// read back from the corporate server's access log.
#include <gtest/gtest.h>

#include <ldap.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orv_member_entries.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "corporate_support.hpp"
#include "session_support.hpp"
#include "testbed.hpp"

#ifndef ORV_MEMBER_RANGES_PLUGIN
#define ORV_MEMBER_RANGES_PLUGIN ""  // not built: the test is disabled
#endif

namespace {

using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& dir() { return orv::testbed::Environment::directory(); }

const std::string kCorp = "dc=corp,dc=test";
// The 36,000-member group: seeding it takes about two minutes and the first
// walk of its members creates a local counterpart of every member (two
// writes each), about four minutes more here, so it is seeded and walked
// only with ORV_RANGES_LARGE=1 in a build without the sanitizers.
bool large_case() {
#ifdef ORV_RANGES_LARGE
    const char* on = std::getenv("ORV_RANGES_LARGE");
    return on && std::string(on) == "1";
#else
    return false;
#endif
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::string group_dn(const std::string& cn) { return "cn=" + cn + ",ou=Groups," + kCorp; }

std::string bulk_dn(int i) {
    char uid[16];
    std::snprintf(uid, sizeof uid, "bulk%05d", i);
    return "uid=" + std::string(uid) + ",ou=People," + kCorp;
}

// Members of a group as the library delivers them (the first value of each
// entry, its DN), with the search's status and the status that ended the
// iteration.
struct Members {
    int status = -1;
    int end_status = -1;
    std::vector<std::string> dns;
};

Members members_of(LDAP* ld, const std::string& group) {
    Members m;
    LDAPMessage* res = nullptr;
    m.status = orvlib_search_ext_s(ld, group.c_str(), ORV_SEARCH_GROUP_MEMBERS, &res);
    ORVLibEntry* entry = nullptr;
    ldapErrCode = 0;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur; cur = orvlib_next_entry(ld, &entry, cur)) {
        char** vals = orvlib_get_entry_vals(entry, 0);
        m.dns.push_back(lower(vals && vals[0] ? vals[0] : ""));
        orvlib_free_values(vals);
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    m.end_status = ldapErrCode;
    orvlib_orvmessage_free(res);
    return m;
}

class CorporateRangesTest : public orvtest::CorporateSessionTest {
protected:
    static void SetUpTestSuite() {
        corp_ = std::make_unique<Directory>(Options()
                                                .with_scenario("corporate-directory")
                                                .with_suffix(kCorp)
                                                .without_plugin()
                                                .with_param("corp_bulk_users", large_case() ? "36000" : "3300")
                                                .with_param("corp_big_groups",
                                                            large_case() ? "Range3200:3200,Range36000:36000"
                                                                         : "Range3200:3200"));
        corp_->apply_ldif(
            "dn: cn=ORV Member Ranges,cn=plugins,cn=config\nchangetype: add\nobjectClass: top\n"
            "objectClass: nsSlapdPlugin\nobjectClass: extensibleObject\ncn: ORV Member Ranges\n"
            "nsslapd-pluginPath: " ORV_MEMBER_RANGES_PLUGIN "\n"
            "nsslapd-pluginInitfunc: orv_member_ranges_init\nnsslapd-pluginType: object\n"
            "nsslapd-pluginEnabled: on\nnsslapd-pluginId: orv-member-ranges\nnsslapd-pluginVersion: 1.0\n"
            "nsslapd-pluginVendor: ORV test bed\nnsslapd-pluginDescription: member values in ranges\n\n"
            "dn: cn=config\nchangetype: modify\nreplace: nsslapd-accesslog-logbuffering\n"
            "nsslapd-accesslog-logbuffering: off\n");
        corp_->restart();
        orvtest::use_partition(dir(), *corp_);
    }

    // The attribute lists of the base searches of `dn` the corporate server
    // logged after line `from` whose attributes name "member".
    static std::vector<std::string> member_requests(const std::string& dn, size_t from) {
        std::vector<std::string> out;
        const std::string base = "base=\"" + lower(dn) + "\" scope=0 ";
        std::vector<std::string> lines = access_log();
        for (size_t i = from; i < lines.size(); ++i) {
            const std::string line = lower(lines[i]);
            if (line.find(" srch ") == std::string::npos || line.find(base) == std::string::npos) continue;
            const std::string::size_type at = line.find("attrs=\"");
            if (at == std::string::npos) continue;
            const std::string attrs = line.substr(at + 7, line.find('"', at + 7) - at - 7);
            if (attrs.compare(0, 6, "member") == 0) out.push_back(attrs);
        }
        return out;
    }
    // Search requests the corporate server logged after line `from`.
    static size_t searches_since(size_t from) {
        std::vector<std::string> lines = access_log();
        size_t n = 0;
        for (size_t i = from; i < lines.size(); ++i) n += lines[i].find(" SRCH ") != std::string::npos;
        return n;
    }
    static std::vector<std::string> access_log() {
        std::ifstream in(corp_->workdir() + "/root/var/log/dirsrv/slapd-" + corp_->name() + "/access");
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
};

// The server answers as a domain controller: paged results chosen, a plain
// "member" request of a large group answered with the first range, later
// ranges by request, the last one named "-*", small groups whole.
TEST_F(CorporateRangesTest, ServerHandsOutLargeGroupsInRanges) {
    EXPECT_EQ(mechanism, ORV_PAGING);
    EXPECT_EQ(session_.status(), 0);

    const std::string big = group_dn("Range3200");
    struct Case {
        const char* asked;
        const char* named;
        int count;
        int first;
    } cases[] = {
        {"member", "member;range=0-1499", 1500, 1},
        {"member;range=1500-2999", "member;range=1500-2999", 1500, 1501},
        {"member;range=3000-4499", "member;range=3000-*", 200, 3001},
        {"member;range=1000-1099", "member;range=1000-1099", 100, 1001},
        {"member;range=4500-5999", nullptr, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.asked);
        const char* attrs[] = {c.asked, nullptr};
        LDAPMessage* res = nullptr;
        ASSERT_EQ(ldap_search_ext_s(corporate_admin_ld, big.c_str(), LDAP_SCOPE_BASE, "(objectclass=group)",
                                    const_cast<char**>(attrs), 0, nullptr, nullptr, nullptr, 0, &res),
                  LDAP_SUCCESS);
        LDAPMessage* e = ldap_first_entry(corporate_admin_ld, res);
        ASSERT_NE(e, nullptr);
        BerElement* ber = nullptr;
        char* name = ldap_first_attribute(corporate_admin_ld, e, &ber);
        if (!c.named) {
            EXPECT_EQ(name, nullptr);
        } else {
            ASSERT_NE(name, nullptr);
            EXPECT_STREQ(name, c.named);
            berval** vals = ldap_get_values_len(corporate_admin_ld, e, name);
            ASSERT_EQ(ldap_count_values_len(vals), c.count);
            EXPECT_EQ(lower(std::string(vals[0]->bv_val, vals[0]->bv_len)), lower(bulk_dn(c.first)));
            ldap_value_free_len(vals);
            EXPECT_EQ(ldap_next_attribute(corporate_admin_ld, e, ber), nullptr);
        }
        ldap_memfree(name);
        ber_free(ber, 0);
        ldap_msgfree(res);
    }
}

// Every member exactly once from the plain request, three ranges with
// values and one empty range; the members are the corporate users.
TEST_F(CorporateRangesTest, MembersOfA3200MemberGroupArriveFromRanges) {
    const std::string big = group_dn("Range3200");
    const size_t mark = access_log().size();
    Members m = members_of(ld(), big);
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.end_status, 0);
    ASSERT_EQ(m.dns.size(), 3200u);
    std::set<std::string> unique(m.dns.begin(), m.dns.end());
    ASSERT_EQ(unique.size(), 3200u);
    for (int i = 1; i <= 3200; i += 1) ASSERT_EQ(unique.count(lower(bulk_dn(i))), 1u) << i;

    EXPECT_EQ(member_requests(big, mark),
              (std::vector<std::string>{"member", "member;range=0-1499", "member;range=1500-2999",
                                        "member;range=3000-4499", "member;range=4500-5999"}));

    // The collection alone, as the star searches of meta groups use it.
    char** dns = get_zorla_dns_paging(corporate_admin_ld, big.c_str(), "group", "member");
    ASSERT_NE(dns, nullptr);
    EXPECT_EQ(count_array_elements(dns), 3200);
    EXPECT_EQ(lower(dns[3199]), lower(bulk_dn(3200)));
    orvlib_free_values(dns);

    // A small group of the same server comes whole from one request.
    const size_t mark2 = access_log().size();
    m = members_of(ld(), group_dn("Sales"));
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.dns.size(), 2u);
    EXPECT_EQ(member_requests(group_dn("Sales"), mark2), (std::vector<std::string>{"member"}));
}

// 36,000 members: 24 ranges with values and one empty one, each member once.
TEST_F(CorporateRangesTest, MembersOfA36000MemberGroupIteratedCompletely) {
    if (!large_case()) GTEST_SKIP() << "36,000 members only with ORV_RANGES_LARGE=1 (normal build)";
    const std::string big = group_dn("Range36000");
    const size_t mark = access_log().size();
    Members m = members_of(ld(), big);
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.end_status, 0);
    ASSERT_EQ(m.dns.size(), 36000u);
    std::set<std::string> unique(m.dns.begin(), m.dns.end());
    ASSERT_EQ(unique.size(), 36000u);
    EXPECT_EQ(unique.count(lower(bulk_dn(1))), 1u);
    EXPECT_EQ(unique.count(lower(bulk_dn(36000))), 1u);

    std::vector<std::string> expected{"member"};
    for (int low = 0; low <= 36000; low += 1500)
        expected.push_back("member;range=" + std::to_string(low) + "-" + std::to_string(low + 1499));
    EXPECT_EQ(member_requests(big, mark), expected);
}

// The corporate walk reads members and their counterparts a window at a
// time; each entry is the one the member-by-member walk delivers, in the
// same order, with a few requests per window instead of two per member.
// Members spelled in capitals or with blanks, a DN without entry and a
// nested group (its users follow) are part of the list.  A write through
// the library to a counterpart read ahead is seen by the walk.
TEST_F(CorporateRangesTest, WindowedWalkDeliversTheEntriesOfTheMemberByMemberWalk) {
    std::string ldif = "dn: " + group_dn("Mixed") + "\nchangetype: add\nobjectClass: top\nobjectClass: group\n"
                       "cn: Mixed\n";
    for (int i = 3201; i <= 3300; ++i) {
        std::string dn = bulk_dn(i);
        if (i % 9 == 0) {
            std::transform(dn.begin(), dn.end(), dn.begin(), [](unsigned char c) { return std::toupper(c); });
        } else if (i % 7 == 0) {
            dn = "uid=bulk0" + std::to_string(i) + ", ou=People, " + kCorp;
        }
        ldif += "member: " + dn + "\n";
        if (i == 3250) ldif += "member: uid=gone,ou=People," + kCorp + "\n";
    }
    ldif += "member: " + group_dn("Sales") + "\n";
    corp_->apply_ldif(ldif);
    const std::string mixed = group_dn("Mixed");

    // First walk member by member: the counterparts are created.
    orv::set_member_read_ahead_enabled(false);
    const std::vector<orvtest::Entry> created = orvtest::member_entries(ld(), mixed);
    ASSERT_EQ(created.size(), 102u);  // 100 bulk users, then the two of Sales
    size_t mark = access_log().size();
    const std::vector<orvtest::Entry> reference = orvtest::member_entries(ld(), mixed);
    const size_t reference_requests = searches_since(mark);
    orv::set_member_read_ahead_enabled(true);
    mark = access_log().size();
    const std::vector<orvtest::Entry> ahead = orvtest::member_entries(ld(), mixed);
    const size_t ahead_requests = searches_since(mark);

    ASSERT_EQ(ahead.size(), reference.size());
    for (size_t i = 0; i < reference.size(); ++i) EXPECT_EQ(ahead[i], reference[i]) << i;
    const std::vector<std::string>* ids = orvtest::values_of(reference[0], 11);
    ASSERT_NE(ids, nullptr) << "the counterpart's attributes are part of the entry";
    EXPECT_EQ(ids->size(), 1u);
    // Member by member: a base read per member (the role searches, answered
    // 32 by this server, stop after the first two members).
    EXPECT_GE(reference_requests, 103u);
    std::printf("corporate searches: member by member %zu, windowed %zu\n", reference_requests, ahead_requests);
    // Windowed: the member list, two checked role searches, a window whose
    // DN attribute does not match on this server and the member read alone
    // that shows it, then a window of 50 and the rest, Sales and its users.
    EXPECT_LE(ahead_requests, 16u);

    // A write to the counterpart of the member after the one just delivered.
    char value[] = "changed-during-walk";
    char* values[] = {value, nullptr};
    const std::string next = bulk_dn(3206);
    const std::vector<orvtest::Entry> written = orvtest::member_entries(ld(), mixed, [&](size_t delivered) {
        if (delivered == 5) {
            EXPECT_EQ(orvlib_modify_ext_s(ld(), next.c_str(), 1, 12, values), 0);
        }
    });
    ASSERT_EQ(written.size(), 102u);
    const std::vector<std::string>* seen = orvtest::values_of(written[5], 12);
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(*seen, std::vector<std::string>{"changed-during-walk"});
    EXPECT_EQ(orvtest::values_of(reference[5], 12), nullptr);
}

}  // namespace
