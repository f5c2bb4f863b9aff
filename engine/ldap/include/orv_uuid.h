/*
 * orv_uuid.h - time-based (version 1) UUIDs that name the entries the
 * library writes.  Internal header; the public entry point is
 * orvlib_create_guid in orvldap.h.
 *
 * Generator state (node identifier, last timestamp, per-tick count, random
 * seed) is process-wide and unguarded: callers serialise UUID creation.
 */
#ifndef ORV_UUID_H
#define ORV_UUID_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 60-bit count of 100-nanosecond intervals since 1582-10-15 00:00:00 UTC. */
typedef unsigned long long orv_uuid_time_t;

/* 48-bit node identifier. */
typedef struct orv_uuid_node_t {
    unsigned char nodeID[6];
} orv_uuid_node_t;

/* A UUID in its field layout (16 bytes of data). */
typedef struct orv_uuid_t {
    unsigned int time_low;
    unsigned short time_mid;
    unsigned short time_hi_and_version;
    unsigned char clock_seq_hi_and_reserved;
    unsigned char clock_seq_low;
    unsigned char node[6];
} orv_uuid_t;

/* 100-nanosecond intervals between 1582-10-15 and 1970-01-01. */
#define ORV_UUID_EPOCH_OFFSET 0x01B21DD213814000ULL
/* UUIDs that may be made within one tick of the system clock. */
#define ORV_UUIDS_PER_TICK 1024
/* Name of the generator state file, in the working directory. */
#define ORV_UUID_STATE_FILE "state"

/* Fills *uuid with a new version-1 UUID; returns 1. */
ORV_API int uuid_create(orv_uuid_t* uuid);
/* The 36-character lower-case text form, in a new 100-byte buffer that the
 * caller frees with orvlib_memfree; NULL for a NULL argument. */
ORV_API char* convert_uuid_to_string(const orv_uuid_t* uuid);

/* The system clock as a UUID timestamp (microsecond resolution). */
ORV_API void get_system_time(orv_uuid_time_t* uuid_time);
/* The system clock, made unique for up to 1024 calls per clock tick. */
ORV_API void get_current_time(orv_uuid_time_t* timestamp);
/* The process's node identifier: an MD5 hash of host and process
 * information with the multicast bit set, made once per process. */
ORV_API void get_ieee_node_identifier(orv_uuid_node_t* node);
/* Gathers host and process information and writes its MD5 digest. */
ORV_API void get_random_info(unsigned char seed[16]);
/* Next value of the C library's generator, seeded from the clock on the
 * first call; used as the clock sequence. */
ORV_API unsigned short true_random(void);
/* Lays out timestamp, clock sequence and node as a version-1 UUID. */
ORV_API void format_uuid_v1(orv_uuid_t* uuid, unsigned short clock_seq, orv_uuid_time_t timestamp,
                            orv_uuid_node_t node);

/* Stable generator state in the 16-byte file "state" of the working
 * directory.  read_state returns 1 when the file was read, else 0;
 * write_state saves at most once every 10 seconds of timestamps.
 * uuid_create calls neither. */
ORV_API int read_state(unsigned short* clockseq, orv_uuid_time_t* timestamp, orv_uuid_node_t* node);
ORV_API void write_state(unsigned short clockseq, orv_uuid_time_t timestamp, orv_uuid_node_t node);

#ifdef __cplusplus
}

namespace orv {
// Test seam: replaces the clock that get_current_time reads (nullptr restores
// get_system_time) and forgets the per-tick state, so that the tick rules
// can be exercised without depending on real time.
void set_uuid_clock(void (*clock)(orv_uuid_time_t*));
}  // namespace orv
#endif

#endif /* ORV_UUID_H */
