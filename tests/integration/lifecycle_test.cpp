// The life of a search and of a session: what the library answers after
// unbind, after uninitialise and after a connection it could not open again,
// and searches made inside other calls (tokens, token validation, database
// users) that must leave the caller's iteration where it was.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "../api_sweep.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "session_support.hpp"
#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone-large").with_param("large_users", "5000"));

namespace {

Directory& dir() { return orv::testbed::Environment::directory(); }

std::string first_value(ORVLibEntry* entry, int id) {
    char** vals = orvlib_get_entry_vals(entry, id);
    std::string v = vals && vals[0] ? vals[0] : "";
    orvlib_free_values(vals);
    return v;
}

// Every operation that takes the handle answers without returning
// anything, and the search calls say the session is gone.
void expect_no_session(LDAP* stale, const char* when) {
    LDAPMessage* res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(stale, "alice", ORV_SEARCH_PEOPLE, &res), 3007) << when;
    EXPECT_EQ(res, nullptr);
    ORVLibEntry* entry = nullptr;
    EXPECT_EQ(orvlib_first_entry(stale, &entry, nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, 3007) << when;
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(orvlib_authenticate_user(stale, "alice", "Secret123!"), 3007) << when;
    EXPECT_EQ(orvlib_authenticate_database_user(stale, "alice", "Secret123!", "r"), 3007) << when;
    EXPECT_EQ(orvlib_change_user_password(stale, "alice", "Secret123!", "Other456!"), 3007) << when;
    // The status probe comes last in the sweep: it may open the connection
    // again.
    for (const auto& [name, outcome] : orvtest::run_all(stale)) {
        EXPECT_FALSE(outcome.returned_something) << when << ": " << name;
    }
}

// A session with a people search half-way through its first page: the
// handle, the caller's first page and the cursor of its first entry.
struct SearchInProgress {
    LDAP* ld = nullptr;
    LDAPMessage* res = nullptr;
    LDAPMessage* cursor = nullptr;
};

void open_with_search(SearchInProgress& s) {
    orvlib_init();
    s.ld = orvlib_getsession_context(dir().host().c_str(), dir().port(), nullptr, 0);
    ASSERT_NE(s.ld, nullptr);
    ASSERT_EQ(ldapErrCode, 0) << "a session that stands stores success";
    ASSERT_EQ(orvlib_search_ext_s(s.ld, "Load User*", ORV_SEARCH_PEOPLE, &s.res), 0);
    ORVLibEntry* entry = nullptr;
    s.cursor = orvlib_first_entry(s.ld, &entry, s.res);
    ASSERT_NE(s.cursor, nullptr);
    orvlib_orvlibentry_free(entry);
}

}  // namespace

// A search in progress when the session ends: its cursor is never read
// again, every call answers a status, nothing leaks (the sanitizer build
// runs this too).
TEST(Lifecycle, EveryOperationAfterUnbindUninitialiseAndLostConnection) {
    const int start = _memCnt;
    SearchInProgress s;
    ASSERT_NO_FATAL_FAILURE(open_with_search(s));
    LDAP* ld = s.ld;
    LDAPMessage* res = s.res;
    LDAPMessage* cursor = s.cursor;
    ORVLibEntry* entry = nullptr;

    // After unbind, with a people search half-way through its first page.
    EXPECT_EQ(orvlib_unbind(ld), 0);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(orvlib_next_entry(ld, &entry, cursor), nullptr);
    EXPECT_EQ(ldapErrCode, 3007);
    EXPECT_EQ(entry, nullptr);
    expect_no_session(ld, "after unbind");
    orvlib_orvmessage_free(res);  // the caller's first page is the caller's

    // The status probe (the last call of the sweep) opened the connection
    // again, the server being there: the session is usable as before.
    EXPECT_EQ(orvlib_get_connection_status(ld), 3040);
    EXPECT_EQ(ldapErrCode, 0);
    ASSERT_NE(orv_ld, nullptr);
    res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(orv_ld, "alice", ORV_SEARCH_PEOPLE, &res), 0);
    orvlib_orvmessage_free(res);

    // After uninitialise: nothing to open again.
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    expect_no_session(ld, "after uninitialise");
    EXPECT_EQ(orvlib_get_connection_status(ld), 3041);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}

TEST(Lifecycle, ReopenThatFailsLeavesNoHandleBehind) {
    const int start = _memCnt;
    SearchInProgress s;
    ASSERT_NO_FATAL_FAILURE(open_with_search(s));
    LDAP* ld = s.ld;
    LDAPMessage* res = s.res;
    LDAPMessage* cursor = s.cursor;
    ORVLibEntry* entry = nullptr;

    dir().stop_server();
    EXPECT_EQ(orvlib_get_connection_status(ld), 3041);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(orvlib_next_entry(ld, &entry, cursor), nullptr);
    EXPECT_EQ(ldapErrCode, 3007);
    expect_no_session(ld, "after a failed re-open");
    orvlib_orvmessage_free(res);

    dir().start_server();
    EXPECT_EQ(orvlib_get_connection_status(ld), 3040);
    EXPECT_EQ(ldapErrCode, 0) << "no stale status after the connection came back";
    ASSERT_NE(orv_ld, nullptr);
    res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(orv_ld, "alice", ORV_SEARCH_PEOPLE, &res), 0);
    orvlib_orvmessage_free(res);
    EXPECT_EQ(orvlib_unbind(orv_ld), 0);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}

// Token requests, token validation and database users run searches of
// their own in the middle of the caller's: the caller still sees every one
// of the 5000 people once, across all windows of the search.
TEST(Lifecycle, NestedSearchesKeepTheCallersIteration) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    LDAP* ld = session.ld();

    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld, "Load User*", ORV_SEARCH_PEOPLE, &res), 0);
    std::set<std::string> seen;
    int count = 0, tokens = 0;
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
         cur = orvlib_next_entry(ld, &entry, cur)) {
        ASSERT_NE(entry, nullptr);
        seen.insert(first_value(entry, 3));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        if (count == 999 || count == 1000 || count == 1500) {
            char** token = orvlib_get_sso_navigation_token(ld, dir().user_dn("user00042").c_str());
            ASSERT_NE(token, nullptr) << ldapErrCode;
            ORVSSOToken* sso = orvlib_create_sso_token("ORV_SSO_TOKEN", token[0]);
            ORVLibEntry* user = nullptr;
            EXPECT_EQ(orvlib_validate_sso_token(
                          ld, reinterpret_cast<const ORVSSOToken**>(sso), &user),
                      0u);
            EXPECT_EQ(first_value(user, 3), "user00042");
            orvlib_orvlibentry_free(user);
            orvlib_orvssotoken_free(sso);
            orvlib_free_values(token);
            orvlib_authenticate_database_user(ld, "user00007", "Secret123!", "no-such-repository");
            ++tokens;
        }
        ++count;
    }
    EXPECT_EQ(tokens, 3);
    EXPECT_EQ(count, 5000);
    EXPECT_EQ(seen.size(), 5000u);
    // At its end the iteration stays at its end.
    EXPECT_EQ(orvlib_next_entry(ld, &entry, nullptr), nullptr);
    EXPECT_EQ(entry, nullptr);
    orvlib_orvmessage_free(res);

    // The "cn=" no-op leaves the caller's result pointer and the search as
    // they were.
    res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(ld, "alice", ORV_SEARCH_PEOPLE, &res), 0);
    LDAPMessage* kept = res;
    EXPECT_EQ(orvlib_search_ext_s(ld, "cn=", ORV_SEARCH_PEOPLE, &res), 0);
    EXPECT_EQ(res, kept);
    EXPECT_STREQ(user_input_filter, "cn=");
    EXPECT_NE(orvlib_first_entry(ld, &entry, res), nullptr);
    EXPECT_EQ(first_value(entry, 3), "alice");
    orvlib_orvlibentry_free(entry);
    orvlib_orvmessage_free(res);

    // A failed search hands back no result.
    res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(ld, "nobody-by-this-name", ORV_SEARCH_PEOPLE, &res), 32);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(orvlib_first_entry(ld, &entry, res), nullptr);
    EXPECT_EQ(orvlib_next_entry(ld, &entry, nullptr), nullptr);
    EXPECT_EQ(orvlib_next_entry(ld, &entry, nullptr), nullptr);

    // A successful search leaves no stale status behind.
    ldapErrCode = 81;
    res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(ld, "bob", ORV_SEARCH_PEOPLE, &res), 0);
    EXPECT_EQ(ldapErrCode, 0);
    orvlib_orvmessage_free(res);
    session.close();
    EXPECT_EQ(session.outstanding(), 0);
}
