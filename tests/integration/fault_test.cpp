// Failing servers under an open session: the directory server killed,
// stopped (alive but silent) and resumed, restarted on the same port, or the
// connection reset, at the moment the library sends the request of a bind,
// of the next page of a people search, of the next member of a group, of a
// modify and of an extended operation.  Each call ends with its status
// within the library's time-outs, the status probe brings the session back
// once the server is there again, the same call then succeeds, and nothing
// of the session stays allocated.
//
// The session goes through a relay on loopback (fault_proxy.hpp) that acts
// when it sees the request go by, so that each fault hits the same point of
// the call every time.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <functional>
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
using orvtest::FaultProxy;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone-large").with_param("large_users", "1500"));

namespace {

Directory& dir() { return orv::testbed::Environment::directory(); }

constexpr int kMembers = 40;
constexpr int kPeople = 1500;
// Seconds the library waits for a result in these tests: short for the
// server that stops answering, long enough elsewhere for a restart to
// happen while the request is held.
constexpr int kShortTimeout = 2;
constexpr int kLongTimeout = 30;

enum class Fault { Kill, Stop, Restart, Reset };

const char* fault_name(Fault f) {
    switch (f) {
        case Fault::Kill: return "SIGKILL";
        case Fault::Stop: return "SIGSTOP";
        case Fault::Restart: return "restart";
        case Fault::Reset: return "TCP reset";
    }
    return "?";
}

// The status a call ends with: the server went away (81), or it stopped
// answering and the result time-out ran out (85).
int expected_status(Fault f) { return f == Fault::Stop ? 85 : 81; }

FaultProxy& proxy() {
    static std::unique_ptr<FaultProxy> p;
    if (!p) p = std::make_unique<FaultProxy>(dir().port());
    return *p;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string first_value(ORVLibEntry* entry, int id) {
    char** vals = orvlib_get_entry_vals(entry, id);
    std::string v = vals && vals[0] ? vals[0] : "";
    orvlib_free_values(vals);
    return v;
}

// Waits until a killed server's process is gone for good: the server
// refuses to start while the PID of its lock still exists, zombie included.
void wait_reaped(int pid) {
    for (int i = 0; i < 400 && kill(pid, 0) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
}

// A stopped server is resumed even when an assertion ends the case early.
struct ResumeOnExit {
    int pid = 0;
    ~ResumeOnExit() {
        if (pid > 0 && orv::testbed::process_running(pid)) kill(pid, SIGCONT);
    }
};

FaultProxy::Action fault_action(Fault f, ResumeOnExit& resume) {
    using V = FaultProxy::Verdict;
    switch (f) {
        case Fault::Kill:
            return [] {
                int pid = dir().pid();
                kill(pid, SIGKILL);
                for (int i = 0; i < 200 && orv::testbed::process_running(pid); ++i)
                    std::this_thread::sleep_for(std::chrono::milliseconds(25));
                return V::Forward;
            };
        case Fault::Stop:
            resume.pid = dir().pid();
            return [pid = resume.pid] {
                orvtest::stop_process(pid);
                return V::Forward;
            };
        case Fault::Restart:
            return [] {
                dir().restart();
                return V::Forward;
            };
        case Fault::Reset:
            return [] { return V::Reset; };
    }
    return [] { return V::Forward; };
}

// One kind of call: what it does up to the point of the fault, the call
// during which the fault comes (its status), and the same work done again.
struct Call {
    const char* name;
    unsigned char tag;  // request at which the fault comes
    std::function<void()> before;
    std::function<int()> faulted;
    std::function<int()> again;
};

// Iteration state shared by the search calls of one case.
LDAPMessage* g_res = nullptr;
LDAPMessage* g_cursor = nullptr;
int g_seen = 0;

void free_results() {
    orvlib_orvmessage_free(g_res);
    g_res = nullptr;
    g_cursor = nullptr;
}

// Walks the rest of the current iteration; returns the status left behind.
int walk_rest() {
    ORVLibEntry* entry = nullptr;
    while (g_cursor) {
        g_cursor = orvlib_next_entry(orv_ld, &entry, g_cursor);
        if (g_cursor) ++g_seen;
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
    }
    return ldapErrCode;
}

// Starts a search and reads its first entry.
int start_search(const char* filter, int type) {
    free_results();
    g_seen = 0;
    int rc = orvlib_search_ext_s(orv_ld, filter, type, &g_res);
    if (rc != 0) return rc;
    ORVLibEntry* entry = nullptr;
    g_cursor = orvlib_first_entry(orv_ld, &entry, g_res);
    if (g_cursor) ++g_seen;
    orvlib_orvlibentry_free(entry);
    return 0;
}

const std::string& alice_dn() {
    static const std::string dn = dir().user_dn("alice");
    return dn;
}

int token_status() {
    char** token = orvlib_get_sso_navigation_token(orv_ld, alice_dn().c_str());
    int rc = ldapErrCode;
    bool got = token && token[0] && *token[0];
    orvlib_free_values(token);
    return got ? rc : (rc ? rc : -1);
}

int modify_status(const char* text) {
    char value[64];
    snprintf(value, sizeof value, "%s", text);
    char* vals[] = {value, nullptr};
    return orvlib_modify_ext_s(orv_ld, alice_dn().c_str(), 1, 4, vals);
}

std::vector<Call> calls() {
    return {
        {"bind", orvtest::kBindRequest, [] {},
         [] { return orvlib_authenticate_user(orv_ld, "alice", dir().user_pw().c_str()); },
         [] { return orvlib_authenticate_user(orv_ld, "alice", dir().user_pw().c_str()); }},
        {"next page of a people search", orvtest::kSearchRequest,
         [] {
             // Up to the last entry of the first page.
             ASSERT_EQ(start_search("Load User*", ORV_SEARCH_PEOPLE), 0);
             ORVLibEntry* entry = nullptr;
             while (g_seen < ORV_SEARCH_PAGE_SIZE && g_cursor) {
                 g_cursor = orvlib_next_entry(orv_ld, &entry, g_cursor);
                 if (g_cursor) ++g_seen;
                 orvlib_orvlibentry_free(entry);
                 entry = nullptr;
             }
             ASSERT_EQ(g_seen, ORV_SEARCH_PAGE_SIZE);
         },
         [] {
             int rc = walk_rest();
             EXPECT_EQ(g_seen, ORV_SEARCH_PAGE_SIZE) << "no entry after the lost page";
             return rc;
         },
         [] {
             int rc = start_search("Load User*", ORV_SEARCH_PEOPLE);
             if (rc == 0) rc = walk_rest();
             EXPECT_EQ(g_seen, kPeople);
             return rc;
         }},
        {"member entries of a group", orvtest::kSearchRequest,
         [] {
             // The member list only: the walk reads the members' entries.
             free_results();
             g_seen = 0;
             ASSERT_EQ(orvlib_search_ext_s(orv_ld, "Big Group", ORV_SEARCH_GROUP_MEMBERS, &g_res),
                       0);
         },
         [] {
             ORVLibEntry* entry = nullptr;
             g_cursor = orvlib_first_entry(orv_ld, &entry, g_res);
             if (g_cursor) ++g_seen;
             orvlib_orvlibentry_free(entry);
             int rc = g_cursor ? walk_rest() : ldapErrCode;
             EXPECT_EQ(g_seen, 0) << "no member after the lost read";
             return rc;
         },
         [] {
             int rc = start_search("Big Group", ORV_SEARCH_GROUP_MEMBERS);
             if (rc == 0) rc = walk_rest();
             EXPECT_EQ(g_seen, kMembers);
             return rc;
         }},
        {"modify", orvtest::kModifyRequest, [] {}, [] { return modify_status("during a fault"); },
         [] { return modify_status("after the fault"); }},
        {"extended operation", orvtest::kExtendedRequest, [] {}, [] { return token_status(); },
         [] { return token_status(); }},
    };
}

void run_case(const Call& call, Fault fault) {
    SCOPED_TRACE(std::string(call.name) + " / " + fault_name(fault));
    orv::g_timeout_seconds = fault == Fault::Stop ? kShortTimeout : kLongTimeout;
    const int start = _memCnt;
    ResumeOnExit resume;
    orvlib_init();
    LDAP* ld = orvlib_getsession_context("127.0.0.1", proxy().port(), nullptr, 0);
    ASSERT_NE(ld, nullptr) << ldapErrCode;
    ASSERT_NO_FATAL_FAILURE(call.before());

    proxy().arm(call.tag, 1, fault_action(fault, resume));
    auto t0 = std::chrono::steady_clock::now();
    int status = call.faulted();
    double failed_after = seconds_since(t0);
    EXPECT_TRUE(proxy().fired());
    proxy().disarm();
    EXPECT_EQ(status, expected_status(fault));
    EXPECT_LT(failed_after, orv::g_timeout_seconds + 20.0) << "the call outlived its time-out";

    // While the server is still away the probe says so; once it is back the
    // probe opens the session again and the same call succeeds.
    if (fault == Fault::Kill) {
        EXPECT_EQ(orvlib_get_connection_status(ld), 3041);
        wait_reaped(dir().pid());
        dir().start_server();
    }
    if (fault == Fault::Stop) kill(resume.pid, SIGCONT);
    auto t1 = std::chrono::steady_clock::now();
    EXPECT_EQ(orvlib_get_connection_status(ld), 3040);
    double reopened_in = seconds_since(t1);
    EXPECT_EQ(ldapErrCode, 0);
    EXPECT_NE(orv_ld, nullptr);
    EXPECT_EQ(call.again(), 0);

    free_results();
    if (orv_ld) {
        EXPECT_EQ(orvlib_unbind(orv_ld), 0);
    }
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start) << "allocations left after the session";
    std::printf("[ fault    ] %-30s %-9s -> status %d after %.2f s; probe 3040 in %.3f s\n", call.name,
                fault_name(fault), status, failed_after, reopened_in);
    std::fflush(stdout);
}

class Faults : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string ldif = "dn: cn=Big Group,ou=Groups," + dir().suffix() +
                           "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
                           "objectClass: morvaneGroup\ncn: Big Group\n";
        char uid[16];
        for (int i = 1; i <= kMembers; ++i) {
            snprintf(uid, sizeof uid, "user%05d", i);
            ldif += "uniqueMember: " + dir().user_dn(uid) + "\n";
        }
        dir().apply_ldif(ldif);
    }
    void TearDown() override { orv::g_timeout_seconds = 30; }

    void run_all(Fault fault) {
        for (const Call& call : calls()) {
            run_case(call, fault);
            if (HasFatalFailure()) return;
        }
    }
};

}  // namespace

TEST_F(Faults, ServerKilled) { run_all(Fault::Kill); }

TEST_F(Faults, ServerStoppedThenResumed) { run_all(Fault::Stop); }

TEST_F(Faults, ServerRestartedOnTheSamePort) { run_all(Fault::Restart); }

TEST_F(Faults, ConnectionReset) { run_all(Fault::Reset); }

// A write whose result never came may still have been made: after a modify
// that ran out of time on a stopped server, the value is on the server once
// it resumes.  The caller learns "time-out" (85), never success.
TEST_F(Faults, TimedOutWriteMayHaveBeenApplied) {
    orv::g_timeout_seconds = kShortTimeout;
    const int start = _memCnt;
    ResumeOnExit resume;
    orvlib_init();
    LDAP* ld = orvlib_getsession_context("127.0.0.1", proxy().port(), nullptr, 0);
    ASSERT_NE(ld, nullptr);
    proxy().arm(orvtest::kModifyRequest, 1, fault_action(Fault::Stop, resume));
    EXPECT_EQ(modify_status("written while stopped"), 85);
    proxy().disarm();
    kill(resume.pid, SIGCONT);
    EXPECT_EQ(orvlib_get_connection_status(ld), 3040);
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_ext_s(orv_ld, "alice", ORV_SEARCH_PEOPLE, &res), 0);
    ORVLibEntry* entry = nullptr;
    ASSERT_NE(orvlib_first_entry(orv_ld, &entry, res), nullptr);
    EXPECT_EQ(first_value(entry, 4), "written while stopped");
    orvlib_orvlibentry_free(entry);
    orvlib_orvmessage_free(res);
    EXPECT_EQ(orvlib_unbind(orv_ld), 0);
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}
