// Navigation tokens of the ORV directory server.
//
// A token names one user DN and carries its own expiry time. It is signed
// with HMAC-SHA256 under the server's token secret, so only a server that
// knows the secret can make or accept one. The text form is
//   base64url(payload) "." base64url(mac)
// where payload = version byte 1, expiry (unix seconds, 8 bytes big-endian),
// 8 random bytes, then the DN bytes, and mac = HMAC-SHA256(secret, payload).
#pragma once

#include <cstdint>
#include <string>

namespace orvsrv {

enum class TokenState { valid, expired, invalid };

// Makes a token for dn that stays valid while the clock is below
// now + lifetime. Returns an empty string if no random bytes were available.
std::string token_issue(const std::string& secret, const std::string& dn,
                        std::int64_t now, std::int64_t lifetime);

// Checks a token. The signature is checked before anything else, so a token
// that was not made with this secret is "invalid", never "expired".
// On "valid" *dn receives the DN the token names.
TokenState token_check(const std::string& secret, const std::string& token,
                       std::int64_t now, std::string* dn);

// URL-safe base64 without padding (RFC 4648 section 5).
std::string base64url_encode(const std::string& bytes);
// Returns false for characters outside the alphabet, padding, or a length
// that no encoding produces.
bool base64url_decode(const std::string& text, std::string* bytes);

}  // namespace orvsrv
