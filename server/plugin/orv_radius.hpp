// PAP check against a RADIUS server (RFC 2865), as the directory server runs
// it on behalf of a client: one Access-Request with User-Name, hidden
// User-Password, NAS-Identifier and Message-Authenticator; the reply is only
// believed when it carries a Message-Authenticator and both it and the
// Response Authenticator verify under the shared secret.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvsrv {

// Result codes of the RADIUS extended operation.
enum RadiusOutcome {
    radius_accept = 0,        // Access-Accept
    radius_no_answer = 1,     // nothing came back, or nothing that verified
    radius_reject = 2,        // Access-Reject
    radius_challenge = 3043,  // Access-Challenge: a further factor is required
};

struct RadiusRequest {
    std::string host;
    std::uint16_t port = 0;
    std::string secret;
    std::string user;
    std::string password;
};

// Splits "host:port:secret:user:password". The first four colons separate
// the fields, so the password may itself contain colons. Fails for a missing
// field, an empty host, secret or user, or a port outside 1..65535.
bool radius_parse_request(const std::string& value, RadiusRequest* out, std::string* why);

// RFC 2865 limits: User-Password at most 128 bytes, other strings 253.
bool radius_request_fits(const RadiusRequest& req, std::string* why);

constexpr std::size_t kRadiusAuthLen = 16;

// Builds the Access-Request packet for the given identifier and Request
// Authenticator. The request must satisfy radius_request_fits.
std::vector<std::uint8_t> radius_build_access_request(const RadiusRequest& req,
                                                      std::uint8_t id,
                                                      const std::uint8_t (&authenticator)[kRadiusAuthLen]);

// Reads a reply to the request with the given identifier and authenticator.
// Returns the reply's code (2 accept, 3 reject, 11 challenge) when the
// packet is well formed, carries exactly one Message-Authenticator and
// verifies, else -1.
int radius_verify_reply(const std::uint8_t* reply, std::size_t len, std::uint8_t id,
                        const std::uint8_t (&req_authenticator)[kRadiusAuthLen],
                        const std::string& secret);

// Sends the request over a connected UDP socket, waiting timeout_ms for a
// verified reply and sending at most `attempts` times. A refused port (ICMP
// unreachable) ends the wait at once. *why receives a short reason for
// anything but an accept.
RadiusOutcome radius_authenticate(const RadiusRequest& req, int timeout_ms, int attempts,
                                  std::string* why);

// Hides a password as User-Password does (exposed for tests).
std::vector<std::uint8_t> radius_hide_password(const std::string& password,
                                               const std::string& secret,
                                               const std::uint8_t (&authenticator)[kRadiusAuthLen]);

}  // namespace orvsrv
