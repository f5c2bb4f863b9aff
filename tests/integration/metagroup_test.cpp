// A corporate partition restricted by its meta group for users: an exact
// people search answers "no such object" when any one of its matches is no
// member, wherever that match falls among the result pages.
#include <gtest/gtest.h>

#include <string>

#include "orvldap.h"
#include "session_support.hpp"
#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

namespace {

constexpr int kCorpUsers = 1001;  // one more than a page

std::string corp_uid(int i) {
    char uid[16];
    std::snprintf(uid, sizeof uid, "corp%05d", i);
    return uid;
}

// Makes the meta group list corp users first..last.
void set_meta_members(Directory& corp, int first, int last) {
    std::string ldif = "dn: cn=ZorlaUsers,ou=Groups," + corp.suffix() +
                       "\nchangetype: modify\nreplace: member\n";
    for (int i = first; i <= last; ++i) ldif += "member: " + corp.user_dn(corp_uid(i)) + "\n";
    corp.apply_ldif(ldif);
}

// Status of an exact people search on the partition, and its entries.
int exact_search(LDAP* ld, int* entries) {
    LDAPMessage* res = nullptr;
    const int rc = orvlib_search_ext_s(ld, "givenName=Corp", ORV_SEARCH_PEOPLE, &res);
    *entries = 0;
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur && entry;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        ++*entries;
    }
    orvlib_orvmessage_free(res);
    return rc;
}

}  // namespace

TEST(MetaGroup, ExactSearchChecksEveryMatchOnEveryPage) {
    Directory corp(Options()
                       .with_scenario("corporate-directory")
                       .with_suffix("dc=corp,dc=test")
                       .with_param("corp_users", std::to_string(kCorpUsers))
                       .without_plugin());
    auto& local = orv::testbed::Environment::directory();
    orvtest::use_partition(local, corp, {{"corp_search_base_type", "2"}});

    for (int m : {ORV_PAGING, ORV_VLV}) {
        SCOPED_TRACE(m == ORV_PAGING ? "paged results" : "virtual list view");
        orvtest::Session session(local);
        ASSERT_NE(session.ld(), nullptr) << session.status();
        ASSERT_EQ(PARTITION_INFO->partition_search_base_type, 2);
        // Both ways of paging through the corporate results.
        mechanism = m;
        operatingMechanism = m;
        int entries = 0;

        // Every match a member: all of them, across both pages.
        set_meta_members(corp, 1, kCorpUsers);
        EXPECT_EQ(exact_search(session.ld(), &entries), 0);
        EXPECT_EQ(entries, kCorpUsers);

        // The non-member among the first 1000, and as the 1001st: the same
        // answer.  The corporate search refuses; the local directory, where
        // no such person lives, answers for the fallback.
        set_meta_members(corp, 2, kCorpUsers);
        const int first_page_status = exact_search(session.ld(), &entries);
        EXPECT_EQ(first_page_status, 32);
        EXPECT_EQ(entries, 0);
        set_meta_members(corp, 1, kCorpUsers - 1);
        EXPECT_EQ(exact_search(session.ld(), &entries), first_page_status);
        EXPECT_EQ(entries, 0);

        // A corporate user logs in (the user connection is a connection of
        // its own), then the caller opens a second session context without
        // unbinding: no connection of the first survives to be used.
        set_meta_members(corp, 1, kCorpUsers);
        EXPECT_EQ(orvlib_authenticate_user(session.ld(), "corp00001", "Secret123!"), 0);
        ASSERT_NE(corporate_user_ld, nullptr);
        ASSERT_NE(corporate_user_ld, corporate_admin_ld);
        LDAP* again = orvlib_getsession_context(local.host().c_str(), local.port(), nullptr, 0);
        ASSERT_NE(again, nullptr);
        mechanism = m;
        operatingMechanism = m;
        EXPECT_EQ(exact_search(again, &entries), 0);
        EXPECT_EQ(entries, kCorpUsers);
        session.close();
        // The partition record of the second session context is released
        // outside the allocation counter, like every partition record.
        EXPECT_EQ(session.outstanding(), 1);
    }
    local.reseed("standalone");
}
