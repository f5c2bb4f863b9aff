// The server's compatibility version text, as read at session start.  Any
// text gives an answer; for texts of single-digit dotted components of the
// client's layout the answer is the numeric comparison of the components.
#include <string>

#include "fuzz_support.hpp"
#include "orv_internal.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    const std::string server = raw.substr(0, raw.find('\0'));
    const bool too_old = orv::client_version_too_old(server.c_str());

    const std::string client = ORVLIB_CLIENT_LIBRARY_VERSION;
    bool same_layout = server.size() == client.size();
    for (size_t i = 0; same_layout && i < server.size(); ++i) {
        const bool digit = server[i] >= '0' && server[i] <= '9';
        same_layout = (i % 2 == 0) ? digit : server[i] == '.';
    }
    if (same_layout) {
        std::string s, c;
        for (size_t i = 0; i < server.size(); i += 2) {
            s += server[i];
            c += client[i];
        }
        orvfuzz::check(too_old == (c < s), "dotted versions compare by components", server);
    }
    return 0;
}
