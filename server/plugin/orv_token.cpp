#include "orv_token.hpp"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace orvsrv {
namespace {

constexpr unsigned char kTokenVersion = 1;
constexpr std::size_t kNonceBytes = 8;
constexpr std::size_t kHeaderBytes = 1 + 8 + kNonceBytes;
constexpr std::size_t kMacBytes = 32;

const char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int decode_char(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '-') return 62;
    if (c == '_') return 63;
    return -1;
}

std::string mac_of(const std::string& secret, const std::string& payload) {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
              reinterpret_cast<const unsigned char*>(payload.data()), payload.size(),
              mac, &len)) {
        return std::string();
    }
    return std::string(reinterpret_cast<char*>(mac), len);
}

}  // namespace

std::string base64url_encode(const std::string& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned v = (byte(i) << 16) | (byte(i + 1) << 8) | byte(i + 2);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const unsigned v = byte(i) << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
    } else if (rest == 2) {
        const unsigned v = (byte(i) << 16) | (byte(i + 1) << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
    }
    return out;
}

bool base64url_decode(const std::string& text, std::string* bytes) {
    if (text.size() % 4 == 1) return false;
    std::string out;
    out.reserve(text.size() / 4 * 3 + 2);
    unsigned acc = 0;
    int bits = 0;
    for (char c : text) {
        const int v = decode_char(c);
        if (v < 0) return false;
        acc = (acc << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xff);
        }
    }
    // Leftover bits must be zero, otherwise two texts would decode alike.
    if (bits > 0 && (acc & ((1u << bits) - 1)) != 0) return false;
    *bytes = std::move(out);
    return true;
}

std::string token_issue(const std::string& secret, const std::string& dn,
                        std::int64_t now, std::int64_t lifetime) {
    std::string payload;
    payload.reserve(kHeaderBytes + dn.size());
    payload += static_cast<char>(kTokenVersion);
    const std::uint64_t expiry = static_cast<std::uint64_t>(now + lifetime);
    for (int shift = 56; shift >= 0; shift -= 8) {
        payload += static_cast<char>((expiry >> shift) & 0xff);
    }
    unsigned char nonce[kNonceBytes];
    if (RAND_bytes(nonce, sizeof nonce) != 1) return std::string();
    payload.append(reinterpret_cast<char*>(nonce), sizeof nonce);
    payload += dn;
    const std::string mac = mac_of(secret, payload);
    if (mac.size() != kMacBytes) return std::string();
    return base64url_encode(payload) + "." + base64url_encode(mac);
}

TokenState token_check(const std::string& secret, const std::string& token,
                       std::int64_t now, std::string* dn) {
    const std::size_t dot = token.find('.');
    if (dot == std::string::npos) return TokenState::invalid;
    std::string payload, mac;
    if (!base64url_decode(token.substr(0, dot), &payload) ||
        !base64url_decode(token.substr(dot + 1), &mac)) {
        return TokenState::invalid;
    }
    if (mac.size() != kMacBytes || payload.size() <= kHeaderBytes) return TokenState::invalid;
    const std::string expected = mac_of(secret, payload);
    if (expected.size() != kMacBytes ||
        CRYPTO_memcmp(expected.data(), mac.data(), kMacBytes) != 0) {
        return TokenState::invalid;
    }
    if (static_cast<unsigned char>(payload[0]) != kTokenVersion) return TokenState::invalid;
    std::uint64_t expiry = 0;
    for (int k = 1; k <= 8; ++k) {
        expiry = (expiry << 8) | static_cast<unsigned char>(payload[k]);
    }
    if (static_cast<std::int64_t>(expiry) <= now) return TokenState::expired;
    *dn = payload.substr(kHeaderBytes);
    return TokenState::valid;
}

}  // namespace orvsrv
