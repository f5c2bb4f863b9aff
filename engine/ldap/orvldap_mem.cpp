// orvldap_mem.cpp - allocation and release of everything orvlib hands to its
// caller.
//
// Every block allocated here raises the counter _memCnt by one and every
// block released through orvlib_memfree lowers it by one; each change is
// logged as "Memory Count" at trace severity 6, so a leak shows in the log
// as a count that does not come back to its starting value.  Blocks come
// from the platform malloc and are never cleared.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orv_internal.hpp"

extern "C" {
int _memCnt = 0;
unsigned int lengthofstring = 0; /* length of the string copied last by orvlib_duparray */
}

namespace {

constexpr int kMemSeverity = PEX_TRACE_MAX;

void log_count(const char* file, int line, const char* function) {
    orv::debug(file, line, function, "Memory Count", _memCnt, kMemSeverity);
}

#define ORV_LOG_COUNT() log_count(__FILE__, __LINE__, __func__)

std::string pointer_text(const void* p) {
    char text[2 + 2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

// One counted block of `size` bytes; the counter moves even when the
// platform allocator fails.
void* counted_alloc(std::size_t size) {
    void* block = std::malloc(size);
    ++_memCnt;
    return block;
}

}  // namespace

extern "C" {

/* ------------------------------------------------------------------ */
/* Allocation                                                          */
/* ------------------------------------------------------------------ */

char* orvlib_str_malloc(unsigned int size) {
    ORV_TRACE_AT(kMemSeverity);
    char* buffer = static_cast<char*>(std::malloc(size));
    if (buffer == nullptr) {
        // The failure path counts once more before the common increment.
        ++_memCnt;
    }
    ++_memCnt;
    ORV_LOG_COUNT();
    return buffer;
}

ORVClient_Info* orvlib_orvlibinfo_malloc(void) {
    ORV_TRACE_AT(kMemSeverity);
    auto* info = static_cast<ORVClient_Info*>(counted_alloc(sizeof(ORVClient_Info)));
    ORV_LOG_COUNT();
    return info;
}

char** orvlib_arr_malloc(unsigned int count) {
    ORV_TRACE_AT(kMemSeverity);
    char** array = nullptr;
    if (count <= SIZE_MAX / sizeof(char*)) {
        array = static_cast<char**>(counted_alloc(static_cast<std::size_t>(count) * sizeof(char*)));
    } else {
        ++_memCnt;  // a size that cannot be represented fails like the allocator would
    }
    ORV_LOG_COUNT();
    return array;
}

partition_info* partition_info_mem_alloc(void) {
    ORV_TRACE_AT(kMemSeverity);
    auto* info = static_cast<partition_info*>(counted_alloc(sizeof(partition_info)));
    ORV_LOG_COUNT();
    return info;
}

radius_info* radius_info_mem_alloc(void) {
    ORV_TRACE_AT(kMemSeverity);
    auto* info = static_cast<radius_info*>(counted_alloc(sizeof(radius_info)));
    ORV_LOG_COUNT();
    return info;
}

/* ------------------------------------------------------------------ */
/* Duplication                                                         */
/* ------------------------------------------------------------------ */

char** orvlib_duparray(char** array) {
    ORV_TRACE_AT(kMemSeverity);
    if (array == nullptr) {
        return nullptr;
    }
    unsigned int count = 0;
    while (array[count] != nullptr) {
        ++count;
    }
    char** copy = orvlib_arr_malloc(count + 1);
    if (copy == nullptr) {
        return nullptr;
    }
    for (unsigned int i = 0; i < count; ++i) {
        lengthofstring = static_cast<unsigned int>(std::strlen(array[i]));
        copy[i] = orvlib_str_malloc(lengthofstring + 1);
        if (copy[i] == nullptr) {
            // copy[i] is null and so terminates the partial copy released here.
            orvlib_free_values(copy);
            return nullptr;
        }
        std::memcpy(copy[i], array[i], lengthofstring + 1);
    }
    copy[count] = nullptr;
    return copy;
}

char* _orvlib_dupString(const char* string) {
    ORV_TRACE_AT(kMemSeverity);
    if (string == nullptr) {
        return nullptr;
    }
    std::size_t length = std::strlen(string) + 1;
    char* copy = orvlib_str_malloc(static_cast<unsigned int>(length));
    if (copy != nullptr) {
        std::memcpy(copy, string, length);
    }
    return copy;
}

/* ------------------------------------------------------------------ */
/* Release                                                             */
/* ------------------------------------------------------------------ */

void orvlib_memfree(void* ptr) {
    if (ptr == nullptr) {
        return;  // nothing to release, nothing logged
    }
    ORV_TRACE_AT(kMemSeverity);
    std::free(ptr);
    --_memCnt;
    ORV_LOG_COUNT();
}

void orvlib_free_values(char** vals) {
    if (vals == nullptr) {
        return;  // nothing to release, nothing logged
    }
    ORV_TRACE_AT(kMemSeverity);
    for (char** value = vals; *value != nullptr; ++value) {
        orvlib_memfree(*value);
    }
    orvlib_memfree(vals);
}

void orvlib_orvlibentry_free(ORVLibEntry* entry) {
    ORV_TRACE_AT(kMemSeverity);
    if (entry == nullptr) {
        return;
    }
    ORVLibAttribute** attributes = entry->orvlibEntryAttrData;
    if (attributes != nullptr) {
        for (int itr = 0; attributes[itr] != nullptr; ++itr) {
            ORVLibAttribute* attribute = attributes[itr];
            ORV_DEBUG("libentry->orvlibEntryAttrData", pointer_text(attribute));
            ORV_DEBUG("itr", itr);
            ORV_DEBUG("attrName", attribute->attrName);
            ORV_DEBUG("attrVals", pointer_text(attribute->attrVals));
            orvlib_memfree(attribute->attrName);
            orvlib_free_values(attribute->attrVals);
            orvlib_memfree(attribute);
        }
        orvlib_memfree(attributes);
    }
    orvlib_memfree(entry);
}

void orvlib_orvlibinfo_free(ORVClient_Info* info) {
    ORV_TRACE_AT(kMemSeverity);
    // The version strings belong to whoever filled the record.
    orvlib_memfree(info);
}

void orvlib_orvmessage_free(LDAPMessage* message) {
    ORV_TRACE_AT(kMemSeverity);
    if (message != nullptr) {
        ldap_msgfree(message);
    }
}

void free_partition_info(void) {
    ORV_TRACE_AT(kMemSeverity);
    if (ORV_OPERATION_MODE == 1 && PARTITION_INFO != nullptr) {
        partition_info* info = PARTITION_INFO;
        orvlib_memfree(info->admin_dn);
        orv::free_secret(info->admin_pwd);
        orvlib_memfree(info->hostname);
        orvlib_memfree(info->description);
        orvlib_memfree(info->user_logon_attribute_name);
        orvlib_memfree(info->search_base);
        orvlib_memfree(info->people_search_base_suffix);
        orvlib_memfree(info->group_search_base_suffix);
        orvlib_memfree(info->meta_group_for_users);
        orvlib_memfree(info->meta_group_for_groups);
        // The record goes back to the platform directly; its count stays.
        std::free(info);
        PARTITION_INFO = nullptr;
    }
    ORV_LOG_COUNT();
}

void free_radius_config_info(void) {
    ORV_TRACE_AT(kMemSeverity);
    if (ORVLIB_IS_RADIUS_CONFIGURED == 1 && RADIUS_INFO != nullptr) {
        radius_info* info = RADIUS_INFO;
        orvlib_memfree(info->radius_hostname);
        orv::free_secret(info->radius_secret);
        // The record goes back to the platform directly; its count stays.
        std::free(info);
        RADIUS_INFO = nullptr;
    }
    ORV_LOG_COUNT();
}

}  // extern "C"

// ------------------------------------------------------------------ secrets

namespace orv {

void wipe(void* buffer, std::size_t size) {
    // Writes through a volatile pointer are never left out as dead stores.
    volatile unsigned char* p = static_cast<volatile unsigned char*>(buffer);
    for (std::size_t i = 0; p != nullptr && i < size; ++i) p[i] = 0;
}

void wipe(std::string& text) {
    if (!text.empty()) wipe(&text[0], text.size());
    text.clear();
}

void free_secret(char* secret) {
    if (secret == nullptr) return;
    wipe(secret, std::strlen(secret));
    orvlib_memfree(secret);
}

}  // namespace orv
