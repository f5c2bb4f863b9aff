#include "orv_credential.hpp"

#include "orv_credential_notation.hpp"

namespace orvsrv {

bool credential_decipher(const std::string& stored, std::string* plain) {
    return orv::decipher_credential(stored, *plain);
}

bool credential_plain(const std::string& stored, std::string* plain) {
    if (stored.empty()) return false;
    if (stored[0] == '(') return credential_decipher(stored, plain) && !plain->empty();
    *plain = stored;
    return true;
}

}  // namespace orvsrv
