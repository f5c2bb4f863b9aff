// Every public operation given a NULL handle, a handle without a session, or
// a session whose server is gone answers a status and never crashes; the
// allocation counter ends where it started.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "../api_sweep.hpp"
#include "orvldap.h"

namespace {

using orvtest::closed_port;

using orvtest::run_all;

TEST(PublicApi, NoSessionNeverCrashesAndReportsStatus) {
    const int start = _memCnt;
    orvlib_init();

    // A NULL handle: the invalid-session status everywhere it is checked.
    for (const auto& [name, outcome] : run_all(nullptr)) {
        EXPECT_NE(outcome.status, 0) << name;
        EXPECT_FALSE(outcome.returned_something) << name;
    }
    EXPECT_EQ(orvlib_authenticate_user(nullptr, "a", "b"), 3007);
    EXPECT_EQ(orvlib_search_ext_s(nullptr, "*", 5001, nullptr), 3007);
    EXPECT_EQ(orvlib_get_connection_status(nullptr), 3007);
    EXPECT_EQ(orvlib_get_password_expiry_time(nullptr), -1);

    // A handle that is not the library's session, no session open: the
    // library's own connection is NULL behind it.
    const int port = closed_port();
    LDAP* stranger = ldap_init("127.0.0.1", port);
    ASSERT_NE(stranger, nullptr);
    ASSERT_EQ(orv_ld, nullptr);
    for (const auto& [name, outcome] : run_all(stranger)) {
        EXPECT_FALSE(outcome.returned_something) << name;
    }
    EXPECT_EQ(orvlib_get_connection_status(stranger), 3041);

    // The library's connection points at a server that has gone away.
    orv_ld = ldap_init("127.0.0.1", port);
    ASSERT_NE(orv_ld, nullptr);
    for (const auto& [name, outcome] : run_all(orv_ld ? orv_ld : stranger)) {
        EXPECT_FALSE(outcome.returned_something) << name;
    }

    EXPECT_EQ(orvlib_unbind(stranger), 0);
    ldap_unbind_ext_s(stranger, nullptr, nullptr);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(_memCnt, start);
}

}  // namespace
