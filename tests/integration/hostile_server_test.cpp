// The library against a directory server that answers with hostile results
// (hostile_ldap_server.py, started on 127.0.0.1 for each case and stopped by
// its process id): huge attribute counts, values of several megabytes, empty
// DNs, entries without the attributes the library reads, undecodable
// messages and controls, paged results that never end or loop, and member
// ranges that never end or go backwards.  Every case ends with an exact
// status, the library's allocations all returned and the process's memory
// bounded.
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_utils.h"
#include "session_support.hpp"

namespace {

const std::string kServerScript =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/hostile_ldap_server.py";

#if defined(__SANITIZE_ADDRESS__)
#define ORV_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_TEST_ASAN 1
#endif
#endif
#ifdef ORV_TEST_ASAN
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

// Bytes of heap in use by this process (libldap's included).  Resident
// memory would also count what the allocator keeps after a free (and, under
// AddressSanitizer, its quarantine).
long long live_heap() {
#ifdef ORV_TEST_ASAN
    return static_cast<long long>(__sanitizer_get_current_allocated_bytes());
#else
    const struct mallinfo2 m = mallinfo2();
    return static_cast<long long>(m.uordblks + m.hblkhd);
#endif
}
constexpr long long kMB = 1 << 20;

// One responder process for one scenario; stopped by its pid however the
// test ends.
class HostileServer {
public:
    explicit HostileServer(const std::string& scenario) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            close(fds[0]);
            close(fds[1]);
            execlp("python3", "python3", kServerScript.c_str(), scenario.c_str(), (char*)nullptr);
            _exit(127);
        }
        close(fds[1]);
        std::string text;
        char c;
        while (read(fds[0], &c, 1) == 1 && c != '\n') text += c;
        close(fds[0]);
        port_ = text.empty() ? 0 : std::stoi(text);
    }
    ~HostileServer() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    int port() const { return port_; }

private:
    pid_t pid_ = -1;
    int port_ = 0;
};

struct Walk {
    long long peak_heap = 0;        // most heap in use while walking
    int search_status = -1;
    int entries = 0;
    int end_status = -1;            // ldapErrCode once the iteration ended
    std::vector<int> attributes;    // attributes of each entry
    std::vector<std::string> uids;  // first "uid" (id 3) of each entry, "" without one
    std::vector<size_t> widest;     // longest value of each entry
};

// A people search for "hostile" in a session on the responder, walked to its
// end (at most `limit` entries), everything freed.
Walk walk_people(orvtest::Session& session, int limit = 1000000) {
    Walk w;
    LDAP* ld = session.ld();
    LDAPMessage* res = nullptr;
    w.search_status = orvlib_search_ext_s(ld, "hostile", ORV_SEARCH_PEOPLE, &res);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* e = orvlib_first_entry(ld, &entry, res); e && w.entries < limit;
         e = orvlib_next_entry(ld, &entry, e)) {
        ++w.entries;
        int count = 0;
        size_t widest = 0;
        for (ORVLibAttribute** a = entry->orvlibEntryAttrData; a && *a; ++a, ++count)
            for (char** v = (*a)->attrVals; v && *v; ++v) widest = std::max(widest, strlen(*v));
        w.attributes.push_back(count);
        w.widest.push_back(widest);
        char** uid = orvlib_get_entry_vals(entry, 3);
        w.uids.push_back(uid && uid[0] ? uid[0] : "");
        orvlib_free_values(uid);
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        w.peak_heap = std::max(w.peak_heap, live_heap());
    }
    orvlib_orvlibentry_free(entry);
    w.end_status = ldapErrCode;
    if (res) orvlib_orvmessage_free(res);
    return w;
}

class HostileServerTest : public ::testing::Test {
protected:
    void SetUp() override { heap_start_ = live_heap(); }
    void TearDown() override {
        mechanism = saved_mechanism_;
        operatingMechanism = saved_mechanism_;
        // Answers of 20 MB pass through; nothing of them stays.
        EXPECT_LT(live_heap() - heap_start_, 1 * kMB) << "heap grew";
    }
    long long heap_start() const { return heap_start_; }
    void open(orvtest::Session& session, const HostileServer& server) {
        ASSERT_GT(server.port(), 0) << "the responder did not start";
        session.open("127.0.0.1", server.port());
        ASSERT_NE(session.ld(), nullptr) << "status " << session.status();
        saved_mechanism_ = mechanism;
    }
    // The people search of a session on a responder in `mode`, walked to
    // its end; the session is closed and its allocations checked.
    Walk walk_mode(const char* mode) {
        HostileServer server(mode);
        orvtest::Session session;
        Walk w;
        open(session, server);
        if (session.ld() != nullptr) w = walk_people(session);
        session.close();
        EXPECT_EQ(session.outstanding(), 0) << mode;
        return w;
    }
    // The member DNs of cn=big,ou=Groups as the ranged read of a session on
    // a responder in `mode` gives them; the session is closed and its
    // allocations checked.
    struct MemberRead {
        bool returned = false;
        std::vector<std::string> members;
        int status = -1;
    };
    MemberRead read_members(const char* mode) {
        HostileServer server(mode);
        orvtest::Session session;
        MemberRead r;
        open(session, server);
        if (session.ld() != nullptr) {
            ldapErrCode = 0;
            char** members = get_zorla_dns_paging(session.ld(), "cn=big,ou=Groups", "group", "member");
            r.status = ldapErrCode;
            r.returned = members != nullptr;
            for (char** m = members; m && *m; ++m) r.members.emplace_back(*m);
            orvlib_free_values(members);
        }
        session.close();
        EXPECT_EQ(session.outstanding(), 0) << mode;
        return r;
    }
    void use_paged_results() {
        mechanism = ORV_PAGING;
        operatingMechanism = ORV_PAGING;
    }

private:
    long long heap_start_ = 0;
    int saved_mechanism_ = -1;
};

TEST_F(HostileServerTest, SessionSetUpWithoutTheEntriesItReads) {
    {
        // No compatibility version: the server is not one this library knows.
        HostileServer server("no-version");
        orvtest::Session session("127.0.0.1", server.port());
        EXPECT_EQ(session.ld(), nullptr);
        EXPECT_EQ(session.status(), 3035);
        session.close();
        EXPECT_EQ(session.outstanding(), 0);
    }
    {
        // No configuration entry: the session stands in standalone mode.
        HostileServer server("no-config");
        orvtest::Session session("127.0.0.1", server.port());
        EXPECT_NE(session.ld(), nullptr);
        EXPECT_EQ(session.status(), 0);
        EXPECT_EQ(ORV_OPERATION_MODE, 0);
        session.close();
        EXPECT_EQ(session.outstanding(), 0);
    }
}

TEST_F(HostileServerTest, HostileEntries) {
    // 20,000 attributes in one entry: all of them reach the caller.
    Walk w = walk_mode("many-attributes");
    EXPECT_EQ(w.search_status, 0);
    ASSERT_EQ(w.entries, 1);
    EXPECT_GE(w.attributes[0], 20004);
    EXPECT_EQ(w.uids[0], "hostile");

    // Values of 4 and 8 MB arrive whole.
    w = walk_mode("huge-values");
    EXPECT_EQ(w.search_status, 0);
    ASSERT_EQ(w.entries, 1);
    EXPECT_EQ(w.widest[0], size_t{8} << 20);

    // Entries named by an empty DN, one of them without attributes.
    w = walk_mode("empty-dn");
    EXPECT_EQ(w.search_status, 0);
    ASSERT_EQ(w.entries, 2);
    EXPECT_EQ(w.uids[0], "");
    EXPECT_EQ(w.uids[1], "hostile");

    // Entries without any of the attributes a person has, one with an
    // attribute that carries no value.
    w = walk_mode("missing-attributes");
    EXPECT_EQ(w.search_status, 0);
    ASSERT_EQ(w.entries, 2);
    EXPECT_EQ(w.uids[0], "");
    EXPECT_EQ(w.uids[1], "");

    // An entry whose attribute list claims 2 GB: the entry arrives
    // without attributes.
    w = walk_mode("bad-ber");
    EXPECT_EQ(w.search_status, 0);
    ASSERT_EQ(w.entries, 1);
    EXPECT_EQ(w.uids[0], "");
}

TEST_F(HostileServerTest, BrokenResponseControls) {
    // A paged-results response that is not BER, a truncated window
    // response and an unknown control: the page stands, nothing follows.
    for (bool paged : {false, true}) {
        HostileServer server("broken-controls");
        orvtest::Session session;
        open(session, server);
        if (paged) use_paged_results();
        Walk w = walk_people(session);
        EXPECT_EQ(w.search_status, 0) << paged;
        EXPECT_EQ(w.entries, 1) << paged;
        EXPECT_EQ(has_more_pages, 0) << paged;
        session.close();
        EXPECT_EQ(session.outstanding(), 0);
    }
}

TEST_F(HostileServerTest, PagedResultsThatDoNotEnd) {
    // A new cookie with every page, or the same one (as 389 DS hands out),
    // for ever: the search stops at the page limit with "size limit
    // exceeded".
    for (const char* scenario : {"endless-cookie", "same-cookie"}) {
        HostileServer server(scenario);
        orvtest::Session session;
        open(session, server);
        use_paged_results();
        Walk w = walk_people(session);
        EXPECT_EQ(w.search_status, 0) << scenario;
        EXPECT_EQ(w.entries, ORV_SEARCH_MAX_PAGES) << scenario;
        // One page at a time is kept, not 10,000.
        EXPECT_LT(w.peak_heap - heap_start(), 2 * kMB) << scenario;
        EXPECT_EQ(w.end_status, 4) << scenario;
        EXPECT_EQ(has_more_pages, 0) << scenario;
        session.close();
        EXPECT_EQ(session.outstanding(), 0);
    }
    {
        // One entry, then empty pages with ever new cookies: the iteration
        // ends at the page limit.
        HostileServer server("empty-pages");
        orvtest::Session session;
        open(session, server);
        use_paged_results();
        Walk w = walk_people(session);
        EXPECT_EQ(w.search_status, 0);
        EXPECT_EQ(w.entries, 1);
        EXPECT_EQ(w.end_status, 4);
        session.close();
        EXPECT_EQ(session.outstanding(), 0);
    }
}

TEST_F(HostileServerTest, MemberRanges) {
    // Well-behaved: 0-1499, then the last range "1500-*".
    MemberRead r = read_members("ranges-star");
    ASSERT_TRUE(r.returned);
    EXPECT_EQ(r.members.size(), 1510u);
    EXPECT_EQ(r.members.back(), "uid=m1509,ou=People");
    EXPECT_EQ(r.status, 0);

    // Ranges for ever: stopped at the range limit.
    r = read_members("ranges-endless");
    EXPECT_FALSE(r.returned);
    EXPECT_EQ(r.status, 4);

    // The second answer starts again at 0: a loop.
    r = read_members("ranges-backwards");
    EXPECT_FALSE(r.returned);
    EXPECT_EQ(r.status, 96);
}

}  // namespace
