// A library session for the integration tests: orvlib_init, the session
// context and, at close, unbind and orvlib_uninitialize_lib.
#pragma once

#include <map>
#include <string>

#include "orvldap.h"
#include "testbed.hpp"

namespace orvtest {

// Frees an information record with the two strings the caller owns.
inline void free_info(ORVLibInfo* info) {
    if (!info) return;
    orvlib_memfree(const_cast<char*>(info->orv_server_version));
    orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
    orvlib_orvlibinfo_free(info);
}

class Session {
public:
    Session() = default;
    explicit Session(const orv::testbed::Directory& dir) { open(dir); }
    Session(const std::string& host, int port, int ssl = 0) { open(host, port, ssl); }
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void open(const orv::testbed::Directory& dir) { open(dir.host(), dir.port()); }
    void open(const std::string& host, int port, int ssl = 0) {
        start_ = _memCnt;
        uncounted_at_open_ = uncounted_;
        orvlib_init();
        opened_ = true;
        ld_ = orvlib_getsession_context(host.c_str(), port, &info_, ssl);
        status_ = ldapErrCode;
    }
    void close() {
        // The partition and RADIUS records are released with the platform's
        // free, so the allocation counter keeps them.
        if (opened_ && ORV_OPERATION_MODE == 1 && PARTITION_INFO) ++uncounted_;
        if (opened_ && ORVLIB_IS_RADIUS_CONFIGURED == 1 && RADIUS_INFO) ++uncounted_;
        free_info(info_);
        info_ = nullptr;
        if (ld_) orvlib_unbind(ld_);
        if (opened_) orvlib_uninitialize_lib();
        ld_ = nullptr;
        opened_ = false;
    }
    LDAP* ld() const { return ld_; }
    ORVLibInfo* info() const { return info_; }
    int status() const { return status_; }
    // Records of all closed sessions freed without counting down.
    int uncounted() const { return uncounted_; }
    // After close(): allocations of the last session not released.
    int outstanding() const { return _memCnt - start_ - (uncounted_ - uncounted_at_open_); }

private:
    LDAP* ld_ = nullptr;
    ORVLibInfo* info_ = nullptr;
    int status_ = 0;
    int start_ = 0;
    int uncounted_ = 0;
    int uncounted_at_open_ = 0;
    bool opened_ = false;
};

// Puts the ORV directory `local` in corporate mode with its partition on the
// corporate directory `corp` (host, port and suffix); `params` adds scenario
// parameters and wins over those three.
inline void use_partition(orv::testbed::Directory& local, const orv::testbed::Directory& corp,
                          std::map<std::string, std::string> params = {}) {
    params.emplace("corp_host", corp.host());
    params.emplace("corp_port", std::to_string(corp.port()));
    params.emplace("corp_suffix", corp.suffix());
    local.reseed("corporate", params);
}

}  // namespace orvtest
