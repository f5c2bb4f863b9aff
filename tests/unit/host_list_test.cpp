// Host lists ("host1:port1 host2", blank-separated as ldap_init takes them):
// the URIs that the plain and SSL openings make of them, and a session over
// a list of servers none of which is there.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "../api_sweep.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvplatforms.h"

namespace {

using orvtest::closed_port;

std::string uri_of(LDAP* ld) {
    char* uri = nullptr;
    if (!ld || ldap_get_option(ld, LDAP_OPT_URI, &uri) != LDAP_OPT_SUCCESS || !uri) return "";
    std::string text = uri;
    ldap_memfree(uri);
    return text;
}

}  // namespace

TEST(HostList, EachHostKeepsItsPortOrTakesTheArgument) {
    LDAP* plain = orv::open_plain("ds1.example:1389 ds2.example", 389);
    EXPECT_EQ(uri_of(plain), "ldap://ds1.example:1389/??base ldap://ds2.example:389/??base");
    orv::unbind(plain);

    LDAP* ssl = ldap_ssl_init("ds1.example:1636  ds2.example [::1]:2636 [::1]", 636, nullptr);
    EXPECT_EQ(uri_of(ssl),
              "ldaps://ds1.example:1636 ldaps://ds2.example:636 ldaps://[::1]:2636 ldaps://[::1]:636");
    orv::unbind(ssl);
}

// Every server of the list refuses: the session answers the refusal of the
// last one and holds nothing.
TEST(HostList, SessionOverAListOfAbsentServers) {
    const int start = _memCnt;
    const std::string list =
        "127.0.0.1:" + std::to_string(closed_port()) + " 127.0.0.1:" + std::to_string(closed_port());
    orvlib_init();
    ORVLibInfo* info = nullptr;
    EXPECT_EQ(orvlib_getsession_context(list.c_str(), 389, &info, 0), nullptr);
    EXPECT_EQ(ldapErrCode, 81);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}
