// orv_internal.hpp - C++ helpers shared by the library's units: the trace
// guard that writes the entry and exit lines, debug-line shorthands, and
// RAII owners for LDAP client library objects.
#ifndef ORV_INTERNAL_HPP
#define ORV_INTERNAL_HPP

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <lber.h>
#include <ldap.h>

#include <cstddef>
#include <memory>
#include <string>

#include "orvldap.h"
#include "pex_logger.h"

namespace orv {

// Writes "TRACE_ENTRY"/"Entering function" when constructed and
// "TRACE_EXIT"/"Exiting function" when destroyed, so every exit path of a
// function is traced.  Allocation functions trace at severity 6.
class TraceGuard {
public:
    TraceGuard(const char* file, int line, const char* function, int severity = PEX_TRACE_MIN)
        : file_(file), line_(line), function_(function), severity_(severity) {
        LogPEXMessage(file_, line_, function_, "TRACE_ENTRY", severity_, "Entering function",
                      nullptr, nullptr);
    }
    ~TraceGuard() {
        LogPEXMessage(file_, line_, function_, "TRACE_EXIT", severity_, "Exiting function",
                      nullptr, nullptr);
    }
    TraceGuard(const TraceGuard&) = delete;
    TraceGuard& operator=(const TraceGuard&) = delete;

private:
    const char* file_;
    int line_;
    const char* function_;
    int severity_;
};

inline void debug(const char* file, int line, const char* function, const char* label,
                  const char* value, int severity = PEX_INFO) {
    LogPEXMessage(file, line, function, "DEBUG", severity, label, value, nullptr);
}
inline void debug(const char* file, int line, const char* function, const char* label,
                  const std::string& value, int severity = PEX_INFO) {
    LogPEXMessage(file, line, function, "DEBUG", severity, label, value.c_str(), nullptr);
}
inline void debug(const char* file, int line, const char* function, const char* label,
                  long value, int severity = PEX_INFO) {
    std::string text = std::to_string(value);
    LogPEXMessage(file, line, function, "DEBUG", severity, label, text.c_str(), nullptr);
}
inline void debug(const char* file, int line, const char* function, const char* label,
                  int value, int severity = PEX_INFO) {
    debug(file, line, function, label, static_cast<long>(value), severity);
}

// Owners for LDAP client library objects.
struct LdapMsgDeleter {
    void operator()(LDAPMessage* m) const { if (m) ldap_msgfree(m); }
};
using LdapMsg = std::unique_ptr<LDAPMessage, LdapMsgDeleter>;

struct BerDeleter {
    void operator()(BerElement* b) const { if (b) ber_free(b, 0); }
};
using BerPtr = std::unique_ptr<BerElement, BerDeleter>;

struct LdapMemDeleter {
    void operator()(char* p) const { if (p) ldap_memfree(p); }
};
using LdapString = std::unique_ptr<char, LdapMemDeleter>;

struct ValuesDeleter {
    void operator()(char** v) const { if (v) ldap_value_free(v); }
};
using LdapValues = std::unique_ptr<char*, ValuesDeleter>;

struct BerValuesDeleter {
    void operator()(berval** v) const { if (v) ber_bvecfree(v); }
};
using LdapBerValues = std::unique_ptr<berval*, BerValuesDeleter>;

struct ControlsDeleter {
    void operator()(LDAPControl** c) const { if (c) ldap_controls_free(c); }
};
using LdapControls = std::unique_ptr<LDAPControl*, ControlsDeleter>;

// A string owned through the library's allocation counter (orvlib_memfree).
struct OrvFree {
    void operator()(char* p) const { orvlib_memfree(p); }
};
using OrvString = std::unique_ptr<char, OrvFree>;

// True while searches go to the corporate partition.
inline bool corporate_search_mode() { return ORV_OPERATION_MODE == 1 && ORV_OP_MODE_SEARCH == 1; }

// True when the partition restricts users and groups by meta groups.
inline bool meta_groups_configured() {
    return PARTITION_INFO && PARTITION_INFO->partition_search_base_type == 2;
}

// Secrets (passwords, credentials) are overwritten with zeros before their
// memory goes back: wipe() clears a buffer or a std::string in a way the
// compiler does not optimise away; free_secret() clears a string made by the
// library allocator and releases it with orvlib_memfree (NULL is ignored).
void wipe(void* buffer, std::size_t size);
void wipe(std::string& text);
void free_secret(char* secret);

// Stores status in ldapErrCode, logs it through orvlib_get_last_error and
// returns it.
inline int report(int status) {
    ldapErrCode = status;
    orvlib_get_last_error(nullptr, nullptr);
    return status;
}

// True when the server's "kxslibrarycompatibleversion" text asks for a newer
// client than this library (orvldap.cpp).
bool client_version_too_old(const char* serverText);

}  // namespace orv

#define ORV_TRACE() ::orv::TraceGuard orv_trace_guard_(__FILE__, __LINE__, __func__)
#define ORV_TRACE_AT(sev) ::orv::TraceGuard orv_trace_guard_(__FILE__, __LINE__, __func__, (sev))
#define ORV_DEBUG(label, value) ::orv::debug(__FILE__, __LINE__, __func__, (label), (value))
#define ORV_DEBUG_AT(sev, label, value) \
    ::orv::debug(__FILE__, __LINE__, __func__, (label), (value), (sev))

#endif  // ORV_INTERNAL_HPP
