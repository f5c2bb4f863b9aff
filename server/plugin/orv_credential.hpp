// Stored credentials of the ORV directory (the RADIUS shared secret in the
// RADIUS configuration entries): "(d,n):c-c-..." where each plain character
// is the low byte of c^d mod n (docs/stored-credentials.md).
#pragma once

#include <string>

namespace orvsrv {

// Deciphers the stored notation. False when the text does not follow it
// exactly: numbers in decimal, 0x hexadecimal or leading-zero octal that
// fit in 32 bits, modulus 2..65535, every c below the modulus, and no
// character that deciphers to a zero byte.
bool credential_decipher(const std::string& stored, std::string* plain);

// The plain secret of a stored value: deciphered when the value is in the
// notation (it starts with "("), taken as it is otherwise. False for a
// value that starts with "(" but is malformed, and for an empty one.
bool credential_plain(const std::string& stored, std::string* plain);

}  // namespace orvsrv
