// orvldap_password.cpp - password policy: syntax checks of new passwords.
//
// ---------------------------------------------------------------------------
// Character checks
// ---------------------------------------------------------------------------
// Each check counts over the bytes of the new password up to its
// terminating zero and answers 3003 (passes) or 3004 (fails); limits and
// counts are compared as signed integers, so a negative limit makes the
// "at least" checks pass and the "at most" check fail.
//
//   numeric       bytes '0'..'9'                      passes when count >= limit
//   symbol        bytes that are not alphanumeric     passes when count >= limit
//                 (blanks, punctuation, every byte above 127)
//   non-alpha     bytes that are not alphabetic       passes when count >= limit
//   max repeated  most occurrences of any one byte    passes when count <= limit
//                 anywhere in the password (not runs)
//   min diff      distinct bytes, 0 when fewer than   passes when count >= limit
//                 two (one repeated byte, empty)
//
// So with a limit of 0 the repetition check refuses every non-empty
// password, and "a" fails a minimum of one different character.  Counting
// uses per-byte tables, so passwords of any length are handled.
// ---------------------------------------------------------------------------
#include <array>
#include <cctype>
#include <climits>

#include "orv_internal.hpp"
#include "orvldap_password.h"
#include "orvldap_utils.h"

namespace orv {
namespace {

// Bytes above 127 are symbols and non-letters whatever the caller's locale.
bool is_alnum_byte(unsigned char c) { return c < 128 && std::isalnum(c) != 0; }
bool is_alpha_byte(unsigned char c) { return c < 128 && std::isalpha(c) != 0; }

int clamp_count(long long n) { return n > INT_MAX ? INT_MAX : static_cast<int>(n); }

template <typename Pred>
int count_bytes(const char* password, Pred pred) {
    long long count = 0;
    if (password == nullptr) return 0;
    for (const char* p = password; *p != '\0'; ++p)
        if (pred(static_cast<unsigned char>(*p))) ++count;
    return clamp_count(count);
}

std::array<long long, 256> occurrences(const char* password) {
    std::array<long long, 256> seen{};
    if (password != nullptr)
        for (const char* p = password; *p != '\0'; ++p) ++seen[static_cast<unsigned char>(*p)];
    return seen;
}

int verdict(bool passes) { return passes ? ORV_LDAPLIB_CHECK_PASSED : ORV_LDAPLIB_CHECK_FAILED; }

}  // namespace

int count_numeric_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return c >= '0' && c <= '9'; });
}

int count_symbol_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return !is_alnum_byte(c); });
}

int count_non_alpha_characters(const char* password) {
    return count_bytes(password, [](unsigned char c) { return !is_alpha_byte(c); });
}

int count_max_repeated_characters(const char* password) {
    long long highest = 0;
    for (long long n : occurrences(password))
        if (n > highest) highest = n;
    return clamp_count(highest);
}

int count_different_characters(const char* password) {
    int distinct = 0;
    for (long long n : occurrences(password))
        if (n > 0) ++distinct;
    return distinct < 2 ? 0 : distinct;
}

}  // namespace orv

extern "C" {

int check_numeric_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_numeric_characters(new_password);
    ORV_DEBUG("Numeric characters: ", count);
    return orv::verdict(count >= limit);
}

int check_symbol_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_symbol_characters(new_password);
    ORV_DEBUG("Symbol characters: ", count);
    return orv::verdict(count >= limit);
}

int check_non_alpha_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_non_alpha_characters(new_password);
    ORV_DEBUG("Non-alphabetic characters: ", count);
    return orv::verdict(count >= limit);
}

int check_max_repeated_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_max_repeated_characters(new_password);
    ORV_DEBUG("Maximum repeated characters: ", count);
    return orv::verdict(count <= limit);
}

int check_min_diff_characters(int limit, const char* new_password) {
    ORV_TRACE();
    const int count = orv::count_different_characters(new_password);
    ORV_DEBUG("Different characters: ", count);
    return orv::verdict(count >= limit);
}

}  // extern "C"

// ---------------------------------------------------------------------------
