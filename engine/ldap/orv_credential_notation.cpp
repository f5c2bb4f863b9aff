// orv_credential_notation.cpp - stored credentials: the notation, reading
// and writing it.
//
// ---------------------------------------------------------------------------
// Stored credentials
// ---------------------------------------------------------------------------
// The partition administrator's password ("orvPartitionAdminPassword") and
// the RADIUS shared secret ("orvRadiusServerSharedSecret") are stored in the
// directory in enciphered form.  Notation:
//
//     stored  := "(" d "," n ")" ":" [ c { "-" c } ]
//     d, n, c := an unsigned number in C notation: decimal ("1234"),
//                hexadecimal ("0x4d2" or "0X4D2") or octal with a leading
//                zero ("02322"); no sign, no blanks
//
// d is the decipher exponent and n the modulus (2..65535); each c is one
// enciphered character (c < n).  The plain text is, character by character,
// the low byte of c^d mod n, computed by square and multiply on unsigned
// 32-bit values (n below 65536 keeps every product within 32 bits).  An
// empty list after ":" stands for the empty text.  Anything else, a number
// out of range, or a character that deciphers to a zero byte makes the
// stored text malformed, and deciphering gives NULL.
//
// The enciphering side (tools, the test bed) draws an RSA-like pair over a
// modulus n = p*q of two distinct primes with 256 <= n <= 65535, exponents e
// and d inverse modulo lcm(p-1, q-1), writes c = m^e mod n for each byte m,
// and mixes decimal, hexadecimal and octal notation at random.  Since the
// stored text carries its own key, this keeps credentials out of plain sight
// in entries, exports and logs; it protects nothing from a reader who knows
// the notation.
//
// Example: "(413,3233):2790" and "(0x19d,06241):0Xae6" both decipher to "A".
// ---------------------------------------------------------------------------
#include "orv_credential_notation.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <stdexcept>
#include <vector>

namespace orv {
namespace {

constexpr std::uint32_t kMaxModulus = 65535;
constexpr std::uint32_t kMinKeyModulus = 256;  // every byte value must survive

std::mt19937& credential_rng() {
    static std::mt19937 rng{std::random_device{}()};
    return rng;
}

// Reads one number at text[pos] into value and advances pos; false when no
// unsigned number starts there or it does not fit in 32 bits.
bool read_number(const std::string& text, std::size_t& pos, std::uint32_t& value) {
    if (pos >= text.size() || text[pos] < '0' || text[pos] > '9') return false;
    const char* start = text.c_str() + pos;
    char* end = nullptr;
    errno = 0;
    const unsigned long parsed = std::strtoul(start, &end, 0);
    if (end == start || errno == ERANGE || parsed > 0xffffffffUL) return false;
    value = static_cast<std::uint32_t>(parsed);
    pos += static_cast<std::size_t>(end - start);
    return true;
}

bool expect(const std::string& text, std::size_t& pos, char c) {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
}

std::vector<std::uint32_t> small_primes(std::uint32_t below) {
    std::vector<bool> composite(below, false);
    std::vector<std::uint32_t> primes;
    for (std::uint32_t i = 2; i < below; ++i) {
        if (composite[i]) continue;
        primes.push_back(i);
        for (std::uint32_t j = i * i; j < below; j += i) composite[j] = true;
    }
    return primes;
}

// Inverse of a modulo m (gcd(a, m) == 1), or 0 when there is none.
std::uint32_t mod_inverse(std::uint32_t a, std::uint32_t m) {
    long long t = 0, new_t = 1, r = m, new_r = a;
    while (new_r != 0) {
        const long long q = r / new_r;
        t -= q * new_t;
        std::swap(t, new_t);
        r -= q * new_r;
        std::swap(r, new_r);
    }
    if (r != 1) return 0;
    if (t < 0) t += m;
    return static_cast<std::uint32_t>(t);
}

std::string write_number(std::uint32_t value, unsigned notation) {
    char text[16];
    switch (notation % 4) {
    case 0: std::snprintf(text, sizeof text, "%u", value); break;
    case 1: std::snprintf(text, sizeof text, "0x%x", value); break;
    case 2: std::snprintf(text, sizeof text, "0X%X", value); break;
    default: std::snprintf(text, sizeof text, "0%o", value); break;
    }
    return text;
}

}  // namespace

std::uint32_t credential_modpow(std::uint32_t base, std::uint32_t exponent, std::uint32_t modulus) {
    if (modulus == 0 || modulus > kMaxModulus) throw std::invalid_argument("modulus out of range");
    std::uint32_t result = 1 % modulus;
    base %= modulus;
    while (exponent != 0) {
        if (exponent & 1u) result = (result * base) % modulus;
        base = (base * base) % modulus;
        exponent >>= 1;
    }
    return result;
}

CredentialKey make_credential_key() {
    static const std::vector<std::uint32_t> primes = small_primes(kMaxModulus / 16);
    std::mt19937& rng = credential_rng();
    std::uniform_int_distribution<std::size_t> pick(0, primes.size() - 1);
    for (;;) {
        const std::uint32_t p = primes[pick(rng)];
        const std::uint32_t q = primes[pick(rng)];
        const std::uint32_t n = p * q;
        if (p == q || n < kMinKeyModulus || n > kMaxModulus) continue;
        const std::uint32_t lambda = std::lcm(p - 1, q - 1);
        if (lambda < 4) continue;
        std::uniform_int_distribution<std::uint32_t> pick_e(3, lambda - 1);
        for (int tries = 0; tries < 64; ++tries) {
            const std::uint32_t e = pick_e(rng);
            const std::uint32_t d = mod_inverse(e, lambda);
            if (d > 1) return CredentialKey{n, e, d};
        }
    }
}

std::string encipher_credential(const std::string& plain, const CredentialKey& key) {
    if (key.modulus < kMinKeyModulus || key.modulus > kMaxModulus)
        throw std::invalid_argument("credential key modulus must be 256..65535");
    std::mt19937& rng = credential_rng();
    std::uniform_int_distribution<unsigned> notation(0, 3);
    std::string stored = "(" + write_number(key.decipher_exponent, notation(rng)) + "," +
                         write_number(key.modulus, notation(rng)) + "):";
    for (std::size_t i = 0; i < plain.size(); ++i) {
        const auto m = static_cast<unsigned char>(plain[i]);
        if (m == 0) throw std::invalid_argument("credential text holds a zero byte");
        const std::uint32_t c = credential_modpow(m, key.encipher_exponent, key.modulus);
        if ((credential_modpow(c, key.decipher_exponent, key.modulus) & 0xffu) != m)
            throw std::invalid_argument("credential key exponents do not match");
        if (i > 0) stored += '-';
        stored += write_number(c, notation(rng));
    }
    return stored;
}

std::string encipher_credential(const std::string& plain) {
    return encipher_credential(plain, make_credential_key());
}

bool decipher_credential(const std::string& stored, std::string& out) {
    std::size_t pos = 0;
    std::uint32_t exponent = 0, modulus = 0;
    if (!expect(stored, pos, '(') || !read_number(stored, pos, exponent) || !expect(stored, pos, ',') ||
        !read_number(stored, pos, modulus) || !expect(stored, pos, ')') || !expect(stored, pos, ':'))
        return false;
    if (modulus < 2 || modulus > kMaxModulus) return false;

    std::string plain;
    while (pos < stored.size()) {
        if (!plain.empty() && !expect(stored, pos, '-')) return false;
        std::uint32_t c = 0;
        if (!read_number(stored, pos, c) || c >= modulus) return false;
        const auto m = static_cast<char>(credential_modpow(c, exponent, modulus) & 0xffu);
        if (m == '\0') return false;
        plain += m;
    }
    out.swap(plain);
    return true;
}

}  // namespace orv
