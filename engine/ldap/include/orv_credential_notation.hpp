// orv_credential_notation.hpp - the notation of stored credentials (see
// orv_credential_notation.cpp): deciphering for the library and the ORV
// server plugin, enciphering for orvctl and the test bed.  Plain C++, no
// library state, so that the plugin and orvctl compile the unit privately.
#ifndef ORV_CREDENTIAL_NOTATION_HPP
#define ORV_CREDENTIAL_NOTATION_HPP

#include <cstdint>
#include <string>

namespace orv {

// An RSA-like key pair over a small modulus: c = m^e mod n, m = c^d mod n.
struct CredentialKey {
    std::uint32_t modulus;           // n, 256..65535 for keys that encipher
    std::uint32_t encipher_exponent; // e
    std::uint32_t decipher_exponent; // d
};

// base^exponent mod modulus by square and multiply; modulus 1..65535, so
// every product fits in 32 bits.
std::uint32_t credential_modpow(std::uint32_t base, std::uint32_t exponent, std::uint32_t modulus);

// A fresh random key pair with p*q in 256..65535.
CredentialKey make_credential_key();

// Enciphers plain text into the stored notation with a fresh key, writing
// the numbers in a random mix of decimal, hexadecimal and octal.  Throws
// std::invalid_argument when the text holds a zero byte.
std::string encipher_credential(const std::string& plain);
// The same with a given key (modulus 256..65535, else std::invalid_argument).
std::string encipher_credential(const std::string& plain, const CredentialKey& key);

// Deciphers the stored notation; false (and out untouched) when malformed.
bool decipher_credential(const std::string& stored, std::string& out);

}  // namespace orv

#endif  // ORV_CREDENTIAL_NOTATION_HPP
