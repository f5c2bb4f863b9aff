// Two ORV directories in multi-supplier replication, given to the library
// as a fail-over list ("host1:port1 host2:port2" as the host argument): the
// session starts on the first, moves to the second when the status probe
// finds the first gone, authenticates and searches there, and a write made
// on the second reaches the first once it is back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <netinet/in.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "fault_proxy.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

namespace {

using Clock = std::chrono::steady_clock;

Directory& supplier1() { return orv::testbed::Environment::directory(); }

std::unique_ptr<Directory>& supplier2_slot() {
    static std::unique_ptr<Directory> d;
    return d;
}
Directory& supplier2() { return *supplier2_slot(); }

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

std::string failover_list() {
    return supplier1().host() + ":" + std::to_string(supplier1().port()) + " " + supplier2().host() + ":" +
           std::to_string(supplier2().port());
}

// The port of the server the library's connection is attached to.
int connected_port() {
    ber_socket_t fd = -1;
    if (!orv_ld || ldap_get_option(orv_ld, LDAP_OPT_DESC, &fd) != LDAP_OPT_SUCCESS || fd < 0) return 0;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) return 0;
    return ntohs(peer.sin_port);
}

// "description" of alice as the library reads it (attribute id 4).
std::string alice_description(int* status = nullptr) {
    LDAPMessage* res = nullptr;
    int rc = orvlib_search_ext_s(orv_ld, "alice", ORV_SEARCH_PEOPLE, &res);
    if (status) *status = rc;
    std::string value;
    ORVLibEntry* entry = nullptr;
    if (rc == 0 && orvlib_first_entry(orv_ld, &entry, res)) {
        char** vals = orvlib_get_entry_vals(entry, 4);
        if (vals && vals[0]) value = vals[0];
        orvlib_free_values(vals);
    }
    orvlib_orvlibentry_free(entry);
    orvlib_orvmessage_free(res);
    return value;
}

int set_alice_description(const std::string& text) {
    std::string copy = text;
    char* vals[] = {&copy[0], nullptr};
    return orvlib_modify_ext_s(orv_ld, supplier1().user_dn("alice").c_str(), 1, 4, vals);
}

// "description" of alice as a server holds it, read with ldapsearch.
std::string server_description(Directory& dir) {
    auto r = orv::testbed::run_testbed({"ldapsearch", "--workdir", dir.workdir(), "-LLL", "-b",
                                        dir.user_dn("alice"), "-s", "base", "(objectClass=*)", "description"});
    const std::string key = "\ndescription: ";
    size_t at = r.out.find(key);
    if (at == std::string::npos) return "";
    size_t end = r.out.find('\n', at + key.size());
    return r.out.substr(at + key.size(), end == std::string::npos ? std::string::npos : end - at - key.size());
}

// Polls a server until it holds the value; seconds it took, or -1.
double wait_for_description(Directory& dir, const std::string& value) {
    const auto t0 = Clock::now();
    while (seconds_since(t0) < 60) {
        if (server_description(dir) == value) return seconds_since(t0);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return -1;
}

// Waits until a killed server's process is gone for good (the server does
// not start again while its old PID exists, zombie included).
void wait_reaped(int pid) {
    for (int i = 0; i < 400 && kill(pid, 0) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
}

class Replication : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        supplier2_slot() = std::make_unique<Directory>(Options().with_scenario("standalone"));
        orv::testbed::replicate(supplier1(), supplier2());
    }
    static void TearDownTestSuite() { supplier2_slot().reset(); }
    void SetUp() override { orv::g_timeout_seconds = 5; }
    void TearDown() override { orv::g_timeout_seconds = 30; }
};

}  // namespace

TEST_F(Replication, FailOverToTheSecondSupplierAndBack) {
    const int start = _memCnt;
    const std::string password = supplier1().user_pw();
    orvlib_init();
    LDAP* ld = orvlib_getsession_context(failover_list().c_str(), supplier1().port(), nullptr, 0);
    ASSERT_NE(ld, nullptr) << ldapErrCode;
    EXPECT_EQ(ldapErrCode, 0);
    EXPECT_EQ(connected_port(), supplier1().port()) << "the list is tried in its order";
    EXPECT_EQ(orvlib_authenticate_user(orv_ld, "alice", password.c_str()), 0);

    // A change made on the first supplier reaches the second.
    ASSERT_EQ(set_alice_description("written on supplier 1"), 0);
    const double replicated = wait_for_description(supplier2(), "written on supplier 1");
    ASSERT_GE(replicated, 0) << "the change did not reach supplier 2";
    std::printf("[ failover ] a change made on supplier 1 was on supplier 2 after %.2f s\n", replicated);

    // The first supplier dies under the session.
    const int pid1 = supplier1().pid();
    ASSERT_EQ(kill(pid1, SIGKILL), 0);
    while (orv::testbed::process_running(pid1)) std::this_thread::sleep_for(std::chrono::milliseconds(10));

    const auto t0 = Clock::now();
    EXPECT_EQ(orvlib_get_connection_status(ld), 3040);
    const double failover = seconds_since(t0);
    EXPECT_EQ(ldapErrCode, 0);
    ASSERT_NE(orv_ld, nullptr);
    EXPECT_EQ(connected_port(), supplier2().port());
    std::printf("[ failover ] supplier 1 killed: the status probe re-opened the session on supplier 2 in %.3f s\n",
                failover);

    // Authentication and searches go on against the second supplier.
    EXPECT_EQ(orvlib_authenticate_user(orv_ld, "alice", password.c_str()), 0);
    EXPECT_EQ(orvlib_authenticate_user(orv_ld, "alice", "wrong-password"), 49);
    int status = -1;
    EXPECT_EQ(alice_description(&status), "written on supplier 1");
    EXPECT_EQ(status, 0);

    // A session opened while the first supplier is away starts on the second.
    {
        ORVLibInfo* info = nullptr;
        LDAP* second = orvlib_getsession_context(failover_list().c_str(), supplier1().port(), &info, 0);
        ASSERT_NE(second, nullptr) << ldapErrCode;
        EXPECT_EQ(connected_port(), supplier2().port());
        ASSERT_NE(info, nullptr);
        orvlib_memfree(const_cast<char*>(info->orv_server_version));
        orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
        orvlib_orvlibinfo_free(info);
        ld = second;
    }

    // A write on the second supplier reaches the first once it is back.
    ASSERT_EQ(set_alice_description("written on supplier 2"), 0);
    wait_reaped(pid1);
    const auto t1 = Clock::now();
    supplier1().start_server();
    std::string seen;
    {
        // The library's own view of the first supplier alone.
        EXPECT_EQ(orvlib_unbind(orv_ld), 0);
        ld = orvlib_getsession_context(supplier1().host().c_str(), supplier1().port(), nullptr, 0);
        ASSERT_NE(ld, nullptr) << ldapErrCode;
        while (seconds_since(t1) < 60) {
            seen = alice_description();
            if (seen == "written on supplier 2") break;
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
    }
    EXPECT_EQ(seen, "written on supplier 2");
    std::printf("[ failover ] the write made on supplier 2 was read on supplier 1 %.2f s after it was started again\n",
                seconds_since(t1));

    EXPECT_EQ(orvlib_unbind(orv_ld), 0);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}

// A first supplier that still accepts connections but no longer answers
// (stopped): the probe's search and then the first supplier's version check
// each run out of time, and the second supplier takes over.
TEST_F(Replication, HungFirstSupplierGivesWayAfterTheTimeOuts) {
    orv::g_timeout_seconds = 2;
    const int start = _memCnt;
    orvlib_init();
    LDAP* ld = orvlib_getsession_context(failover_list().c_str(), supplier1().port(), nullptr, 0);
    ASSERT_NE(ld, nullptr) << ldapErrCode;
    ASSERT_EQ(connected_port(), supplier1().port());

    const int pid1 = supplier1().pid();
    orvtest::stop_process(pid1);
    const auto t0 = Clock::now();
    const int status = orvlib_get_connection_status(ld);
    const double failover = seconds_since(t0);
    kill(pid1, SIGCONT);
    EXPECT_EQ(status, 3040);
    EXPECT_EQ(connected_port(), supplier2().port());
    EXPECT_GE(failover, 2.0 * orv::g_timeout_seconds - 0.5) << "two time-outs: the probe, the version check";
    std::printf("[ failover ] supplier 1 stopped (result time-out %d s): re-opened on supplier 2 in %.2f s\n",
                orv::g_timeout_seconds, failover);
    EXPECT_EQ(orvlib_authenticate_user(orv_ld, "alice", supplier1().user_pw().c_str()), 0);

    EXPECT_EQ(orvlib_unbind(orv_ld), 0);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}
