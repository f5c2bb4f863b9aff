#include "orv_credential.hpp"

#include <cstdint>

namespace orvsrv {
namespace {

constexpr std::uint32_t kMaxModulus = 65535;

int digit_value(char c, unsigned base) {
    int v = -1;
    if (c >= '0' && c <= '9') v = c - '0';
    else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
    return v >= 0 && static_cast<unsigned>(v) < base ? v : -1;
}

// One unsigned number in C notation at pos; false when there is none or it
// does not fit in 32 bits.
bool read_number(const std::string& s, std::size_t& pos, std::uint32_t* out) {
    unsigned base = 10;
    if (pos < s.size() && s[pos] == '0') {
        if (pos + 1 < s.size() && (s[pos + 1] == 'x' || s[pos + 1] == 'X')) {
            base = 16;
            pos += 2;
        } else {
            base = 8;  // "0" alone is a valid octal zero
        }
    }
    const std::size_t start = pos;
    std::uint64_t value = 0;
    while (pos < s.size()) {
        const int d = digit_value(s[pos], base);
        if (d < 0) break;
        value = value * base + static_cast<unsigned>(d);
        if (value > UINT32_MAX) return false;
        ++pos;
    }
    if (pos == start) return false;
    *out = static_cast<std::uint32_t>(value);
    return true;
}

bool expect(const std::string& s, std::size_t& pos, char c) {
    if (pos >= s.size() || s[pos] != c) return false;
    ++pos;
    return true;
}

std::uint32_t modpow(std::uint32_t base, std::uint32_t exponent, std::uint32_t modulus) {
    std::uint32_t result = 1 % modulus;
    base %= modulus;
    while (exponent != 0) {
        if (exponent & 1u) result = (result * base) % modulus;
        base = (base * base) % modulus;
        exponent >>= 1;
    }
    return result;
}

}  // namespace

bool credential_decipher(const std::string& stored, std::string* plain) {
    std::size_t pos = 0;
    std::uint32_t exponent = 0, modulus = 0;
    if (!expect(stored, pos, '(') || !read_number(stored, pos, &exponent) ||
        !expect(stored, pos, ',') || !read_number(stored, pos, &modulus) ||
        !expect(stored, pos, ')') || !expect(stored, pos, ':')) {
        return false;
    }
    if (modulus < 2 || modulus > kMaxModulus) return false;
    std::string text;
    while (pos < stored.size()) {
        if (!text.empty() && !expect(stored, pos, '-')) return false;
        std::uint32_t c = 0;
        if (!read_number(stored, pos, &c) || c >= modulus) return false;
        const char m = static_cast<char>(modpow(c, exponent, modulus) & 0xffu);
        if (m == '\0') return false;
        text += m;
    }
    *plain = std::move(text);
    return true;
}

bool credential_plain(const std::string& stored, std::string* plain) {
    if (stored.empty()) return false;
    if (stored[0] == '(') return credential_decipher(stored, plain) && !plain->empty();
    *plain = stored;
    return true;
}

}  // namespace orvsrv
