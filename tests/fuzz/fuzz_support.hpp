// Shared pieces of the fuzz targets: turning fuzzer bytes into the C strings
// the library takes, and checks that stop the run with a message (libFuzzer
// keeps the input that made them fail).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "orvldap.h"

namespace orvfuzz {

[[noreturn]] inline void fail(const char* what, const std::string& detail = std::string()) {
    std::fprintf(stderr, "fuzz check failed: %s %s\n", what, detail.c_str());
    std::abort();
}

inline void check(bool ok, const char* what, const std::string& detail = std::string()) {
    if (!ok) fail(what, detail);
}

// A string of up to max bytes that stops at the first zero byte, as the
// library's C interface reads it.
inline std::string c_text(FuzzedDataProvider& in, size_t max = 4096) {
    std::string s = in.ConsumeRandomLengthString(max);
    return s.substr(0, s.find('\0'));
}

// Checks that everything the library allocated between construction and
// the end of the scope went back (the library's own allocation counter).
class AllocationBalance {
public:
    AllocationBalance() : start_(_memCnt) {}
    ~AllocationBalance() {
        if (_memCnt != start_)
            fail("library allocations not returned:", std::to_string(_memCnt - start_));
    }

private:
    int start_;
};

}  // namespace orvfuzz
