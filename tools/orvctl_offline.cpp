// orvctl_offline.cpp - commands that need no directory: `guid`, `encipher`,
// `decipher`, `check-password`.
#include <cstring>
#include <stdexcept>
#include <string>

#include "orvctl.hpp"
#include "orv_credential_notation.hpp"
#include "orvldap_utils.h"

namespace orvctl {
namespace {

// The library's checks answer pass (3003) or fail (3004) against a limit;
// the count behind a check is the limit at which the answer turns.  Limits
// beyond the text's length cannot change the answer.
int largest_passing(int (*check)(int, const char*), const char* text) {
    const int length = static_cast<int>(std::strlen(text));
    int count = 0;
    for (int limit = 0; limit <= length; ++limit)
        if (check(limit, text) == ORV_LDAPLIB_CHECK_PASSED) count = limit;
    return count;
}

int smallest_passing(int (*check)(int, const char*), const char* text) {
    const int length = static_cast<int>(std::strlen(text));
    for (int limit = 0; limit <= length; ++limit)
        if (check(limit, text) == ORV_LDAPLIB_CHECK_PASSED) return limit;
    return length;
}

}  // namespace

int cmd_guid(const Args&) {
    LibString guid(orvlib_create_guid());
    if (!guid) return report_failure("could not create a GUID", ldapErrCode);
    std::printf("%s\n", guid.get());
    return kExitOk;
}

int cmd_encipher(const Args& args) {
    try {
        std::printf("%s\n", orv::encipher_credential(args.positional[0]).c_str());
    } catch (const std::exception& e) {
        print_error(e.what());
        return kExitFailed;
    }
    return kExitOk;
}

int cmd_decipher(const Args& args) {
    std::string plain;
    if (!orv::decipher_credential(args.positional[0], plain)) {
        print_error("not a well-formed stored credential");
        return kExitFailed;
    }
    std::printf("%s\n", plain.c_str());
    return kExitOk;
}

int cmd_check_password(const Args& args) {
    const char* text = args.positional[0].c_str();
    std::printf("length                %zu\n", std::strlen(text));
    std::printf("numeric characters    %d\n", largest_passing(check_numeric_characters, text));
    std::printf("symbol characters     %d\n", largest_passing(check_symbol_characters, text));
    std::printf("non-alpha characters  %d\n", largest_passing(check_non_alpha_characters, text));
    std::printf("max repeated          %d\n", smallest_passing(check_max_repeated_characters, text));
    std::printf("different characters  %d\n", largest_passing(check_min_diff_characters, text));
    return kExitOk;
}

}  // namespace orvctl
