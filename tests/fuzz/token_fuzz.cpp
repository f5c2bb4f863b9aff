// The SSO token decoder of the server plugin: any text is "invalid",
// "expired" or "valid"; a valid token names exactly the DN that was signed.
// Payloads are fuzzed both unsigned (the signature check) and signed with
// the server's secret (the payload reader behind it).
#include <string>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "fuzz_support.hpp"
#include "orv_token.hpp"

namespace {

const std::string kSecret = "fuzz-token-secret";

std::string mac_of(const std::string& payload) {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    HMAC(EVP_sha256(), kSecret.data(), static_cast<int>(kSecret.size()),
         reinterpret_cast<const unsigned char*>(payload.data()), payload.size(), mac, &len);
    return std::string(reinterpret_cast<char*>(mac), len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int kind = in.ConsumeIntegralInRange(0, 2);
    const std::int64_t now = in.ConsumeIntegralInRange<std::int64_t>(0, 1LL << 40);
    const std::string body = in.ConsumeRemainingBytesAsString();

    std::string bytes;
    if (orvsrv::base64url_decode(body, &bytes))
        orvfuzz::check(orvsrv::base64url_encode(bytes) == body, "base64url decode not canonical", body);
    orvfuzz::check(orvsrv::base64url_decode(orvsrv::base64url_encode(body), &bytes) && bytes == body,
                   "base64url round trip", body);

    std::string token = body;
    if (kind == 1) token = orvsrv::base64url_encode(body) + "." + orvsrv::base64url_encode(mac_of(body));
    if (kind == 2) token = orvsrv::token_issue(kSecret, body, now, 3600);

    std::string dn = "unset";
    const orvsrv::TokenState state = orvsrv::token_check(kSecret, token, now, &dn);
    if (state != orvsrv::TokenState::valid) orvfuzz::check(dn == "unset", "DN handed back for a refused token");
    if (kind == 0 && state != orvsrv::TokenState::invalid)
        orvfuzz::check(token.find('.') != std::string::npos, "token without a signature accepted", token);
    if (kind == 1 && state == orvsrv::TokenState::valid)
        orvfuzz::check(body.size() > 17 && dn == body.substr(17), "signed payload DN", body);
    if (kind == 2 && !body.empty()) {
        // (An empty DN is refused: a token always names somebody.)
        orvfuzz::check(!token.empty() && state == orvsrv::TokenState::valid && dn == body, "issued token", body);
        orvfuzz::check(orvsrv::token_check("another secret", token, now, &dn) == orvsrv::TokenState::invalid,
                       "token accepted under another secret", body);
    }
    return 0;
}
