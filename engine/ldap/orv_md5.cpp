// orv_md5.cpp - MD5 message digest after RFC 1321.
//
// The library hashes host and process information with it to make the node
// identifier of its version-1 UUIDs; nothing else depends on it, and it is
// not a security primitive here.
#include "orv_md5.h"

#include <algorithm>
#include <cstring>

namespace orv {
namespace {

// Sine-derived additive constants, one per step.
constexpr std::uint32_t kSteps[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
    0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
    0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
    0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
    0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
    0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
    0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
    0xeb86d391};

// Left-rotation amounts, four per round.
constexpr unsigned kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

inline std::uint32_t rotl(std::uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

inline std::uint32_t load_le32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline void store_le32(unsigned char* p, std::uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

}  // namespace

Md5::Md5() : state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, bit_count_(0), buffer_{}, buffered_(0) {}

void Md5::transform(const unsigned char block[64]) {
    std::uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = load_le32(block + 4 * i);

    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    for (unsigned i = 0; i < 64; ++i) {
        const unsigned round = i / 16;
        std::uint32_t f;
        unsigned word;
        switch (round) {
        case 0:
            f = (b & c) | (~b & d);
            word = i;
            break;
        case 1:
            f = (b & d) | (c & ~d);
            word = (5 * i + 1) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            word = (3 * i + 5) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            word = (7 * i) % 16;
            break;
        }
        const std::uint32_t rotated = rotl(a + f + kSteps[i] + x[word], kShifts[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b = b + rotated;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
}

void Md5::update(const void* data, std::size_t length) {
    const unsigned char* in = static_cast<const unsigned char*>(data);
    bit_count_ += static_cast<std::uint64_t>(length) * 8;
    if (buffered_ > 0) {
        const std::size_t take = std::min(length, sizeof buffer_ - buffered_);
        std::memcpy(buffer_ + buffered_, in, take);
        buffered_ += take;
        in += take;
        length -= take;
        if (buffered_ < sizeof buffer_) return;
        transform(buffer_);
        buffered_ = 0;
    }
    for (; length >= 64; in += 64, length -= 64) transform(in);
    if (length > 0) {
        std::memcpy(buffer_, in, length);
        buffered_ = length;
    }
}

Md5::Digest Md5::digest() {
    // Pad with 0x80, zeros up to 56 mod 64, then the message length in bits.
    unsigned char length_le[8];
    const std::uint64_t bits = bit_count_;
    for (int i = 0; i < 8; ++i) length_le[i] = static_cast<unsigned char>(bits >> (8 * i));

    static const unsigned char padding[64] = {0x80};
    const std::size_t pad = (buffered_ < 56) ? 56 - buffered_ : 120 - buffered_;
    update(padding, pad);
    update(length_le, sizeof length_le);

    Digest out;
    for (int i = 0; i < 4; ++i) store_le32(out.data() + 4 * i, state_[i]);
    return out;
}

Md5::Digest Md5::of(const void* data, std::size_t length) {
    Md5 md5;
    md5.update(data, length);
    return md5.digest();
}

std::string Md5::hex(const Digest& digest) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * digest.size());
    for (unsigned char byte : digest) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

}  // namespace orv
