#include "orv_network.hpp"

#include <cstring>

#include <arpa/inet.h>

namespace orvsrv {
namespace {

const std::uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool bits_match(const std::uint8_t* a, const std::uint8_t* b, unsigned bits) {
    const unsigned whole = bits / 8;
    if (std::memcmp(a, b, whole) != 0) return false;
    const unsigned rest = bits % 8;
    if (rest == 0) return true;
    const std::uint8_t mask = static_cast<std::uint8_t>(0xff << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

}  // namespace

bool parse_network(const std::string& text, Network* out) {
    Network n;
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    if (inet_pton(AF_INET, address.c_str(), n.bytes) == 1) {
        n.v6 = false;
    } else if (inet_pton(AF_INET6, address.c_str(), n.bytes) == 1) {
        n.v6 = true;
    } else {
        return false;
    }
    const unsigned width = n.v6 ? 128 : 32;
    n.prefix = width;
    if (slash != std::string::npos) {
        const std::string digits = text.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        n.prefix = static_cast<unsigned>(std::stoul(digits));
        if (n.prefix > width) return false;
    }
    // No bits may be set past the prefix.
    for (unsigned bit = n.prefix; bit < width; ++bit) {
        if (n.bytes[bit / 8] & (0x80u >> (bit % 8))) return false;
    }
    *out = n;
    return true;
}

bool network_contains(const Network& network, const std::uint8_t* address, std::size_t len) {
    if (address == nullptr) return false;
    if (len == 16 && std::memcmp(address, kMappedPrefix, sizeof kMappedPrefix) == 0) {
        address += 12;
        len = 4;
    }
    if (len == 4) return !network.v6 && bits_match(network.bytes, address, network.prefix);
    if (len == 16) return network.v6 && bits_match(network.bytes, address, network.prefix);
    return false;
}

}  // namespace orvsrv
