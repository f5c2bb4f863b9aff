// Unit tests of the server plugin's token and RADIUS logic (no server needed).
#include <gtest/gtest.h>

#include <cstring>

#include <arpa/inet.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "orv_credential.hpp"
#include "orv_failures.hpp"
#include "orv_network.hpp"
#include "orv_radius.hpp"
#include "orv_token.hpp"

using namespace orvsrv;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes from_hex(const char* hex) {
    Bytes out;
    for (const char* p = hex; p[0] && p[1];) {
        if (*p == ' ') { ++p; continue; }
        unsigned v = 0;
        std::sscanf(p, "%2x", &v);
        out.push_back(static_cast<std::uint8_t>(v));
        p += 2;
    }
    return out;
}

void md5(const Bytes& data, std::uint8_t (&out)[16]) {
    unsigned int len = 0;
    EVP_Digest(data.data(), data.size(), out, &len, EVP_md5(), nullptr);
}

// Signs a reply the way a RADIUS server does: Message-Authenticator (if the
// packet has one, at ma_offset) first, then the Response Authenticator.
void sign_reply(Bytes& reply, const std::uint8_t (&req_auth)[16], const std::string& secret,
                std::size_t ma_offset = 0) {
    reply[2] = static_cast<std::uint8_t>(reply.size() >> 8);
    reply[3] = static_cast<std::uint8_t>(reply.size());
    std::memcpy(reply.data() + 4, req_auth, 16);
    if (ma_offset) {
        std::memset(reply.data() + ma_offset, 0, 16);
        unsigned int len = 0;
        HMAC(EVP_md5(), secret.data(), static_cast<int>(secret.size()), reply.data(), reply.size(),
             reply.data() + ma_offset, &len);
    }
    Bytes data = reply;
    data.insert(data.end(), secret.begin(), secret.end());
    std::uint8_t auth[16];
    md5(data, auth);
    std::memcpy(reply.data() + 4, auth, 16);
}

Bytes make_reply(std::uint8_t code, std::uint8_t id, const std::uint8_t (&req_auth)[16],
                 const std::string& secret, bool with_message_authenticator) {
    Bytes reply(20, 0);
    reply[0] = code;
    reply[1] = id;
    std::size_t ma_offset = 0;
    if (with_message_authenticator) {
        reply.push_back(80);
        reply.push_back(18);
        ma_offset = reply.size();
        reply.resize(reply.size() + 16, 0);
    }
    const std::string msg = "hello";
    reply.push_back(18);  // Reply-Message
    reply.push_back(static_cast<std::uint8_t>(msg.size() + 2));
    reply.insert(reply.end(), msg.begin(), msg.end());
    sign_reply(reply, req_auth, secret, ma_offset);
    return reply;
}

}  // namespace

TEST(Base64Url, RoundTripsAndRejectsBadText) {
    for (std::string text : {std::string(), std::string("a"), std::string("ab"),
                             std::string("abc"), std::string("\xff\xfe\x00\x01", 4)}) {
        std::string back;
        ASSERT_TRUE(base64url_decode(base64url_encode(text), &back));
        EXPECT_EQ(back, text);
    }
    EXPECT_EQ(base64url_encode("\xfb\xff"), "-_8");
    std::string out;
    EXPECT_FALSE(base64url_decode("abcde", &out));  // length 1 mod 4
    EXPECT_FALSE(base64url_decode("ab=c", &out));   // padding / foreign character
    EXPECT_FALSE(base64url_decode("ab+c", &out));   // standard alphabet
    EXPECT_FALSE(base64url_decode("-_9", &out));    // non-zero leftover bits
}

TEST(NavigationToken, ValidExpiredAndForged) {
    const std::string secret = "0123456789abcdef0123456789abcdef";
    const std::string dn = "uid=j.doe,ou=People,dc=orv,dc=test";
    const std::string token = token_issue(secret, dn, 1000, 300);
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(token.find_first_not_of(
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_."),
              std::string::npos);

    std::string got;
    EXPECT_EQ(token_check(secret, token, 1000, &got), TokenState::valid);
    EXPECT_EQ(got, dn);
    EXPECT_EQ(token_check(secret, token, 1299, &got), TokenState::valid);
    EXPECT_EQ(token_check(secret, token, 1300, &got), TokenState::expired);

    // Two tokens for the same DN and time differ (random part).
    EXPECT_NE(token_issue(secret, dn, 1000, 300), token);

    // Another secret: forged, even when the token has also run out.
    EXPECT_EQ(token_check("another secret", token, 1000, &got), TokenState::invalid);
    EXPECT_EQ(token_check("another secret", token, 5000, &got), TokenState::invalid);

    // Any change to the payload or the signature breaks it.
    for (std::size_t pos : {std::size_t(0), std::size_t(5), token.find('.') - 1,
                            token.find('.') + 1, token.size() - 2}) {
        std::string tampered = token;
        tampered[pos] = tampered[pos] == 'A' ? 'B' : 'A';
        EXPECT_EQ(token_check(secret, tampered, 1000, &got), TokenState::invalid) << pos;
    }
    // A payload re-signed under a guessed key with a later expiry is refused too.
    const std::string other = token_issue("guess", dn, 9000, 300);
    EXPECT_EQ(token_check(secret, other, 1000, &got), TokenState::invalid);

    for (const char* junk : {"", ".", "abc", "abc.def", "a.b.c"}) {
        EXPECT_EQ(token_check(secret, junk, 1000, &got), TokenState::invalid) << junk;
    }
    EXPECT_EQ(token_check(secret, token.substr(0, token.find('.')), 1000, &got),
              TokenState::invalid);
}

TEST(RadiusRequestValue, SplitsFiveFields) {
    RadiusRequest req;
    std::string why;
    ASSERT_TRUE(radius_parse_request("127.0.0.1:1812:s3cret:alice:pa:ss:", &req, &why));
    EXPECT_EQ(req.host, "127.0.0.1");
    EXPECT_EQ(req.port, 1812);
    EXPECT_EQ(req.secret, "s3cret");
    EXPECT_EQ(req.user, "alice");
    EXPECT_EQ(req.password, "pa:ss:");

    ASSERT_TRUE(radius_parse_request("h:65535:s:u:", &req, &why));
    EXPECT_EQ(req.password, "");

    for (const char* bad : {"", "h:1812:s:u", ":1812:s:u:p", "h:1812::u:p", "h:1812:s::p",
                            "h::s:u:p", "h:0:s:u:p", "h:65536:s:u:p", "h:18x2:s:u:p",
                            "h:-1:s:u:p", "h:000001812:s:u:p"}) {
        EXPECT_FALSE(radius_parse_request(bad, &req, &why)) << bad;
    }

    req.password.assign(128, 'p');
    EXPECT_TRUE(radius_request_fits(req, &why));
    req.password.push_back('p');
    EXPECT_FALSE(radius_request_fits(req, &why));
}

// The worked example of RFC 2865 section 7.1 (user "nemo", password
// "arctangent", secret "xyzzy5461").
TEST(RadiusPacket, MatchesTheRfcExample) {
    const Bytes request_auth = from_hex("0f403f9473978057bd83d5cb98f4227a");
    std::uint8_t auth[16];
    std::memcpy(auth, request_auth.data(), 16);
    EXPECT_EQ(radius_hide_password("arctangent", "xyzzy5461", auth),
              from_hex("0dbe708d93d413ce3196e43f782a0aee"));

    // The example's Access-Accept is correctly signed but carries no
    // Message-Authenticator, which this server requires of every reply.
    const Bytes accept = from_hex(
        "02000026 86fe220e7624ba2a1005f6bf9b55e0b2 0606000000010f06000000000e06c0a80103");
    EXPECT_EQ(radius_verify_reply(accept.data(), accept.size(), 0, auth, "xyzzy5461"), -1);

    // The same reply with a Message-Authenticator, signed the way the
    // example's server signs (checked against the example's own bytes first).
    Bytes resigned = accept;
    sign_reply(resigned, auth, "xyzzy5461");
    ASSERT_EQ(resigned, accept) << "the test's signing agrees with the RFC";
    Bytes with_ma(accept.begin(), accept.begin() + 20);
    with_ma.insert(with_ma.end(), {80, 18});
    with_ma.resize(with_ma.size() + 16, 0);
    with_ma.insert(with_ma.end(), accept.begin() + 20, accept.end());
    sign_reply(with_ma, auth, "xyzzy5461", 22);
    EXPECT_EQ(radius_verify_reply(with_ma.data(), with_ma.size(), 0, auth, "xyzzy5461"), 2);
    EXPECT_EQ(radius_verify_reply(with_ma.data(), with_ma.size(), 0, auth, "xyzzy546"), -1);
    EXPECT_EQ(radius_verify_reply(with_ma.data(), with_ma.size(), 1, auth, "xyzzy5461"), -1);

    Bytes padded = with_ma;  // octets past the Length field are ignored
    padded.push_back(0x55);
    EXPECT_EQ(radius_verify_reply(padded.data(), padded.size(), 0, auth, "xyzzy5461"), 2);
    EXPECT_EQ(radius_verify_reply(with_ma.data(), with_ma.size() - 1, 0, auth, "xyzzy5461"), -1);
    Bytes tampered = with_ma;
    tampered[tampered.size() - 1] ^= 1;
    EXPECT_EQ(radius_verify_reply(tampered.data(), tampered.size(), 0, auth, "xyzzy5461"), -1);
}

TEST(RadiusPacket, RepliesVerifyOnlyWhenWellFormedAndSigned) {
    std::uint8_t auth[16];
    for (int i = 0; i < 16; ++i) auth[i] = static_cast<std::uint8_t>(i * 7);
    const std::string secret = "testing123";

    const Bytes reject = make_reply(3, 42, auth, secret, true);
    EXPECT_EQ(radius_verify_reply(reject.data(), reject.size(), 42, auth, secret), 3);
    const Bytes challenge = make_reply(11, 42, auth, secret, true);
    EXPECT_EQ(radius_verify_reply(challenge.data(), challenge.size(), 42, auth, secret), 11);

    // Without a Message-Authenticator no reply is believed, however well its
    // Response Authenticator is signed.
    for (std::uint8_t code : {2, 3, 11}) {
        const Bytes bare = make_reply(code, 42, auth, secret, false);
        EXPECT_EQ(radius_verify_reply(bare.data(), bare.size(), 42, auth, secret), -1) << int(code);
    }
    // Two Message-Authenticators are refused too.
    Bytes twice = make_reply(2, 42, auth, secret, true);
    twice.insert(twice.begin() + 20, {80, 18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    sign_reply(twice, auth, secret, 40);
    EXPECT_EQ(radius_verify_reply(twice.data(), twice.size(), 42, auth, secret), -1);

    // A Message-Authenticator that does not verify, even under a correct
    // Response Authenticator, fails the reply.
    Bytes bad_ma = make_reply(2, 42, auth, secret, true);
    bad_ma[22] ^= 1;
    sign_reply(bad_ma, auth, secret);  // re-sign without fixing the MA
    EXPECT_EQ(radius_verify_reply(bad_ma.data(), bad_ma.size(), 42, auth, secret), -1);

    // A reply code that is not an answer to Access-Request.
    Bytes odd = make_reply(1, 42, auth, secret, false);
    EXPECT_EQ(radius_verify_reply(odd.data(), odd.size(), 42, auth, secret), -1);

    // An attribute running past the end.
    Bytes overrun = make_reply(2, 42, auth, secret, true);
    overrun[21] = 60;
    sign_reply(overrun, auth, secret);
    EXPECT_EQ(radius_verify_reply(overrun.data(), overrun.size(), 42, auth, secret), -1);

    EXPECT_EQ(radius_verify_reply(bad_ma.data(), 19, 42, auth, secret), -1);
}

TEST(RadiusPacket, AccessRequestCarriesSignedAttributes) {
    RadiusRequest req;
    req.secret = "testing123";
    req.user = "alice";
    req.password = "a password longer than sixteen";
    std::uint8_t auth[16];
    for (int i = 0; i < 16; ++i) auth[i] = static_cast<std::uint8_t>(200 - i);
    const Bytes packet = radius_build_access_request(req, 9, auth);
    ASSERT_GE(packet.size(), 20u);
    EXPECT_EQ(packet[0], 1);
    EXPECT_EQ(packet[1], 9);
    EXPECT_EQ((packet[2] << 8 | packet[3]), static_cast<int>(packet.size()));
    EXPECT_EQ(0, std::memcmp(packet.data() + 4, auth, 16));

    std::string user;
    Bytes hidden;
    std::size_t ma = 0;
    for (std::size_t pos = 20; pos < packet.size(); pos += packet[pos + 1]) {
        ASSERT_GE(packet[pos + 1], 2);
        const std::uint8_t* data = packet.data() + pos + 2;
        const std::size_t len = packet[pos + 1] - 2u;
        if (packet[pos] == 1) user.assign(reinterpret_cast<const char*>(data), len);
        if (packet[pos] == 2) hidden.assign(data, data + len);
        if (packet[pos] == 80) ma = pos + 2;
    }
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(hidden, radius_hide_password(req.password, req.secret, auth));
    EXPECT_EQ(hidden.size(), 32u);
    ASSERT_NE(ma, 0u);
    Bytes zeroed = packet;
    std::memset(zeroed.data() + ma, 0, 16);
    std::uint8_t mac[16];
    unsigned int len = 0;
    HMAC(EVP_md5(), req.secret.data(), static_cast<int>(req.secret.size()), zeroed.data(),
         zeroed.size(), mac, &len);
    EXPECT_EQ(0, std::memcmp(mac, packet.data() + ma, 16));
}

// ------------------------------------------------------------------ client networks

namespace {

bool contains(const char* network, const char* address) {
    Network n;
    if (!parse_network(network, &n)) {
        ADD_FAILURE() << "cannot parse " << network;
        return false;
    }
    std::uint8_t bytes[16];
    if (inet_pton(AF_INET, address, bytes) == 1) return network_contains(n, bytes, 4);
    if (inet_pton(AF_INET6, address, bytes) == 1) return network_contains(n, bytes, 16);
    ADD_FAILURE() << "cannot parse " << address;
    return false;
}

}  // namespace

TEST(ClientNetwork, PrefixesHostsAndMappedAddresses) {
    EXPECT_TRUE(contains("127.0.0.0/8", "127.0.0.1"));
    EXPECT_TRUE(contains("127.0.0.0/8", "127.255.1.2"));
    EXPECT_FALSE(contains("127.0.0.0/8", "128.0.0.1"));
    EXPECT_TRUE(contains("10.1.2.3", "10.1.2.3"));
    EXPECT_FALSE(contains("10.1.2.3", "10.1.2.4"));
    EXPECT_TRUE(contains("192.168.4.0/22", "192.168.7.255"));
    EXPECT_FALSE(contains("192.168.4.0/22", "192.168.8.0"));
    EXPECT_TRUE(contains("0.0.0.0/0", "203.0.113.9"));
    // An IPv4 client seen through a dual-stack listener.
    EXPECT_TRUE(contains("127.0.0.0/8", "::ffff:127.0.0.1"));
    EXPECT_FALSE(contains("127.0.0.0/8", "::ffff:10.0.0.1"));
    // IPv6 networks match IPv6 clients only.
    EXPECT_TRUE(contains("::1", "::1"));
    EXPECT_FALSE(contains("::1", "127.0.0.1"));
    EXPECT_TRUE(contains("fd00::/8", "fd12:3456::1"));
    EXPECT_FALSE(contains("fd00::/8", "fe80::1"));
    EXPECT_FALSE(contains("0.0.0.0/0", "::2"));

    Network n;
    for (const char* bad : {"", "127.0.0.1/", "127.0.0.1/33", "::1/129", "10.0.0.1/8",
                            "localhost", "127.0.0.0/8x", "127.0.0.0/-1", "fd00::1/8",
                            "127.0.0.1 ", "127.0.0.0/0008"}) {
        EXPECT_FALSE(parse_network(bad, &n)) << bad;
    }
    ASSERT_TRUE(parse_network("127.0.0.0/8", &n));
    EXPECT_FALSE(network_contains(n, nullptr, 4));
    const std::uint8_t odd[5] = {127, 0, 0, 1, 0};
    EXPECT_FALSE(network_contains(n, odd, 5));
}

// ------------------------------------------------------------------ failure limit

TEST(FailureLimit, RefusesAfterTheLimitUntilTheWindowPasses) {
    FailureLimit limit;
    using D = FailureLimit::Decision;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(limit.begin("alice", 1000 + i, 5, 300), D::allowed) << i;
        limit.finish("alice", 1000 + i, FailureLimit::Result::failed);
    }
    EXPECT_EQ(limit.begin("alice", 1010, 5, 300), D::locked);
    // Another account is not affected.
    ASSERT_EQ(limit.begin("bob", 1010, 5, 300), D::allowed);
    limit.finish("bob", 1010, FailureLimit::Result::succeeded);
    EXPECT_EQ(limit.size(), 1u) << "a success leaves nothing behind";
    // The first failure (at 1000) leaves the window at 1300.
    EXPECT_EQ(limit.begin("alice", 1299, 5, 300), D::locked);
    ASSERT_EQ(limit.begin("alice", 1300, 5, 300), D::allowed);
    limit.finish("alice", 1300, FailureLimit::Result::failed);
    EXPECT_EQ(limit.begin("alice", 1300, 5, 300), D::locked);
    // A success clears the account.
    ASSERT_EQ(limit.begin("carol", 1, 2, 300), D::allowed);
    limit.finish("carol", 1, FailureLimit::Result::failed);
    ASSERT_EQ(limit.begin("carol", 2, 2, 300), D::allowed);
    limit.finish("carol", 2, FailureLimit::Result::succeeded);
    ASSERT_EQ(limit.begin("carol", 3, 2, 300), D::allowed);
    limit.finish("carol", 3, FailureLimit::Result::failed);
    // An inconclusive check (right password, account refused) neither counts
    // nor clears.
    ASSERT_EQ(limit.begin("carol", 4, 2, 300), D::allowed);
    limit.finish("carol", 4, FailureLimit::Result::inconclusive);
    ASSERT_EQ(limit.begin("carol", 5, 2, 300), D::allowed);
    limit.finish("carol", 5, FailureLimit::Result::failed);
    EXPECT_EQ(limit.begin("carol", 6, 2, 300), D::locked);
}

TEST(FailureLimit, RunningChecksCountAndCapacityIsBounded) {
    using D = FailureLimit::Decision;
    FailureLimit limit(2);
    // Two checks in flight exhaust a limit of two before either has failed.
    ASSERT_EQ(limit.begin("a", 0, 2, 60), D::allowed);
    ASSERT_EQ(limit.begin("a", 0, 2, 60), D::allowed);
    EXPECT_EQ(limit.begin("a", 0, 2, 60), D::locked);
    limit.finish("a", 0, FailureLimit::Result::failed);
    limit.finish("a", 0, FailureLimit::Result::failed);
    ASSERT_EQ(limit.begin("b", 0, 2, 60), D::allowed);
    limit.finish("b", 0, FailureLimit::Result::failed);
    // Both slots hold live failures: a third account cannot be tracked.
    EXPECT_EQ(limit.begin("c", 10, 2, 60), D::full);
    // Once they have aged out, the slots are reused.
    ASSERT_EQ(limit.begin("c", 61, 2, 60), D::allowed);
    limit.finish("c", 61, FailureLimit::Result::failed);
    EXPECT_EQ(limit.size(), 1u);
}

// ------------------------------------------------------------------ stored credentials

TEST(StoredCredential, DeciphersTheNotationAndRefusesMalformedText) {
    std::string plain;
    ASSERT_TRUE(credential_decipher("(413,3233):2790", &plain));
    EXPECT_EQ(plain, "A");
    ASSERT_TRUE(credential_decipher("(0x19d,06241):0Xae6", &plain));
    EXPECT_EQ(plain, "A");
    ASSERT_TRUE(credential_decipher("(0635,3233):2790-05012-2790", &plain));
    EXPECT_EQ(plain, "AbA");
    ASSERT_TRUE(credential_decipher("(413,3233):", &plain));
    EXPECT_EQ(plain, "");
    for (const char* bad : {"", "(413,3233)", "(413,3233):2790-", "(413,3233):-2790",
                            "(413,3233):2790--2790", "(413,1):", "(413,65536):1",
                            "(413,3233):3233", "(4294967296,3233):1", "(0x,3233):1",
                            "(413,3233):089", "( 413,3233):1", "(413,3233):0",
                            "(413;3233):2790", "(413,3233):2790 "}) {
        EXPECT_FALSE(credential_decipher(bad, &plain)) << bad;
    }
    // Plain text is taken as it is; notation must decipher; empty is no secret.
    ASSERT_TRUE(credential_plain("testing123", &plain));
    EXPECT_EQ(plain, "testing123");
    ASSERT_TRUE(credential_plain("(413,3233):2790-05012-2790", &plain));
    EXPECT_EQ(plain, "AbA");
    EXPECT_FALSE(credential_plain("(413,3233):2790-", &plain));
    EXPECT_FALSE(credential_plain("(413,3233):", &plain));
    EXPECT_FALSE(credential_plain("", &plain));
}
