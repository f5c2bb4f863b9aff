// orvldap_helper.cpp - session and configuration helpers: the library's
// reading of stored credentials (notation in orv_credential_notation.cpp).
#include "orvldap_helper.h"

#include <string>

#include "orv_internal.hpp"

extern "C" char* orv_decipher_credential(const char* stored) {
    ORV_TRACE();
    if (stored == nullptr) return nullptr;
    std::string plain;
    if (!orv::decipher_credential(stored, plain)) {
        ORV_DEBUG("Stored credential is malformed", "");
        return nullptr;
    }
    return _orvlib_dupString(plain.c_str());
}
