// Allocation counter, duplication and the free functions.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>

#include "orvldap.h"
#include "scratch_log.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define ORV_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_TEST_ASAN 1
#endif
#endif

namespace {

// The whole program runs with logging and tracing on at their most detailed
// levels, so the tests can read what the memory functions write.
::testing::Environment* const trace_env = ::testing::AddGlobalTestEnvironment(
    new orvtest::ScratchLog("orvmem_test", "EnableLogging=1\nEnableTracing=1\nLogLevel=4\nTraceLevel=6\n"));
using orvtest::log_text;

// The first log line holding all of the given pieces, or "".
std::string find_line(const std::string& log, const std::string& a, const std::string& b = "",
                      const std::string& c = "") {
    std::istringstream lines(log);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find(a) != std::string::npos && line.find(b) != std::string::npos &&
            line.find(c) != std::string::npos)
            return line;
    }
    return "";
}

bool has_line(const std::string& log, const std::string& a, const std::string& b = "",
              const std::string& c = "") {
    return !find_line(log, a, b, c).empty();
}

// An entry built the way the library builds entries for its callers.
ORVLibEntry* make_entry(const char* name1, const char* const* vals1, const char* name2) {
    auto* entry = reinterpret_cast<ORVLibEntry*>(orvlib_str_malloc(sizeof(ORVLibEntry)));
    entry->orvlibEntryAttrData =
        reinterpret_cast<ORVLibAttribute**>(orvlib_arr_malloc(3));
    auto* a = reinterpret_cast<ORVLibAttribute*>(orvlib_str_malloc(sizeof(ORVLibAttribute)));
    a->attrId = 1;
    a->attrName = _orvlib_dupString(name1);
    a->attrVals = orvlib_duparray(const_cast<char**>(vals1));
    auto* b = reinterpret_cast<ORVLibAttribute*>(orvlib_str_malloc(sizeof(ORVLibAttribute)));
    b->attrId = 3;
    b->attrName = _orvlib_dupString(name2);
    b->attrVals = nullptr;  // an attribute without values
    entry->orvlibEntryAttrData[0] = a;
    entry->orvlibEntryAttrData[1] = b;
    entry->orvlibEntryAttrData[2] = nullptr;
    return entry;
}

TEST(OrvMem, CounterBalancesThroughAllocationDuplicationAndRelease) {
    const int start = _memCnt;

    char* buffer = orvlib_str_malloc(16);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(_memCnt, start + 1);

    char* copy = _orvlib_dupString("uid=jdoe");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "uid=jdoe");
    EXPECT_EQ(_memCnt, start + 2);

    const char* source[] = {"alpha", "", "gamma-delta", nullptr};
    char** values = orvlib_duparray(const_cast<char**>(source));
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(_memCnt, start + 2 + 4);  // the array and three strings
    for (int i = 0; i < 3; ++i) {
        EXPECT_STREQ(values[i], source[i]);
        EXPECT_NE(values[i], source[i]);
    }
    EXPECT_EQ(values[3], nullptr);
    EXPECT_EQ(lengthofstring, std::strlen("gamma-delta"));

    // An empty array copies to a new array holding only the terminator.
    char* empty[] = {nullptr};
    char** empty_copy = orvlib_duparray(empty);
    ASSERT_NE(empty_copy, nullptr);
    EXPECT_NE(empty_copy, empty);
    EXPECT_EQ(empty_copy[0], nullptr);
    EXPECT_EQ(_memCnt, start + 7);

    // Null in, null out, counter untouched.
    EXPECT_EQ(orvlib_duparray(nullptr), nullptr);
    EXPECT_EQ(_orvlib_dupString(nullptr), nullptr);
    EXPECT_EQ(_memCnt, start + 7);

    ORVClient_Info* info = orvlib_orvlibinfo_malloc();
    partition_info* partition = partition_info_mem_alloc();
    radius_info* radius = radius_info_mem_alloc();
    ASSERT_TRUE(info && partition && radius);
    EXPECT_EQ(_memCnt, start + 10);

    orvlib_free_values(values);
    EXPECT_EQ(_memCnt, start + 6);
    orvlib_free_values(empty_copy);
    orvlib_memfree(copy);
    orvlib_memfree(buffer);
    orvlib_memfree(partition);
    orvlib_memfree(radius);
    EXPECT_EQ(_memCnt, start + 1);

    // The information record is freed alone; its strings are the caller's.
    char* version = _orvlib_dupString("6.1");
    info->orv_server_version = version;
    orvlib_orvlibinfo_free(info);
    EXPECT_EQ(_memCnt, start + 1);
    EXPECT_STREQ(version, "6.1");
    orvlib_memfree(version);
    EXPECT_EQ(_memCnt, start);
}

TEST(OrvMem, EntryFreeReleasesEveryBlockOfAPopulatedEntry) {
    const int start = _memCnt;
    const char* vals[] = {"Jane Doe", "J. Doe", nullptr};
    ORVLibEntry* entry = make_entry("cn", vals, "uid");
    // entry, attribute array, two attributes, two names, value array, two values
    EXPECT_EQ(_memCnt, start + 9);
    orvlib_orvlibentry_free(entry);
    EXPECT_EQ(_memCnt, start);

    // An entry without attribute array is just the record.
    auto* bare = reinterpret_cast<ORVLibEntry*>(orvlib_str_malloc(sizeof(ORVLibEntry)));
    bare->orvlibEntryAttrData = nullptr;
    orvlib_orvlibentry_free(bare);
    EXPECT_EQ(_memCnt, start);

    // Each attribute is named in DEBUG lines before it goes.
    const std::string log = log_text();
    EXPECT_TRUE(has_line(log, "ID: DEBUG |", " libentry->orvlibEntryAttrData : "));
    const std::string itr = find_line(log, "ID: DEBUG | itr : 1 |");
    EXPECT_FALSE(itr.empty());
    EXPECT_EQ(itr.find("Source:"), std::string::npos) << "written at trace level: " << itr;
    EXPECT_TRUE(has_line(log, "ID: DEBUG |", " attrName : ", "uid |"));
    EXPECT_TRUE(has_line(log, "ID: DEBUG |", " attrVals : "));
}

TEST(OrvMem, FreeFunctionsAcceptNull) {
    const int start = _memCnt;
    std::string before = log_text();
    orvlib_memfree(nullptr);
    orvlib_free_values(nullptr);
    // These two stay silent on null: not even their trace lines are written.
    EXPECT_EQ(log_text().size(), before.size());

    orvlib_orvlibentry_free(nullptr);
    orvlib_orvlibinfo_free(nullptr);
    orvlib_orvmessage_free(nullptr);
    EXPECT_EQ(_memCnt, start);
}

TEST(OrvMem, MemoryCountIsTracedWithEachChange) {
    char* block = orvlib_str_malloc(4);
    const std::string count = std::to_string(_memCnt);
    orvlib_memfree(block);
    const std::string after = std::to_string(_memCnt);
    const std::string log = log_text();
    // Trace-level lines carry the function name and the source location.
    EXPECT_TRUE(has_line(log, "ID: DEBUG | Memory Count : orvlib_str_malloc |" + count + " |",
                         "Source:"));
    EXPECT_TRUE(has_line(log, "ID: DEBUG | Memory Count : orvlib_memfree |" + after + " |",
                         "Source:"));
    EXPECT_TRUE(has_line(log, "ID: TRACE_ENTRY | Entering function : orvlib_str_malloc |"));
    EXPECT_TRUE(has_line(log, "ID: TRACE_EXIT | Exiting function : orvlib_memfree |"));
}

TEST(OrvMem, PartitionRecordIsReleasedOnlyInCorporateMode) {
    const int start = _memCnt;
    partition_info* info = partition_info_mem_alloc();
    std::memset(info, 0, sizeof *info);
    info->admin_dn = _orvlib_dupString("cn=admin");
    info->admin_pwd = _orvlib_dupString("secret");
    info->hostname = _orvlib_dupString("127.0.0.1");
    info->search_base = _orvlib_dupString("dc=corp");
    info->meta_group_for_groups = _orvlib_dupString("cn=meta");
    PARTITION_INFO = info;
    EXPECT_EQ(_memCnt, start + 6);

    ORV_OPERATION_MODE = 0;
    free_partition_info();
    EXPECT_EQ(PARTITION_INFO, info);
    EXPECT_EQ(_memCnt, start + 6);

    ORV_OPERATION_MODE = 1;
    free_partition_info();
    EXPECT_EQ(PARTITION_INFO, nullptr);
    // The strings come off the count; the record goes back uncounted.
    EXPECT_EQ(_memCnt, start + 1);

    free_partition_info();  // nothing left to release
    EXPECT_EQ(_memCnt, start + 1);
    ORV_OPERATION_MODE = 0;
}

TEST(OrvMem, RadiusRecordIsReleasedOnlyWhenRadiusIsConfigured) {
    const int start = _memCnt;
    radius_info* info = radius_info_mem_alloc();
    info->radius_hostname = _orvlib_dupString("127.0.0.1");
    info->radius_port_number = 1812;
    info->radius_secret = _orvlib_dupString("s3cret");
    RADIUS_INFO = info;

    ORVLIB_IS_RADIUS_CONFIGURED = 0;
    free_radius_config_info();
    EXPECT_EQ(RADIUS_INFO, info);
    EXPECT_EQ(_memCnt, start + 3);

    ORVLIB_IS_RADIUS_CONFIGURED = 1;
    free_radius_config_info();
    EXPECT_EQ(RADIUS_INFO, nullptr);
    EXPECT_EQ(_memCnt, start + 1);
    ORVLIB_IS_RADIUS_CONFIGURED = 0;
}

#ifndef ORV_TEST_ASAN
// In a child process with a small address space the allocator must fail;
// the failure path counts two.
TEST(OrvMemDeathTest, FailedStringAllocationCountsTwo) {
    EXPECT_EXIT(
        {
            rlimit limit{};
            getrlimit(RLIMIT_AS, &limit);
            limit.rlim_cur = 1024ul * 1024ul * 1024ul;  // 1 GiB, far below the request
            if (setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(3);
            const int start = _memCnt;
            char* block = orvlib_str_malloc(UINT_MAX);
            std::_Exit(block == nullptr && _memCnt == start + 2 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
