// The per-search role index: canonical DNs, membership answers in directory
// order, the database id of a role's subtree, and the memory it takes.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "orv_role_index.hpp"

namespace {

const std::string kBase = "dc=orv,dc=test";

std::string canon(const std::string& dn) {
    std::vector<std::string> rdns;
    if (!orv::canonical_dn(dn, rdns)) return "<none>";
    return orv::join_rdns(rdns);
}

TEST(RoleIndexCanonicalDn, SpellingsTheDirectoryEqualsAgreeAndDoubtfulOnesAreRefused) {
    const std::string plain = canon("uid=user00001,ou=People,dc=orv,dc=test");
    EXPECT_EQ(plain, "uid=user00001,ou=people,dc=orv,dc=test");
    for (const char* same : {"UID=USER00001,OU=PEOPLE,DC=ORV,DC=TEST",
                             "uid=user00001, ou=people, dc=orv, dc=test",
                             "uid = user00001 , ou = People , dc = orv , dc = test",
                             "uid=user0000\\31,ou=People,dc=orv,dc=test"})
        EXPECT_EQ(canon(same), plain) << same;
    // Escaped specials stay part of the value; multi-valued RDNs sort.
    EXPECT_EQ(canon("cn=Smith\\, John,ou=People,dc=orv,dc=test"),
              "cn=smith\\, john,ou=people,dc=orv,dc=test");
    EXPECT_EQ(canon("uid=a+cn=B,dc=orv,dc=test"), canon("CN=b + uid=A,dc=orv,dc=test"));
    EXPECT_NE(canon("cn=a b,dc=orv,dc=test"), canon("cn=ab,dc=orv,dc=test"));
    // Forms whose comparison depends on rules beyond this one: no answer.
    for (const char* doubtful : {"cn=J\xc3\xbcrgen,dc=orv,dc=test", "2.5.4.3=x,dc=orv,dc=test",
                                 "cn=#04024869,dc=orv,dc=test", "cn=\"quoted\",dc=orv,dc=test",
                                 "cn=two  blanks,dc=orv,dc=test", "cn=x;dc=orv", "cn=,dc=orv",
                                 "no equals sign", "", "cn=x,", "cn=bad\\q,dc=orv"})
        EXPECT_EQ(canon(doubtful), "<none>") << doubtful;
}

// Roles in directory order: r0 (access, db A) lists u1 twice and u2; r1 (no
// access role, db B) lists u1; r2 (access, no db) lists u3; a nested access
// role r3 below r2 with db C.
orv::RoleIndex sample() {
    orv::RoleIndex index(kBase);
    const std::string a = "A", b = "B", c = "C";
    EXPECT_TRUE(index.add_role("cn=r0,ou=roles," + kBase, {"top", "accessRole", "morvaneRole"},
                               {"uid=u1,ou=People," + kBase, "UID=U1, OU=people, DC=orv, DC=test",
                                "uid=u2,ou=People," + kBase},
                               &a));
    EXPECT_TRUE(index.add_role("cn=r1,ou=roles," + kBase, {"morvaneRole"},
                               {"uid = u1 , ou=People," + kBase}, &b));
    EXPECT_TRUE(index.add_role("cn=r2,ou=roles," + kBase, {"AccessRole", "MORVANEROLE"},
                               {"uid=u3,ou=People," + kBase}, nullptr));
    EXPECT_TRUE(index.add_role("cn=r3,cn=r2,ou=roles," + kBase, {"accessrole", "morvanerole"}, {},
                               &c));
    index.finish();
    return index;
}

TEST(RoleIndex, MembersGetTheirRolesOnceInDirectoryOrder) {
    const orv::RoleIndex index = sample();
    ASSERT_TRUE(index.usable());
    std::vector<std::string> roles;
    ASSERT_TRUE(index.roles_of("uid=U1,ou=people,dc=orv,dc=test", roles));
    EXPECT_EQ(roles, (std::vector<std::string>{"cn=r0,ou=roles," + kBase, "cn=r1,ou=roles," + kBase}));
    ASSERT_TRUE(index.roles_of("uid=u3,ou=People," + kBase, roles));
    EXPECT_EQ(roles, std::vector<std::string>{"cn=r2,ou=roles," + kBase});
    ASSERT_TRUE(index.roles_of("uid=nobody,ou=People," + kBase, roles));
    EXPECT_TRUE(roles.empty());
    // A user DN without a certain form: the directory must answer.
    EXPECT_FALSE(index.roles_of("cn=J\xc3\xbcrgen,ou=People," + kBase, roles));
}

TEST(RoleIndex, DatabaseOfARoleIsThatOfTheFirstAccessRoleInItsSubtree) {
    const orv::RoleIndex index = sample();
    std::string id;
    EXPECT_EQ(index.database_of("CN=r0, ou=Roles," + kBase, id), 1);
    EXPECT_EQ(id, "A");
    EXPECT_EQ(index.database_of("cn=r1,ou=roles," + kBase, id), 0);  // not an access role
    EXPECT_EQ(index.database_of("cn=r2,ou=roles," + kBase, id), 0);  // first match has no id
    EXPECT_EQ(index.database_of("cn=r3,cn=r2,ou=roles," + kBase, id), 1);
    EXPECT_EQ(id, "C");
    EXPECT_EQ(index.database_of("ou=roles," + kBase, id), 1);  // r0 comes first below it
    EXPECT_EQ(id, "A");
    EXPECT_EQ(index.database_of("cn=missing,ou=roles," + kBase, id), 0);
    // Outside the base, or without a certain form: the directory answers.
    EXPECT_EQ(index.database_of("cn=r0,o=elsewhere", id), -1);
    EXPECT_EQ(index.database_of("cn=\"r0\",ou=roles," + kBase, id), -1);

    // Asked again (answers kept by spelling): the same answers and ids.
    for (int pass = 0; pass < 2; ++pass) {
        EXPECT_EQ(index.database_of("cn=r3,cn=r2,ou=roles," + kBase, id), 1);
        EXPECT_EQ(id, "C");
        EXPECT_EQ(index.database_of("CN=r0, ou=Roles," + kBase, id), 1);
        EXPECT_EQ(id, "A");
        EXPECT_EQ(index.database_of("cn=r2,ou=roles," + kBase, id), 0);
        EXPECT_EQ(id, "");
        EXPECT_EQ(index.database_of("cn=r0,o=elsewhere", id), -1);
        EXPECT_EQ(id, "");
    }
}

TEST(RoleIndex, DoubtfulMemberOrMemoryBoundMakesTheIndexDecline) {
    orv::RoleIndex doubtful(kBase);
    EXPECT_FALSE(doubtful.add_role("cn=r,ou=roles," + kBase, {"morvaneRole"},
                                   {"uid=ok,ou=People," + kBase, "cn=J\xc3\xbcrgen," + kBase},
                                   nullptr));
    EXPECT_FALSE(doubtful.usable());
    std::vector<std::string> roles;
    EXPECT_FALSE(doubtful.roles_of("uid=ok,ou=People," + kBase, roles));
    std::string id;
    EXPECT_EQ(doubtful.database_of("cn=r,ou=roles," + kBase, id), -1);

    orv::RoleIndex large(kBase);
    bool ok = true;
    int added = 0;
    for (int r = 0; r < 10000 && ok; ++r, ++added) {
        std::vector<std::string> members;
        for (int i = 0; i < 2000; ++i)
            members.push_back("uid=m" + std::to_string(r) + "x" + std::to_string(i) +
                              ",ou=People," + kBase);
        ok = large.add_role("cn=role" + std::to_string(r) + ",ou=roles," + kBase,
                            {"morvaneRole"}, members, nullptr);
    }
    EXPECT_FALSE(ok);
    EXPECT_FALSE(large.usable());
    EXPECT_GT(added, 20);  // declined at the bound, not at once
    EXPECT_EQ(large.role_count(), 0u);
}

// The figures of bench/README.md: 5000 users, each in one or two roles,
// spread over 20, 2,000 and 20,000 database roles.
TEST(RoleIndex, MemoryForTwentyTwoThousandAndTwentyThousandRoles) {
    for (int count : {20, 2000, 20000}) {
        orv::RoleIndex index(kBase);
        std::vector<std::vector<std::string>> members(count);
        for (int i = 1; i <= 5000; ++i) {
            char uid[64];
            std::snprintf(uid, sizeof uid, "uid=user%05d,ou=People,%s", i, kBase.c_str());
            members[i % count].push_back(uid);
            if (i % 2 == 0) members[(i * 7 + 3) % count].push_back(uid);
        }
        const std::string db = "53933521-2b7b-535f-bf16-883f92fd5001";
        for (int r = 0; r < count; ++r)
            ASSERT_TRUE(index.add_role("orvRoleId=" + std::to_string(r) + "-53933521-2b7b-535f-bf16,ou=roles," + kBase,
                                       {"top", "accessRole", "morvaneRole"}, members[r], &db));
        index.finish();
        ASSERT_TRUE(index.usable());
        EXPECT_LT(index.bytes(), orv::kRoleIndexLimit);
        std::printf("roles %d: %zu bytes\n", count, index.bytes());
    }
}

}  // namespace
