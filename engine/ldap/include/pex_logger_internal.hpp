// pex_logger_internal.hpp - internal hooks of the diagnostic logger.
//
// The logger starts itself once per process.  Unit tests use the reset hook
// to drop that state (closing the open log file) so that the next message
// initialises the logger again from the current working directory.
// Not exported from the shared library.
#ifndef PEX_LOGGER_INTERNAL_HPP
#define PEX_LOGGER_INTERNAL_HPP

#include <string>

namespace orv {

// Closes the log file and returns the logger to its never-initialised state.
void logger_reset_for_tests();

// The settings that a configuration file of this text gives (defaults for
// everything it does not set), read as the logger reads its file at start.
// The running logger's own settings are left as they are.
struct LoggerSettings {
    std::string product;
    std::string version;
    int size_limit_mb = 0;
    int log_level = 0;
    int trace_level = 0;
    int max_files = 0;
    int enable_logging = 0;
    int enable_tracing = 0;
    int enable_password_log = 0;
};
LoggerSettings logger_settings_from_text(const std::string& text);

}  // namespace orv

#endif  // PEX_LOGGER_INTERNAL_HPP
