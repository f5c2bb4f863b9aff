// People and group-member entries with roles and databases read once per
// search: every entry is the same, attribute for attribute and value for
// value in the same order, as when each entry asks the directory for its own
// roles and databases; and the number of requests no longer follows the
// number of entries.
//
// Data (scenario standalone-roles, 60 generated users, 6 generated roles):
// member DNs in four spellings (upper case, blanks after commas, blanks
// around every separator), users in no, one and several roles, a role
// without database id, a role that is no access role, a role whose member
// list repeats a user (the directory keeps one of two equal values); the
// standalone roles (one without database id) on top.

#include <gtest/gtest.h>

#include <ldap.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "orv_member_entries.hpp"
#include "orv_role_index.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options()
                            .with_scenario("standalone-roles")
                            .with_param("large_users", "60")
                            .with_param("large_roles", "6"));

orv::testbed::Directory& directory() { return orv::testbed::Environment::directory(); }

struct Attribute {
    long id;
    std::string name;
    std::vector<std::string> values;
    bool operator==(const Attribute& o) const {
        return id == o.id && name == o.name && values == o.values;
    }
};
using Entry = std::vector<Attribute>;

Entry copy_entry(const ORVLibEntry* entry) {
    Entry out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; a && *a; ++a) {
        Attribute attr{static_cast<long>((*a)->attrId), (*a)->attrName ? (*a)->attrName : "<null>", {}};
        for (char** v = (*a)->attrVals; v && *v; ++v) attr.values.emplace_back(*v);
        out.push_back(attr);
    }
    return out;
}

// Runs one search and collects every entry of the full iteration.
std::vector<Entry> collect(LDAP* ld, const char* filter, int type) {
    std::vector<Entry> entries;
    LDAPMessage* res = nullptr;
    const int rc = orvlib_search_ext_s(ld, filter, type, &res);
    EXPECT_EQ(rc, 0);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        entries.push_back(copy_entry(entry));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    orvlib_orvmessage_free(res);
    return entries;
}

// Search operations the server has answered so far (its SNMP counters, read
// as the root DN; the read itself counts one).
long server_searches() {
    LDAP* ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, directory().uri().c_str()), LDAP_SUCCESS);
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    const std::string pw = directory().root_pw();
    berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
    long count = -1;
    if (ldap_sasl_bind_s(ld, directory().root_dn().c_str(), LDAP_SASL_SIMPLE, &cred, nullptr,
                         nullptr, nullptr) == LDAP_SUCCESS) {
        LDAPMessage* res = nullptr;
        char* attrs[] = {const_cast<char*>("searchops"), nullptr};
        if (ldap_search_ext_s(ld, "cn=snmp,cn=monitor", LDAP_SCOPE_BASE, "(objectClass=*)", attrs,
                              0, nullptr, nullptr, nullptr, 0, &res) == LDAP_SUCCESS) {
            berval** v = ldap_get_values_len(ld, ldap_first_entry(ld, res), "searchops");
            if (v && v[0]) count = std::stol(std::string(v[0]->bv_val, v[0]->bv_len));
            ber_bvecfree(v);
        }
        ldap_msgfree(res);
    }
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return count;
}

const Attribute* find(const Entry& e, long id) {
    for (const Attribute& a : e)
        if (a.id == id) return &a;
    return nullptr;
}

class SharedRolesTest : public ::testing::Test {
protected:
    void SetUp() override {
        session_.open(directory());
        ASSERT_NE(session_.ld(), nullptr);
    }
    void TearDown() override {
        orv::set_role_index_enabled(true);
        orv::set_member_read_ahead_enabled(true);
        session_.close();
    }
    // The entries once with every entry (and every group member) asking the
    // directory, once with the index and the members' entries read ahead;
    // the search requests each run made.
    void both(const char* filter, int type, std::vector<Entry>& reference,
              std::vector<Entry>& indexed, long& reference_requests, long& indexed_requests) {
        orv::set_role_index_enabled(false);
        orv::set_member_read_ahead_enabled(false);
        long before = server_searches();
        reference = collect(session_.ld(), filter, type);
        reference_requests = server_searches() - before - 1;
        orv::set_role_index_enabled(true);
        orv::set_member_read_ahead_enabled(true);
        before = server_searches();
        indexed = collect(session_.ld(), filter, type);
        indexed_requests = server_searches() - before - 1;
    }
    orvtest::Session session_;
};

TEST_F(SharedRolesTest, PeopleEntriesEqualThoseOfPerEntryLookupsWithAFewRequests) {
    std::vector<Entry> reference, indexed;
    long reference_requests = 0, indexed_requests = 0;
    both("*", ORV_SEARCH_PEOPLE, reference, indexed, reference_requests, indexed_requests);

    ASSERT_GE(reference.size(), 70u);  // 60 generated users and the standalone ones
    ASSERT_EQ(indexed.size(), reference.size());
    for (std::size_t i = 0; i < reference.size(); ++i) EXPECT_EQ(indexed[i], reference[i]) << i;

    // The data covers what it claims to: users in no, one and several roles,
    // roles whose databases are reported and roles that add none.
    std::map<std::size_t, int> by_role_count;
    std::set<std::string> databases;
    for (const Entry& e : reference) {
        const Attribute* roles = find(e, 19);
        ++by_role_count[roles ? roles->values.size() : 0];
        if (const Attribute* dbs = find(e, 40))
            databases.insert(dbs->values.begin(), dbs->values.end());
    }
    EXPECT_GT(by_role_count[0], 0);
    EXPECT_GT(by_role_count[1], 0);
    EXPECT_GT(by_role_count[3], 0);
    EXPECT_EQ(databases.size(), 5u);  // 4 generated access roles with ids, zorladb

    // Each entry asks for its roles, and for each role its database; the
    // index: the windows, two checked entries and one read of the roles.
    EXPECT_GT(reference_requests, static_cast<long>(reference.size()));
    EXPECT_GT(indexed_requests, 0);
    EXPECT_LE(indexed_requests, 12);
}

TEST_F(SharedRolesTest, GroupMemberEntriesEqualThoseOfPerEntryLookups) {
    // Members: the 60 generated users (the first in upper case, some with
    // blanks after the commas), alice, a DN without entry, a nested group
    // (bob and a user already listed: delivered again), a DN outside the
    // suffix, a DN the comparison cannot settle (a quoted value).  The
    // directory keeps no two equal member values, whatever their spelling.
    const std::string suffix = directory().suffix();
    std::string ldif = "dn: cn=Everyone,ou=Groups," + suffix +
                       "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
                       "cn: Everyone\n";
    char uid[32];
    for (int i = 60; i >= 1; --i) {
        std::snprintf(uid, sizeof uid, "user%05d", i);
        if (i == 60)
            ldif += "uniqueMember: UID=" + std::string(uid) + ",OU=PEOPLE," + suffix + "\n";
        else if (i % 7 == 0)
            ldif += "uniqueMember: uid=" + std::string(uid) + ", ou=People, " + suffix + "\n";
        else
            ldif += "uniqueMember: uid=" + std::string(uid) + ",ou=People," + suffix + "\n";
    }
    ldif += "uniqueMember: uid=alice,ou=People," + suffix + "\n";
    ldif += "uniqueMember: uid=gone,ou=People," + suffix + "\n";  // no such user: skipped
    ldif += "uniqueMember: cn=Inner,ou=Groups," + suffix + "\n";  // nested: its users follow
    ldif += "uniqueMember: uid=alice,ou=Elsewhere,o=other\n";     // outside the suffix
    ldif += "uniqueMember: uid=\"bob\",ou=People," + suffix + "\n";  // quoted value
    ldif += "\ndn: cn=Inner,ou=Groups," + suffix +
            "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\ncn: Inner\n"
            "uniqueMember: uid=bob,ou=People," + suffix + "\nuniqueMember: uid=user00002,ou=People," +
            suffix + "\n";
    directory().apply_ldif(ldif);

    std::vector<Entry> reference, indexed;
    long reference_requests = 0, indexed_requests = 0;
    const std::string filter = "cn=Everyone,ou=Groups," + suffix;
    both(filter.c_str(), ORV_SEARCH_GROUP_MEMBERS, reference, indexed, reference_requests,
         indexed_requests);
    directory().apply_ldif("dn: cn=Everyone,ou=Groups," + suffix + "\nchangetype: delete\n\n" +
                           "dn: cn=Inner,ou=Groups," + suffix + "\nchangetype: delete\n");

    // 60 users, alice, bob by his quoted DN, then the nested group's two.
    ASSERT_EQ(reference.size(), 64u);
    ASSERT_EQ(indexed.size(), reference.size());
    for (std::size_t i = 0; i < reference.size(); ++i) EXPECT_EQ(indexed[i], reference[i]) << i;
    // Per member: one read each plus the roles and databases; read ahead:
    // the users' container in one search, the odd members one by one.
    EXPECT_GT(reference_requests, 66);
    EXPECT_LE(indexed_requests, 20);
}

TEST_F(SharedRolesTest, RoleSetTheIndexCannotCompareIsAnsweredByTheDirectory) {
    // A member DN with a non-ASCII value: its comparison rules are the
    // directory's own, so the search asks the directory for every entry.
    const std::string suffix = directory().suffix();
    const std::string role = "cn=Odd Role,ou=roles," + suffix;
    directory().apply_ldif("dn: " + role +
                           "\nchangetype: add\nobjectClass: top\nobjectClass: accessRole\n"
                           "objectClass: morvaneRole\ncn: Odd Role\norvZORLADatabaseId: odd-db\n"
                           "member: cn=J\xc3\xbcrgen,ou=People," + suffix +
                           "\nmember: uid=user00001,ou=People," + suffix + "\n");
    std::vector<Entry> reference, indexed;
    long reference_requests = 0, indexed_requests = 0;
    both("*", ORV_SEARCH_PEOPLE, reference, indexed, reference_requests, indexed_requests);
    directory().apply_ldif("dn: " + role + "\nchangetype: delete\n");

    ASSERT_EQ(indexed.size(), reference.size());
    for (std::size_t i = 0; i < reference.size(); ++i) EXPECT_EQ(indexed[i], reference[i]) << i;
    bool odd_seen = false;
    for (const Entry& e : indexed)
        if (const Attribute* dbs = find(e, 40))
            for (const std::string& v : dbs->values) odd_seen = odd_seen || v == "odd-db";
    EXPECT_TRUE(odd_seen);
    EXPECT_GT(indexed_requests, static_cast<long>(indexed.size()));
    EXPECT_EQ(orv::current_role_index(), nullptr);
}

}  // namespace
