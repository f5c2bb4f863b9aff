// orv_md5.h - MD5 message digest (RFC 1321), used to derive the UUID node
// identifier from host and process information.  Internal to the library.
#ifndef ORV_MD5_H
#define ORV_MD5_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace orv {

// Incremental MD5: construct, update() any number of times, then digest().
// digest() finishes the computation; the object must not be updated after.
class Md5 {
public:
    static constexpr std::size_t kDigestSize = 16;
    using Digest = std::array<unsigned char, kDigestSize>;

    Md5();
    void update(const void* data, std::size_t length);
    Digest digest();

    // One-shot helpers.
    static Digest of(const void* data, std::size_t length);
    static std::string hex(const Digest& digest);

private:
    void transform(const unsigned char block[64]);

    std::uint32_t state_[4];
    std::uint64_t bit_count_;
    unsigned char buffer_[64];
    std::size_t buffered_;
};

}  // namespace orv

#endif  // ORV_MD5_H
