// Stored credentials as they come out of the directory: the partition
// administrator's password and the RADIUS secret.  Whatever the text, the
// decipherer answers a plain text or NULL; a text it accepts enciphers again
// (with another key) to a text that deciphers to the same plain text.
#include <stdexcept>
#include <string>

#include "fuzz_support.hpp"
#include "orvldap_helper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const orv::CredentialKey key = orv::make_credential_key();
    const std::string raw(reinterpret_cast<const char*>(data), size);
    const std::string stored = raw.substr(0, raw.find('\0'));

    std::string plain;
    const bool ok = orv::decipher_credential(stored, plain);
    {
        orvfuzz::AllocationBalance balance;
        char* c = orv_decipher_credential(stored.c_str());
        orvfuzz::check((c != nullptr) == ok, "C and C++ decipherers disagree", stored);
        if (c) orvfuzz::check(plain == c, "C and C++ plain texts differ", stored);
        orvlib_memfree(c);
    }
    if (!ok) {
        orvfuzz::check(plain.empty(), "plain text handed back for a malformed credential", stored);
        return 0;
    }
    orvfuzz::check(plain.find('\0') == std::string::npos, "zero byte in plain text", stored);

    std::string again;
    const std::string restored = orv::encipher_credential(plain, key);
    orvfuzz::check(orv::decipher_credential(restored, again) && again == plain, "round trip", stored);
    return 0;
}
