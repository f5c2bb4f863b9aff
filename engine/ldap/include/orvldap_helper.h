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

#include "orv_credential_notation.hpp"
#endif

#endif /* ORVLDAP_HELPER_H */
