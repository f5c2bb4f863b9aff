#include "orv_radius.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace orvsrv {
namespace {

constexpr std::uint8_t kAccessRequest = 1;
constexpr std::uint8_t kAccessAccept = 2;
constexpr std::uint8_t kAccessReject = 3;
constexpr std::uint8_t kAccessChallenge = 11;

constexpr std::uint8_t kAttrUserName = 1;
constexpr std::uint8_t kAttrUserPassword = 2;
constexpr std::uint8_t kAttrNasIdentifier = 32;
constexpr std::uint8_t kAttrMessageAuthenticator = 80;

constexpr std::size_t kHeaderLen = 20;
constexpr std::size_t kMaxPacket = 4096;
constexpr std::size_t kMaxPassword = 128;
constexpr std::size_t kMaxString = 253;

const char kNasIdentifier[] = "orv-directory";

using Bytes = std::vector<std::uint8_t>;

// MD5 over the concatenation of two byte ranges.
void md5_two(const std::uint8_t* a, std::size_t alen, const std::uint8_t* b, std::size_t blen,
             std::uint8_t (&out)[16]) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    unsigned int len = 0;
    if (!ctx || EVP_DigestInit_ex(ctx, EVP_md5(), nullptr) != 1 ||
        EVP_DigestUpdate(ctx, a, alen) != 1 || EVP_DigestUpdate(ctx, b, blen) != 1 ||
        EVP_DigestFinal_ex(ctx, out, &len) != 1 || len != 16) {
        std::memset(out, 0, sizeof out);
    }
    EVP_MD_CTX_free(ctx);
}

bool hmac_md5(const std::string& secret, const Bytes& data, std::uint8_t (&out)[16]) {
    unsigned int len = 0;
    return HMAC(EVP_md5(), secret.data(), static_cast<int>(secret.size()), data.data(),
                data.size(), out, &len) != nullptr &&
           len == 16;
}

void put_attribute(Bytes& packet, std::uint8_t type, const std::uint8_t* data, std::size_t len) {
    packet.push_back(type);
    packet.push_back(static_cast<std::uint8_t>(len + 2));
    packet.insert(packet.end(), data, data + len);
}

void put_attribute(Bytes& packet, std::uint8_t type, const std::string& text) {
    put_attribute(packet, type, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

std::int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Closes the descriptor on every path.
struct Socket {
    int fd = -1;
    ~Socket() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

bool radius_parse_request(const std::string& value, RadiusRequest* out, std::string* why) {
    std::string fields[4];
    std::size_t start = 0;
    for (std::string& field : fields) {
        const std::size_t colon = value.find(':', start);
        if (colon == std::string::npos) {
            *why = "expected host:port:secret:user:password";
            return false;
        }
        field = value.substr(start, colon - start);
        start = colon + 1;
    }
    if (fields[0].empty() || fields[2].empty() || fields[3].empty()) {
        *why = "host, secret and user must not be empty";
        return false;
    }
    const std::string& port = fields[1];
    unsigned long number = 0;
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos ||
        (number = std::stoul(port)) == 0 || number > 65535) {
        *why = "port must be a number from 1 to 65535";
        return false;
    }
    out->host = fields[0];
    out->port = static_cast<std::uint16_t>(number);
    out->secret = fields[2];
    out->user = fields[3];
    out->password = value.substr(start);
    return true;
}

bool radius_request_fits(const RadiusRequest& req, std::string* why) {
    if (req.password.size() > kMaxPassword) {
        *why = "password longer than 128 bytes";
        return false;
    }
    if (req.user.size() > kMaxString) {
        *why = "user name longer than 253 bytes";
        return false;
    }
    return true;
}

Bytes radius_hide_password(const std::string& password, const std::string& secret,
                           const std::uint8_t (&authenticator)[kRadiusAuthLen]) {
    // Pad with NULs to a multiple of 16 (an empty password becomes one block).
    std::size_t padded = (password.size() + 15) / 16 * 16;
    if (padded == 0) padded = 16;
    Bytes out(padded, 0);
    std::memcpy(out.data(), password.data(), password.size());
    const auto* key = reinterpret_cast<const std::uint8_t*>(secret.data());
    const std::uint8_t* previous = authenticator;
    for (std::size_t block = 0; block < padded; block += 16) {
        std::uint8_t pad[16];
        md5_two(key, secret.size(), previous, 16, pad);
        for (std::size_t k = 0; k < 16; ++k) out[block + k] ^= pad[k];
        previous = out.data() + block;
    }
    return out;
}

Bytes radius_build_access_request(const RadiusRequest& req, std::uint8_t id,
                                  const std::uint8_t (&authenticator)[kRadiusAuthLen]) {
    Bytes packet(kHeaderLen, 0);
    packet[0] = kAccessRequest;
    packet[1] = id;
    std::memcpy(packet.data() + 4, authenticator, kRadiusAuthLen);

    // Message-Authenticator goes first; it is filled in once the length is known.
    const std::uint8_t zeros[16] = {};
    const std::size_t ma_offset = packet.size() + 2;
    put_attribute(packet, kAttrMessageAuthenticator, zeros, sizeof zeros);
    put_attribute(packet, kAttrUserName, req.user);
    const Bytes hidden = radius_hide_password(req.password, req.secret, authenticator);
    put_attribute(packet, kAttrUserPassword, hidden.data(), hidden.size());
    put_attribute(packet, kAttrNasIdentifier, kNasIdentifier);

    packet[2] = static_cast<std::uint8_t>(packet.size() >> 8);
    packet[3] = static_cast<std::uint8_t>(packet.size() & 0xff);
    std::uint8_t mac[16];
    if (!hmac_md5(req.secret, packet, mac)) return Bytes();
    std::memcpy(packet.data() + ma_offset, mac, sizeof mac);
    return packet;
}

int radius_verify_reply(const std::uint8_t* reply, std::size_t len, std::uint8_t id,
                        const std::uint8_t (&req_authenticator)[kRadiusAuthLen],
                        const std::string& secret) {
    if (len < kHeaderLen) return -1;
    const std::size_t length = (static_cast<std::size_t>(reply[2]) << 8) | reply[3];
    // Octets beyond the Length field are padding and are ignored (RFC 2865 3).
    if (length < kHeaderLen || length > len || length > kMaxPacket) return -1;
    const std::uint8_t code = reply[0];
    if (reply[1] != id ||
        (code != kAccessAccept && code != kAccessReject && code != kAccessChallenge)) {
        return -1;
    }

    // Response Authenticator = MD5(Code+ID+Length+RequestAuth+Attributes+Secret).
    Bytes check(reply, reply + length);
    std::memcpy(check.data() + 4, req_authenticator, kRadiusAuthLen);
    std::uint8_t expected[16];
    md5_two(check.data(), check.size(), reinterpret_cast<const std::uint8_t*>(secret.data()),
            secret.size(), expected);
    if (CRYPTO_memcmp(expected, reply + 4, kRadiusAuthLen) != 0) return -1;

    // Walk the attributes; a Message-Authenticator, when present, must verify too.
    std::size_t pos = kHeaderLen;
    std::size_t ma_offset = 0;
    while (pos < length) {
        if (length - pos < 2) return -1;
        const std::uint8_t type = reply[pos];
        const std::size_t alen = reply[pos + 1];
        if (alen < 2 || alen > length - pos) return -1;
        if (type == kAttrMessageAuthenticator) {
            if (alen != 18 || ma_offset != 0) return -1;
            ma_offset = pos + 2;
        }
        pos += alen;
    }
    // Every reply must carry a Message-Authenticator: the Response
    // Authenticator alone (MD5) can be forged by a man in the middle.
    if (ma_offset == 0) return -1;
    // check already holds the request authenticator in place of the response one.
    std::memset(check.data() + ma_offset, 0, 16);
    std::uint8_t mac[16];
    if (!hmac_md5(secret, check, mac) || CRYPTO_memcmp(mac, reply + ma_offset, 16) != 0) {
        return -1;
    }
    return code;
}

RadiusOutcome radius_authenticate(const RadiusRequest& req, int timeout_ms, int attempts,
                                  std::string* why) {
    if (!radius_request_fits(req, why)) return radius_reject;

    std::uint8_t id = 0;
    std::uint8_t authenticator[kRadiusAuthLen];
    if (RAND_bytes(&id, 1) != 1 || RAND_bytes(authenticator, sizeof authenticator) != 1) {
        *why = "no random bytes for the request authenticator";
        return radius_no_answer;
    }
    const Bytes packet = radius_build_access_request(req, id, authenticator);
    if (packet.empty()) {
        *why = "could not sign the request";
        return radius_no_answer;
    }

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(req.port);
    const int gai = getaddrinfo(req.host.c_str(), port.c_str(), &hints, &found);
    if (gai != 0 || found == nullptr) {
        *why = std::string("cannot resolve host: ") + gai_strerror(gai);
        return radius_no_answer;
    }
    Socket sock;
    sock.fd = ::socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool connected = sock.fd >= 0 && ::connect(sock.fd, found->ai_addr, found->ai_addrlen) == 0;
    freeaddrinfo(found);
    if (!connected) {
        *why = std::string("cannot open a socket to the server: ") + std::strerror(errno);
        return radius_no_answer;
    }

    if (attempts < 1) attempts = 1;
    if (timeout_ms < 1) timeout_ms = 1;
    std::uint8_t reply[kMaxPacket];
    *why = "no reply from the server";
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (::send(sock.fd, packet.data(), packet.size(), 0) < 0) {
            if (errno == ECONNREFUSED) {
                *why = "server port unreachable";
                return radius_no_answer;
            }
            if (errno != EINTR) {
                *why = std::string("send failed: ") + std::strerror(errno);
                return radius_no_answer;
            }
            continue;
        }
        const std::int64_t deadline = now_ms() + timeout_ms;
        for (std::int64_t left = timeout_ms; left > 0; left = deadline - now_ms()) {
            pollfd pfd{sock.fd, POLLIN, 0};
            const int ready = ::poll(&pfd, 1, static_cast<int>(left));
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) break;
            const ssize_t got = ::recv(sock.fd, reply, sizeof reply, 0);
            if (got < 0) {
                if (errno == ECONNREFUSED) {
                    *why = "server port unreachable";
                    return radius_no_answer;
                }
                continue;
            }
            const int code = radius_verify_reply(reply, static_cast<std::size_t>(got), id,
                                                 authenticator, req.secret);
            if (code == kAccessAccept) {
                why->clear();
                return radius_accept;
            }
            if (code == kAccessReject) {
                *why = "Access-Reject";
                return radius_reject;
            }
            if (code == kAccessChallenge) {
                *why = "Access-Challenge: the server asks for a further factor";
                return radius_challenge;
            }
            // A reply that does not verify is dropped; keep waiting for a real one.
            *why = "reply failed verification (signature or Message-Authenticator)";
        }
    }
    return radius_no_answer;
}

}  // namespace orvsrv
