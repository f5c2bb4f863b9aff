// Client networks of the plugin's allow-lists: an IPv4 or IPv6 address with
// an optional prefix length ("127.0.0.0/8", "::1", "fd00::/8").
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvsrv {

struct Network {
    bool v6 = false;
    std::uint8_t bytes[16] = {};
    unsigned prefix = 0;  // leading bits that must match
};

// Reads "address" or "address/prefix". A bare address is a host (/32 or
// /128). Host bits set beyond the prefix are refused ("10.0.0.1/8"), so a
// network is written one way only.
bool parse_network(const std::string& text, Network* out);

// True when the client address (4 bytes IPv4 or 16 bytes IPv6) lies in the
// network. An IPv4-mapped IPv6 address (::ffff:a.b.c.d), as a dual-stack
// listener reports IPv4 clients, is taken as the IPv4 address.
bool network_contains(const Network& network, const std::uint8_t* address, std::size_t len);

}  // namespace orvsrv
