// Stored credentials: the square-and-multiply kernel, round trips through
// the enciphering side, hand-written texts in every number notation, and
// malformed texts, which must give NULL without leaking.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

#include "orvldap.h"
#include "orvldap_helper.h"

namespace {

// Deciphers through the C entry point and frees the result.
bool decipher(const char* stored, std::string* plain) {
    char* p = orv_decipher_credential(stored);
    if (p == nullptr) return false;
    *plain = p;
    orvlib_memfree(p);
    return true;
}

std::string all_bytes() {
    std::string s;
    for (int c = 1; c < 256; ++c) s += static_cast<char>(c);
    return s;
}

TEST(CredentialModpow, MatchesWideArithmetic) {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<std::uint32_t> any;
    std::uniform_int_distribution<std::uint32_t> mod(1, 65535);
    for (int i = 0; i < 2000; ++i) {
        const std::uint32_t n = i == 0 ? 65535 : mod(rng);
        const std::uint32_t b = i == 0 ? 65534 : any(rng);
        const std::uint32_t e = i == 0 ? 0xffffffffu : any(rng);
        std::uint64_t expected = 1 % n, base = b % n;
        for (std::uint32_t k = e; k != 0; k >>= 1) {
            if (k & 1) expected = expected * base % n;
            base = base * base % n;
        }
        ASSERT_EQ(orv::credential_modpow(b, e, n), expected) << b << '^' << e << " mod " << n;
    }
    EXPECT_EQ(orv::credential_modpow(2790, 413, 3233), 65u);
    EXPECT_EQ(orv::credential_modpow(5, 0, 7), 1u);
    EXPECT_THROW(orv::credential_modpow(1, 1, 0), std::invalid_argument);
    EXPECT_THROW(orv::credential_modpow(1, 1, 65536), std::invalid_argument);
}

TEST(StoredCredential, RoundTripOverEveryByteAndLongText) {
    const int before = _memCnt;
    const std::string bytes = all_bytes();
    std::string long_text;
    for (int i = 0; i < 40; ++i) long_text += bytes;  // 10,200 characters
    for (int i = 0; i < 25; ++i) {
        const orv::CredentialKey key = orv::make_credential_key();
        ASSERT_GE(key.modulus, 256u);
        ASSERT_LE(key.modulus, 65535u);
        std::string plain;
        const std::string stored = orv::encipher_credential(bytes, key);
        ASSERT_TRUE(decipher(stored.c_str(), &plain)) << stored;
        ASSERT_EQ(plain, bytes) << "modulus " << key.modulus;
    }
    std::string plain;
    ASSERT_TRUE(decipher(orv::encipher_credential(long_text).c_str(), &plain));
    EXPECT_EQ(plain, long_text);
    ASSERT_TRUE(decipher(orv::encipher_credential("").c_str(), &plain));
    EXPECT_EQ(plain, "");
    EXPECT_EQ(_memCnt, before);
}

TEST(StoredCredential, EnciphersWithoutShowingThePlainText) {
    const std::string stored = orv::encipher_credential("secret");
    EXPECT_EQ(stored.find("secret"), std::string::npos);
    EXPECT_EQ(stored.front(), '(');
    // Two encipherments of one text use different keys.
    EXPECT_NE(orv::encipher_credential("secret"), orv::encipher_credential("secret"));
}

TEST(StoredCredential, EncipherRefusesWhatCannotRoundTrip) {
    EXPECT_THROW(orv::encipher_credential(std::string("a\0b", 3)), std::invalid_argument);
    EXPECT_THROW(orv::encipher_credential("a", orv::CredentialKey{255, 3, 3}), std::invalid_argument);
    EXPECT_THROW(orv::encipher_credential("a", orv::CredentialKey{65536, 3, 3}), std::invalid_argument);
    // 3233 = 61 * 53 with e = 17: d must be 413 (or 2753), not 412.
    EXPECT_THROW(orv::encipher_credential("A", orv::CredentialKey{3233, 17, 412}), std::invalid_argument);
    EXPECT_EQ(orv::encipher_credential("A", orv::CredentialKey{3233, 17, 413}).substr(0, 1), "(");
}

TEST(StoredCredential, HandWrittenTextsInEveryNotation) {
    // Key 3233 = 61 * 53, e = 17, d = 413.  "Ab" enciphers to 2790, 2570.
    ASSERT_EQ(orv::credential_modpow('b', 17, 3233), 2570u);
    const struct {
        const char* stored;
        const char* plain;
    } cases[] = {
        {"(413,3233):2790", "A"},
        {"(0x19d,06241):0Xae6", "A"},
        {"(0X19D,0xca1):05346-0xa0a", "Ab"},
        {"(0635,3233):2790-05012-2790", "AbA"},
        {"(413,3233):", ""},
        // Exponent 1 over a modulus above 255 leaves the bytes as they are;
        // only the low byte of a result counts.
        {"(1,65535):72-0x69-0441", "Hi!"},
        {"(1,65535):0x141", "A"},
    };
    const int before = _memCnt;
    for (const auto& c : cases) {
        std::string plain;
        ASSERT_TRUE(decipher(c.stored, &plain)) << c.stored;
        EXPECT_EQ(plain, c.plain) << c.stored;
    }
    EXPECT_EQ(_memCnt, before);
}

TEST(StoredCredential, MalformedTextsGiveNull) {
    const char* const malformed[] = {
        "",
        "(",
        "(413",
        "(413,3233",
        "(413,3233)",
        "(413,3233)2790",
        "413,3233:2790",
        "(413;3233):2790",
        "(413,3233):2790-",
        "(413,3233):-2790",
        "(413,3233):2790--2790",
        "(413,3233):2790,2790",
        "(413,3233):2790:2790",
        "(413,3233,7):2790",
        "(413,3233):2790 ",
        " (413,3233):2790",
        "( 413,3233):2790",
        "(413,3233): 2790",
        "(413,3233):+2790",
        "(-413,3233):2790",
        "(413,3233):0x",
        "(0x,3233):2790",
        "(413,3233):08",
        "(413,3233):0xg",
        "(413,3233):2790a",
        "(413,0):1",
        "(413,1):0",
        "(413,65536):1",
        "(413,0x10000):1",
        "(413,3233):3233",               // enciphered character not below the modulus
        "(413,3233):0",                  // deciphers to a zero byte
        "(1,65535):256",                 // low byte zero
        "(4294967296,3233):2790",        // exponent wider than 32 bits
        "(413,3233):18446744073709551616",
        "(413,3233):99999999999999999999999999",
    };
    const int before = _memCnt;
    for (const char* text : malformed) EXPECT_EQ(orv_decipher_credential(text), nullptr) << '"' << text << '"';
    EXPECT_EQ(orv_decipher_credential(nullptr), nullptr);

    std::string out = "untouched";
    EXPECT_FALSE(orv::decipher_credential(std::string("(413,3233):2790\0-2790", 21), out));
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(_memCnt, before);
}

TEST(StoredCredential, LargestExponentAndModulus) {
    std::string plain;
    // 65534 = -1 mod 65535; an odd exponent keeps it, and 65534 & 0xff = 0xfe.
    ASSERT_TRUE(decipher("(0xffffffff,65535):65534", &plain));
    EXPECT_EQ(plain, "\xfe");
}

}  // namespace
