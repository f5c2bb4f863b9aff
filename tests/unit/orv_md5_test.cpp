// MD5 against the test suite of RFC 1321, fed whole and in uneven pieces.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "orv_md5.h"

namespace {

std::string md5_hex(const std::string& text) { return orv::Md5::hex(orv::Md5::of(text.data(), text.size())); }

// Feeds text in pieces of the given size.
std::string md5_hex_chunked(const std::string& text, std::size_t piece) {
    orv::Md5 md5;
    for (std::size_t i = 0; i < text.size(); i += piece)
        md5.update(text.data() + i, std::min(piece, text.size() - i));
    return orv::Md5::hex(md5.digest());
}

struct Vector {
    std::string text;
    const char* digest;
};

const Vector kRfcVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(Md5, RfcTestSuite) {
    for (const Vector& v : kRfcVectors) {
        EXPECT_EQ(md5_hex(v.text), v.digest) << '"' << v.text << '"';
        for (std::size_t piece : {1u, 3u, 63u, 64u, 65u})
            EXPECT_EQ(md5_hex_chunked(v.text, piece), v.digest) << '"' << v.text << "\" in pieces of " << piece;
    }
}

TEST(Md5, MillionCharactersAcrossManyBlocks) {
    const std::string text(1000000, 'a');
    EXPECT_EQ(md5_hex_chunked(text, 1000), "7707d6ae4e027c70eea2a935c2296f21");
    EXPECT_EQ(md5_hex_chunked(text, 4099), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(Md5, PaddingBoundaries) {
    // Lengths around the 56-byte padding limit and the 64-byte block: every
    // split of the message must give the one-shot digest.
    for (std::size_t length = 50; length <= 130; ++length) {
        std::string text(length, '\0');
        for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7 + 1);
        const std::string whole = md5_hex(text);
        for (std::size_t split = 0; split <= length; split += 13) {
            orv::Md5 md5;
            md5.update(text.data(), split);
            md5.update(text.data() + split, length - split);
            EXPECT_EQ(orv::Md5::hex(md5.digest()), whole) << length << '/' << split;
        }
    }
}

}  // namespace
