// The logger's configuration file.  Whatever the file holds, the settings
// stay in their ranges, and the product and version that go into log file
// names hold only letters, digits and "_" (no path can be smuggled in).
#include <string>

#include "fuzz_support.hpp"
#include "pex_logger.h"
#include "pex_logger_internal.hpp"

namespace {

bool name_safe(const std::string& s, size_t max_chars) {
    if (s.empty() || s.size() > max_chars) return false;
    for (char c : s) {
        const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        if (!ok) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const orv::LoggerSettings s = orv::logger_settings_from_text(text);
    orvfuzz::check(name_safe(s.product, 230), "product", s.product);
    orvfuzz::check(name_safe(s.version, 15), "version", s.version);
    orvfuzz::check(s.size_limit_mb >= 1, "size", std::to_string(s.size_limit_mb));
    orvfuzz::check(s.max_files >= 1, "max files", std::to_string(s.max_files));
    orvfuzz::check(s.log_level >= PEX_FATAL && s.log_level <= PEX_INFO, "log level");
    orvfuzz::check(s.trace_level >= PEX_TRACE_MIN && s.trace_level <= PEX_TRACE_MAX, "trace level");
    for (int v : {s.enable_logging, s.enable_tracing, s.enable_password_log})
        orvfuzz::check(v == 0 || v == 1, "switch", std::to_string(v));
    return 0;
}
