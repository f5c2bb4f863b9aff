/*
 * orvldap_helper.h - internal session and configuration helpers.
 *
 * Stored credentials: the partition administrator's password and the RADIUS
 * shared secret are kept in the directory in enciphered form.  The notation
 * (see orvldap_helper.cpp and docs/stored-credentials.md):
 *
 *     "(" d "," n ")" ":" c1 "-" c2 "-" ... "-" ck
 *
 * every number in decimal, "0x" hexadecimal or leading-zero octal; each
 * plain character is the low byte of ci^d mod n, with 2 <= n <= 65535 and
 * ci < n.  This keeps credentials out of plain sight; it is not protection,
 * since the text carries its own key.
 *
 * Nothing here is exported from the shared library.
 */
#ifndef ORVLDAP_HELPER_H
#define ORVLDAP_HELPER_H

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Deciphers a stored credential into a new plain text (orvlib_memfree).
 * NULL when stored is NULL or not well formed, or when a character would
 * decipher to a zero byte. */
char* orv_decipher_credential(const char* stored);

#ifdef __cplusplus
}

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
#endif

#endif /* ORVLDAP_HELPER_H */
