// The RADIUS check of the server plugin: the request value a client sends
// ("host:port:secret:user:password") and the reply packet a RADIUS server
// sends back.  Replies are fuzzed with their authenticators made right
// where the input asks for it, so that the attribute walk behind the
// signature checks is reached.
#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "fuzz_support.hpp"
#include "orv_radius.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

void md5(const Bytes& a, const std::string& b, std::uint8_t* out) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    unsigned len = 0;
    EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
    EVP_DigestUpdate(ctx, a.data(), a.size());
    EVP_DigestUpdate(ctx, b.data(), b.size());
    EVP_DigestFinal_ex(ctx, out, &len);
    EVP_MD_CTX_free(ctx);
}

void check_request(const std::string& value) {
    orvsrv::RadiusRequest req;
    std::string why;
    if (!orvsrv::radius_parse_request(value, &req, &why)) {
        orvfuzz::check(!why.empty(), "refusal without a reason", value);
        return;
    }
    orvfuzz::check(!req.host.empty() && !req.secret.empty() && !req.user.empty(), "empty field", value);
    orvfuzz::check(req.port >= 1, "port", value);
    orvfuzz::check(req.host.find(':') == std::string::npos && req.secret.find(':') == std::string::npos &&
                       req.user.find(':') == std::string::npos,
                   "colon inside a leading field", value);
    if (!orvsrv::radius_request_fits(req, &why)) return;
    const std::uint8_t auth[orvsrv::kRadiusAuthLen] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const Bytes packet = orvsrv::radius_build_access_request(req, 7, auth);
    orvfuzz::check(packet.size() >= 20 && packet.size() <= 4096, "packet size", value);
    orvfuzz::check(((packet[2] << 8) | packet[3]) == static_cast<int>(packet.size()), "length field", value);
    // An Access-Request is never taken for a reply.
    orvfuzz::check(orvsrv::radius_verify_reply(packet.data(), packet.size(), 7, auth, req.secret) == -1,
                   "request accepted as a reply", value);
}

void check_reply(FuzzedDataProvider& in) {
    const std::string secret = in.ConsumeRandomLengthString(64);
    const bool fix_length = in.ConsumeBool();
    const bool fix_mac = in.ConsumeBool();
    const bool fix_auth = in.ConsumeBool();
    std::uint8_t req_auth[orvsrv::kRadiusAuthLen];
    for (auto& b : req_auth) b = in.ConsumeIntegral<std::uint8_t>();
    const std::string rest = in.ConsumeRemainingBytesAsString();
    Bytes reply(rest.begin(), rest.end());
    if (reply.size() < 20) reply.resize(20, 0);
    if (fix_length && reply.size() <= 4096) {
        reply[2] = static_cast<std::uint8_t>(reply.size() >> 8);
        reply[3] = static_cast<std::uint8_t>(reply.size() & 0xff);
    }
    const std::size_t length = std::min<std::size_t>(reply.size(), (reply[2] << 8) | reply[3]);
    // Message-Authenticator: HMAC-MD5 over the packet with the request
    // authenticator in place and the attribute's own value zeroed.
    if (fix_mac && length >= 20) {
        Bytes work(reply.begin(), reply.begin() + static_cast<long>(length));
        std::memcpy(work.data() + 4, req_auth, 16);
        for (std::size_t pos = 20; pos + 2 <= length && reply[pos + 1] >= 2; pos += reply[pos + 1]) {
            if (reply[pos] == 80 && reply[pos + 1] == 18 && pos + 18 <= length) {
                std::memset(work.data() + pos + 2, 0, 16);
                unsigned len = 0;
                HMAC(EVP_md5(), secret.data(), static_cast<int>(secret.size()), work.data(), work.size(),
                     reply.data() + pos + 2, &len);
                break;
            }
        }
    }
    if (fix_auth && length >= 20) {
        Bytes work(reply.begin(), reply.begin() + static_cast<long>(length));
        std::memcpy(work.data() + 4, req_auth, 16);
        md5(work, secret, reply.data() + 4);
    }
    const int code = orvsrv::radius_verify_reply(reply.data(), reply.size(), reply[1], req_auth, secret);
    orvfuzz::check(code == -1 || code == 2 || code == 3 || code == 11, "reply code", std::to_string(code));
    if (code != -1) orvfuzz::check(code == reply[0], "code not the packet's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool())
        check_request(in.ConsumeRemainingBytesAsString());
    else
        check_reply(in);
    return 0;
}
