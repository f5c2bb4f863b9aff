// Version-1 UUIDs: field layout and text form, the per-tick timestamp rules
// (driven by a scripted clock), the node identifier, the state file and the
// public GUID calls.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <set>
#include <string>

#include "orv_uuid.h"
#include "orvldap.h"

namespace {

// The tests of one program run as parallel processes in one working
// directory; those that look at the "state" file each work in a directory
// of their own.
class ScratchDirectory {
public:
    ScratchDirectory() {
        char pattern[] = "/tmp/orvuuid_test_XXXXXX";
        if (mkdtemp(pattern) && getcwd(previous_, sizeof previous_) && chdir(pattern) == 0) dir_ = pattern;
    }
    ~ScratchDirectory() {
        if (dir_.empty()) return;
        std::remove(ORV_UUID_STATE_FILE);
        if (chdir(previous_) == 0) rmdir(dir_.c_str());
    }
    bool ok() const { return !dir_.empty(); }

private:
    char previous_[4096] = {};
    std::string dir_;
};

// A scripted clock: answers `now` until it has been read `reads_per_tick`
// times since the last change, then moves on by 10 (one microsecond).
struct ScriptedClock {
    static orv_uuid_time_t now;
    static int reads;
    static int reads_per_tick;
    static void read(orv_uuid_time_t* t) {
        if (++reads > reads_per_tick) {
            now += 10;
            reads = 1;
        }
        *t = now;
    }
    static void start(orv_uuid_time_t at, int per_tick) {
        now = at;
        reads = 0;
        reads_per_tick = per_tick;
        orv::set_uuid_clock(&ScriptedClock::read);
    }
};
orv_uuid_time_t ScriptedClock::now = 0;
int ScriptedClock::reads = 0;
int ScriptedClock::reads_per_tick = 0;

class UuidClockTest : public ::testing::Test {
protected:
    void TearDown() override { orv::set_uuid_clock(nullptr); }
};

orv_uuid_time_t current_time() {
    orv_uuid_time_t t = 0;
    get_current_time(&t);
    return t;
}

TEST_F(UuidClockTest, SameTickCountsUpByOneUpTo1024ThenWaitsForTheClock) {
    const orv_uuid_time_t T = 0x01e0000000000000ULL;
    // The clock stays at T for the start-up read, 1025 calls and three more
    // reads, then moves on.
    ScriptedClock::start(T, 2 + ORV_UUIDS_PER_TICK + 3);

    EXPECT_EQ(current_time(), T);  // a new tick starts the count at 0
    for (orv_uuid_time_t i = 1; i <= ORV_UUIDS_PER_TICK; ++i) ASSERT_EQ(current_time(), T + i);
    // The 1026th call within the tick keeps reading the clock until it
    // moves on, and starts a new count there.
    EXPECT_EQ(current_time(), T + 10);
    EXPECT_EQ(ScriptedClock::reads, 1);
    EXPECT_EQ(current_time(), T + 11);
}

TEST_F(UuidClockTest, NewTickRestartsTheCount) {
    const orv_uuid_time_t T = 0x01e0000000000000ULL;
    ScriptedClock::start(T, 3);  // the start-up read takes one of the first tick
    EXPECT_EQ(current_time(), T);
    EXPECT_EQ(current_time(), T + 1);
    EXPECT_EQ(current_time(), T + 10);
    EXPECT_EQ(current_time(), T + 11);
    EXPECT_EQ(current_time(), T + 12);
    EXPECT_EQ(current_time(), T + 20);
}

TEST(UuidTime, SystemTimeIsMicrosecondsSinceTheGregorianReform) {
    struct timeval before, after;
    orv_uuid_time_t t = 0;
    gettimeofday(&before, nullptr);
    get_system_time(&t);
    gettimeofday(&after, nullptr);
    auto stamp = [](const timeval& tv) {
        return static_cast<orv_uuid_time_t>(tv.tv_sec) * 10000000ULL + tv.tv_usec * 10ULL +
               0x01B21DD213814000ULL;
    };
    EXPECT_LE(stamp(before), t);
    EXPECT_GE(stamp(after), t);
    EXPECT_EQ(t % 10, 0u);
}

TEST(UuidFormat, FieldsAndTextForm) {
    orv_uuid_node_t node = {{0x01, 0x23, 0x45, 0x67, 0x89, 0xab}};
    orv_uuid_t u;
    format_uuid_v1(&u, 0xffff, 0x0fedcba987654321ULL, node);
    EXPECT_EQ(u.time_low, 0x87654321u);
    EXPECT_EQ(u.time_mid, 0xcba9u);
    EXPECT_EQ(u.time_hi_and_version, 0x1fedu);
    EXPECT_EQ(u.clock_seq_low, 0xffu);
    EXPECT_EQ(u.clock_seq_hi_and_reserved, 0xbfu);  // 6 bits of sequence + variant

    const int before = _memCnt;
    char* text = convert_uuid_to_string(&u);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "87654321-cba9-1fed-bfff-0123456789ab");
    orvlib_memfree(text);

    // Bits above 59 of the timestamp and above 13 of the sequence are dropped.
    format_uuid_v1(&u, 0xc000, 0xf000000000000001ULL, node);
    text = convert_uuid_to_string(&u);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "00000001-0000-1000-8000-0123456789ab");
    orvlib_memfree(text);
    EXPECT_EQ(_memCnt, before);
    EXPECT_EQ(convert_uuid_to_string(nullptr), nullptr);
}

TEST(UuidNode, MadeOncePerProcessWithTheMulticastBit) {
    orv_uuid_node_t a, b;
    get_ieee_node_identifier(&a);
    get_ieee_node_identifier(&b);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(a.nodeID), 6), std::string(reinterpret_cast<char*>(b.nodeID), 6));
    EXPECT_EQ(a.nodeID[0] & 0x01, 0x01);

    orv_uuid_t u;
    ASSERT_EQ(uuid_create(&u), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(u.node), 6), std::string(reinterpret_cast<char*>(a.nodeID), 6));
}

TEST(UuidGuid, TextLayoutVersionVariantAndSharedNode) {
    const int before = _memCnt;
    std::set<std::string> nodes;
    std::set<std::string> clock_sequences;
    for (int i = 0; i < 200; ++i) {
        char* guid = orvlib_create_guid();
        ASSERT_NE(guid, nullptr);
        const std::string g = guid;
        orvlib_memfree(guid);

        ASSERT_EQ(g.size(), 36u) << g;
        for (std::size_t k = 0; k < g.size(); ++k) {
            if (k == 8 || k == 13 || k == 18 || k == 23)
                ASSERT_EQ(g[k], '-') << g;
            else
                ASSERT_TRUE(std::isxdigit(static_cast<unsigned char>(g[k])) && !std::isupper(static_cast<unsigned char>(g[k])))
                    << g;
        }
        EXPECT_EQ(g[14], '1') << g;                                  // 13th digit: version
        EXPECT_NE(std::string("89ab").find(g[19]), std::string::npos) << g;  // 17th: variant
        EXPECT_EQ(std::stoi(g.substr(24, 2), nullptr, 16) & 1, 1) << g;    // multicast bit
        nodes.insert(g.substr(24));
        clock_sequences.insert(g.substr(19, 4));
    }
    EXPECT_EQ(nodes.size(), 1u);
    // The clock sequence is drawn afresh for each UUID.
    EXPECT_GT(clock_sequences.size(), 1u);
    EXPECT_EQ(_memCnt, before);
}

TEST(UuidState, CreateLeavesTheFileSystemAlone) {
    ScratchDirectory scratch;
    ASSERT_TRUE(scratch.ok());
    orv_uuid_t u;
    for (int i = 0; i < 10; ++i) ASSERT_EQ(uuid_create(&u), 1);
    struct stat st;
    EXPECT_NE(stat(ORV_UUID_STATE_FILE, &st), 0);
}

TEST(UuidState, WriteAtMostEveryTenSecondsAndReadBack) {
    ScratchDirectory scratch;
    ASSERT_TRUE(scratch.ok());
    unsigned short cs = 0;
    orv_uuid_time_t ts = 0;
    orv_uuid_node_t node{};
    EXPECT_EQ(read_state(&cs, &ts, &node), 0);

    const orv_uuid_node_t n1 = {{1, 2, 3, 4, 5, 6}};
    const orv_uuid_node_t n2 = {{9, 8, 7, 6, 5, 4}};
    const orv_uuid_time_t T = 0x01e1234567890000ULL;
    write_state(0x1234, T, n1);
    struct stat st;
    ASSERT_EQ(stat(ORV_UUID_STATE_FILE, &st), 0);
    EXPECT_EQ(st.st_size, 16);
    ASSERT_EQ(read_state(&cs, &ts, &node), 1);
    EXPECT_EQ(cs, 0x1234);
    EXPECT_EQ(ts, T);
    EXPECT_EQ(node.nodeID[0], 1);
    EXPECT_EQ(node.nodeID[5], 6);

    // Less than 10 seconds (100,000,000 intervals) later: not saved.
    write_state(0x4321, T + 99999999ULL, n2);
    ASSERT_EQ(read_state(&cs, &ts, &node), 1);
    EXPECT_EQ(cs, 0x1234);
    EXPECT_EQ(ts, T);

    write_state(0x4321, T + 100000000ULL, n2);
    ASSERT_EQ(read_state(&cs, &ts, &node), 1);
    EXPECT_EQ(cs, 0x4321);
    EXPECT_EQ(ts, T + 100000000ULL);
    EXPECT_EQ(node.nodeID[0], 9);

    // A short file is not read.
    std::FILE* fp = std::fopen(ORV_UUID_STATE_FILE, "wb");
    ASSERT_NE(fp, nullptr);
    std::fputs("short", fp);
    std::fclose(fp);
    EXPECT_EQ(read_state(&cs, &ts, &node), 0);
    std::remove(ORV_UUID_STATE_FILE);
}

TEST(UuidFlag, SetAndGet) {
    const int saved = orvlib_get_user_uuid_generation_flag();
    orvlib_set_user_uuid_generation_flag(0);
    EXPECT_EQ(orvlib_get_user_uuid_generation_flag(), 0);
    EXPECT_EQ(user_uuid_generation_flag, 0);
    orvlib_set_user_uuid_generation_flag(7);
    EXPECT_EQ(orvlib_get_user_uuid_generation_flag(), 7);
    orvlib_set_user_uuid_generation_flag(saved);
}

}  // namespace
