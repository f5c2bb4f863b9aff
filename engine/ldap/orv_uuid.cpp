// orv_uuid.cpp - version-1 (time-based) UUIDs after RFC 4122, used to name
// every entry the library writes, and the public GUID calls.
//
// How this generator differs from the reference algorithm:
//   - The node identifier never comes from a network interface: it is an MD5
//     hash of host and process information with the multicast bit set, made
//     once per process and never stored.
//   - The clock sequence is a fresh pseudo-random value for every UUID.
//   - uuid_create never touches the file system; read_state and write_state
//     exist for tools that want to keep generator state in "state".
// All generator state is process-wide and unguarded: one caller at a time.
#include "orv_uuid.h"

#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orv_internal.hpp"
#include "orv_md5.h"

static_assert(sizeof(orv_uuid_t) == 16, "a UUID is 16 bytes");

namespace {

struct GeneratorState {
    // get_current_time
    bool time_started = false;
    orv_uuid_time_t time_last = 0;
    unsigned uuids_this_tick = 0;
    void (*clock)(orv_uuid_time_t*) = nullptr;  // nullptr: get_system_time
    // get_ieee_node_identifier
    bool node_made = false;
    orv_uuid_node_t node{};
    // true_random
    bool random_seeded = false;
    // write_state
    bool save_scheduled = false;
    orv_uuid_time_t next_save = 0;
};

GeneratorState& generator() {
    static GeneratorState state;
    return state;
}

void read_clock(orv_uuid_time_t* now) {
    auto clock = generator().clock;
    if (clock != nullptr)
        clock(now);
    else
        get_system_time(now);
}

// Ten seconds of timestamp (100-nanosecond units) between saves of the state file.
constexpr orv_uuid_time_t kSaveInterval = 10ULL * 10 * 1000 * 1000;
constexpr std::size_t kStateFileSize = 16;

}  // namespace

namespace orv {

void set_uuid_clock(void (*clock)(orv_uuid_time_t*)) {
    GeneratorState& g = generator();
    g.clock = clock;
    g.time_started = false;
    g.time_last = 0;
    g.uuids_this_tick = 0;
}

}  // namespace orv

extern "C" {

void get_system_time(orv_uuid_time_t* uuid_time) {
    ORV_TRACE();
    if (uuid_time == nullptr) return;
    struct timeval tp;
    gettimeofday(&tp, nullptr);
    *uuid_time = static_cast<orv_uuid_time_t>(tp.tv_sec) * 10000000ULL +
                 static_cast<orv_uuid_time_t>(tp.tv_usec) * 10ULL + ORV_UUID_EPOCH_OFFSET;
}

void get_current_time(orv_uuid_time_t* timestamp) {
    ORV_TRACE();
    GeneratorState& g = generator();
    orv_uuid_time_t now = 0;
    if (!g.time_started) {
        read_clock(&now);
        g.uuids_this_tick = ORV_UUIDS_PER_TICK;
        g.time_started = true;
    }
    for (;;) {
        read_clock(&now);
        if (now != g.time_last) {
            // A new tick: restart the count.
            g.uuids_this_tick = 0;
            g.time_last = now;
            break;
        }
        if (g.uuids_this_tick < ORV_UUIDS_PER_TICK) {
            ++g.uuids_this_tick;
            break;
        }
        // Too many UUIDs in this tick: wait for the clock to move on.
    }
    if (timestamp != nullptr) *timestamp = now + g.uuids_this_tick;
}

void get_random_info(unsigned char seed[16]) {
    ORV_TRACE();
    if (seed == nullptr) return;
    // Host- and process-specific data; zeroed first so that padding and the
    // unused tail of the host name hash the same way every time.
    struct {
        struct sysinfo system;
        struct timeval time_of_day;
        char hostname[256];
        pid_t pid;
        pid_t parent;
    } info;
    std::memset(&info, 0, sizeof info);
    sysinfo(&info.system);
    gettimeofday(&info.time_of_day, nullptr);
    gethostname(info.hostname, sizeof info.hostname - 1);
    info.hostname[sizeof info.hostname - 1] = '\0';
    info.pid = getpid();
    info.parent = getppid();

    const orv::Md5::Digest digest = orv::Md5::of(&info, sizeof info);
    std::memcpy(seed, digest.data(), digest.size());
}

void get_ieee_node_identifier(orv_uuid_node_t* node) {
    ORV_TRACE();
    GeneratorState& g = generator();
    if (!g.node_made) {
        unsigned char seed[16];
        get_random_info(seed);
        // The multicast bit keeps the node apart from every real
        // network address.
        seed[0] |= 0x01;
        std::memcpy(g.node.nodeID, seed, sizeof g.node.nodeID);
        g.node_made = true;
    }
    if (node != nullptr) *node = g.node;
}

unsigned short true_random(void) {
    ORV_TRACE();
    GeneratorState& g = generator();
    if (!g.random_seeded) {
        orv_uuid_time_t now = 0;
        get_system_time(&now);
        now /= ORV_UUIDS_PER_TICK;
        std::srand(static_cast<unsigned int>(((now >> 32) ^ now) & 0xffffffffULL));
        g.random_seeded = true;
    }
    return static_cast<unsigned short>(std::rand());
}

void format_uuid_v1(orv_uuid_t* uuid, unsigned short clock_seq, orv_uuid_time_t timestamp,
                    orv_uuid_node_t node) {
    ORV_TRACE();
    if (uuid == nullptr) return;
    uuid->time_low = static_cast<unsigned int>(timestamp & 0xffffffffULL);
    uuid->time_mid = static_cast<unsigned short>((timestamp >> 32) & 0xffff);
    uuid->time_hi_and_version = static_cast<unsigned short>(((timestamp >> 48) & 0x0fff) | (1u << 12));
    uuid->clock_seq_low = static_cast<unsigned char>(clock_seq & 0xff);
    uuid->clock_seq_hi_and_reserved = static_cast<unsigned char>(((clock_seq & 0x3f00) >> 8) | 0x80);
    std::memcpy(uuid->node, node.nodeID, sizeof uuid->node);
}

int uuid_create(orv_uuid_t* uuid) {
    ORV_TRACE();
    if (uuid == nullptr) return 0;
    orv_uuid_time_t timestamp = 0;
    orv_uuid_node_t node;
    get_current_time(&timestamp);
    get_ieee_node_identifier(&node);
    const unsigned short clock_seq = true_random();
    format_uuid_v1(uuid, clock_seq, timestamp, node);
    return 1;
}

char* convert_uuid_to_string(const orv_uuid_t* uuid) {
    ORV_TRACE();
    if (uuid == nullptr) return nullptr;
    const unsigned size = 100;
    char* text = orvlib_str_malloc(size);
    if (text == nullptr) return nullptr;
    std::snprintf(text, size, "%8.8x-%4.4x-%4.4x-%2.2x%2.2x-%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x",
                  uuid->time_low, uuid->time_mid, uuid->time_hi_and_version,
                  uuid->clock_seq_hi_and_reserved, uuid->clock_seq_low, uuid->node[0],
                  uuid->node[1], uuid->node[2], uuid->node[3], uuid->node[4], uuid->node[5]);
    return text;
}

int read_state(unsigned short* clockseq, orv_uuid_time_t* timestamp, orv_uuid_node_t* node) {
    ORV_TRACE();
    if (clockseq == nullptr || timestamp == nullptr || node == nullptr) return 0;
    std::FILE* fp = std::fopen(ORV_UUID_STATE_FILE, "rb");
    if (fp == nullptr) return 0;
    unsigned char record[kStateFileSize];
    const std::size_t got = std::fread(record, 1, sizeof record, fp);
    std::fclose(fp);
    if (got != sizeof record) return 0;
    // Layout: timestamp (8 bytes), node (6), clock sequence (2), host order.
    std::memcpy(timestamp, record, 8);
    std::memcpy(node->nodeID, record + 8, 6);
    std::memcpy(clockseq, record + 14, 2);
    return 1;
}

void write_state(unsigned short clockseq, orv_uuid_time_t timestamp, orv_uuid_node_t node) {
    ORV_TRACE();
    GeneratorState& g = generator();
    if (!g.save_scheduled) {
        g.next_save = timestamp;
        g.save_scheduled = true;
    }
    if (timestamp < g.next_save) return;

    unsigned char record[kStateFileSize];
    std::memcpy(record, &timestamp, 8);
    std::memcpy(record + 8, node.nodeID, 6);
    std::memcpy(record + 14, &clockseq, 2);
    std::FILE* fp = std::fopen(ORV_UUID_STATE_FILE, "wb");
    if (fp == nullptr) {
        ORV_DEBUG("Cannot write UUID state file: ", ORV_UUID_STATE_FILE);
        return;
    }
    std::fwrite(record, 1, sizeof record, fp);
    std::fclose(fp);
    g.next_save = timestamp + kSaveInterval;
}

char* orvlib_create_guid(void) {
    ORV_TRACE();
    orv_uuid_t uuid;
    uuid_create(&uuid);
    char* guid = convert_uuid_to_string(&uuid);
    if (guid != nullptr) ORV_DEBUG("GUID: ", guid);
    return guid;
}

void orvlib_set_user_uuid_generation_flag(int flag) {
    ORV_TRACE();
    user_uuid_generation_flag = flag;
    ORV_DEBUG("User UUID generation flag: ", flag);
}

int orvlib_get_user_uuid_generation_flag(void) {
    ORV_TRACE();
    return user_uuid_generation_flag;
}

}  // extern "C"
