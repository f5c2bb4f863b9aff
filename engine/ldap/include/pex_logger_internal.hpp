// pex_logger_internal.hpp - internal hooks of the diagnostic logger.
//
// The logger starts itself once per process.  Unit tests use the reset hook
// to drop that state (closing the open log file) so that the next message
// initialises the logger again from the current working directory.
// Not exported from the shared library.
#ifndef PEX_LOGGER_INTERNAL_HPP
#define PEX_LOGGER_INTERNAL_HPP

namespace orv {

// Closes the log file and returns the logger to its never-initialised state.
void logger_reset_for_tests();

}  // namespace orv

#endif  // PEX_LOGGER_INTERNAL_HPP
