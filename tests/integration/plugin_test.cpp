// The ORV server plugin seen from a plain libldap client: the orv_sasl_V41
// bind, operating-system authentication (PAM through pam_wrapper), the RADIUS
// check against a private FreeRADIUS on 127.0.0.1, and navigation tokens.
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testbed.hpp"

namespace {

constexpr char kMechanism[] = "orv_sasl_V41";
constexpr char kCredential[] = "qwmzt";
constexpr char kOidOsAuth[] = "1.2.3.4";
constexpr char kOidRadius[] = "1.3.6.1.4.1.47391.0.1000.1";
constexpr char kOidTokenIssue[] = "1.3.6.1.4.1.47391.0.2000.1";
constexpr char kOidTokenValidate[] = "1.3.6.1.4.1.47391.0.2000.2";
constexpr char kPluginDn[] = "cn=ORV Server Plugin,cn=plugins,cn=config";

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));

orv::testbed::Directory& directory() { return orv::testbed::Environment::directory(); }

std::string user_dn(const std::string& uid) {
    return "uid=" + uid + ",ou=People," + directory().suffix();
}

// Every test here needs the plugin loaded into the test directory.
class PluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
    }
};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// An LDAP session to the test directory, unbound until bind() is called.
class Session {
public:
    Session() {
        const std::string uri =
            "ldap://" + directory().host() + ":" + std::to_string(directory().port());
        if (ldap_initialize(&ld_, uri.c_str()) != LDAP_SUCCESS) {
            throw std::runtime_error("ldap_initialize " + uri);
        }
        int version = LDAP_VERSION3;
        ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &version);
    }
    ~Session() { ldap_unbind_ext_s(ld_, nullptr, nullptr); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    int sasl_bind(const std::string& dn, const std::string& credential) {
        berval cred{static_cast<ber_len_t>(credential.size()), const_cast<char*>(credential.data())};
        berval* server_cred = nullptr;
        const int rc = ldap_sasl_bind_s(ld_, dn.c_str(), kMechanism, &cred, nullptr, nullptr,
                                        &server_cred);
        ber_bvfree(server_cred);
        return rc;
    }

    std::string whoami() {
        berval* id = nullptr;
        if (ldap_whoami_s(ld_, &id, nullptr, nullptr) != LDAP_SUCCESS) return "(failed)";
        std::string out = id ? std::string(id->bv_val, id->bv_len) : std::string();
        ber_bvfree(id);
        return out;
    }

    // Runs an extended operation; *response gets the response value, if any.
    int extop(const char* oid, const std::string& value, std::string* response = nullptr) {
        berval request{static_cast<ber_len_t>(value.size()), const_cast<char*>(value.data())};
        char* response_oid = nullptr;
        berval* data = nullptr;
        const int rc = ldap_extended_operation_s(ld_, oid, &request, nullptr, nullptr,
                                                 &response_oid, &data);
        if (response) *response = data ? std::string(data->bv_val, data->bv_len) : std::string();
        ldap_memfree(response_oid);
        ber_bvfree(data);
        return rc;
    }

    LDAP* handle() { return ld_; }

private:
    LDAP* ld_ = nullptr;
};

// A session bound as the ORV administrator through the ORV mechanism, as the
// client library binds.
class AdminSession : public Session {
public:
    AdminSession() {
        const int rc = sasl_bind(directory().admin_dn(), kCredential);
        if (rc != LDAP_SUCCESS) throw std::runtime_error("admin bind: " + std::to_string(rc));
    }
};

std::string plugin_change(const std::string& attr, const std::string& value) {
    return std::string("dn: ") + kPluginDn + "\nchangetype: modify\nreplace: " + attr + "\n" +
           attr + ": " + value + "\n";
}

void set_plugin_attribute(const std::string& attr, const std::string& value) {
    directory().apply_ldif(plugin_change(attr, value));
}

// ------------------------------------------------------------------ SASL bind

TEST_F(PluginTest, SaslBindRightCredentialBindsAsTheEntry) {
    Session s;
    ASSERT_EQ(s.sasl_bind(directory().admin_dn(), kCredential), LDAP_SUCCESS);
    EXPECT_EQ(lower(s.whoami()), "dn: " + lower(directory().admin_dn()));

    // The identity is usable: the bound session can read its own entry.
    LDAPMessage* result = nullptr;
    ASSERT_EQ(ldap_search_ext_s(s.handle(), directory().admin_dn().c_str(), LDAP_SCOPE_BASE,
                                "(objectClass=*)", nullptr, 0, nullptr, nullptr, nullptr, 0,
                                &result),
              LDAP_SUCCESS);
    EXPECT_EQ(ldap_count_entries(s.handle(), result), 1);
    ldap_msgfree(result);
}

TEST_F(PluginTest, SaslBindWrongCredentialOrUnknownDnIsRefused) {
    for (const std::string cred : {"qwmzx", "qwmz", "qwmztt", "QWMZT", ""}) {
        Session s;
        EXPECT_EQ(s.sasl_bind(directory().admin_dn(), cred), LDAP_INVALID_CREDENTIALS) << cred;
        EXPECT_EQ(s.whoami(), "");
    }
    for (const std::string& dn : {user_dn("no.such.user"), std::string("cn=config"),
                                 std::string("cn=Directory Manager"), std::string()}) {
        Session s;
        EXPECT_EQ(s.sasl_bind(dn, kCredential), LDAP_INVALID_CREDENTIALS) << dn;
        EXPECT_EQ(s.whoami(), "");
    }
}

TEST_F(PluginTest, SaslBindMechanismIsAdvertised) {
    Session s;
    LDAPMessage* result = nullptr;
    char attr[] = "supportedSASLMechanisms";
    char* attrs[] = {attr, nullptr};
    ASSERT_EQ(ldap_search_ext_s(s.handle(), "", LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0,
                                nullptr, nullptr, nullptr, 0, &result),
              LDAP_SUCCESS);
    bool found = false;
    if (LDAPMessage* entry = ldap_first_entry(s.handle(), result)) {
        berval** values = ldap_get_values_len(s.handle(), entry, attr);
        for (int i = 0; values && values[i]; ++i) {
            found |= std::string(values[i]->bv_val, values[i]->bv_len) == kMechanism;
        }
        ldap_value_free_len(values);
    }
    ldap_msgfree(result);
    EXPECT_TRUE(found);
}

// ------------------------------------------------------------------ all operations

TEST_F(PluginTest, ExtendedOperationsNeedAnAuthenticatedConnection) {
    Session anonymous;
    for (const char* oid : {kOidOsAuth, kOidRadius, kOidTokenIssue, kOidTokenValidate}) {
        EXPECT_EQ(anonymous.extop(oid, "x:y"), LDAP_INSUFFICIENT_ACCESS) << oid;
    }
}

// ------------------------------------------------------------------ OS authentication

// A user of the PAM password file that the server's PAM service reads.
const char kOsUser[] = "orvplugin.os";
const char kOsPassword[] = "Os Pass word 7";

class OsAuthentication : public PluginTest {
protected:
    static void SetUpTestSuite() {
        if (orv::testbed::plugin_path().empty()) return;
        // pam_matrix reads the file at every check, so the line counts at once.
        std::ofstream passdb(directory().pam_passdb(), std::ios::app);
        passdb << kOsUser << ":" << kOsPassword << ":" << directory().info().str("pam_service")
               << "\n";
    }
};

TEST_F(OsAuthentication, RightAndWrongPasswords) {
    AdminSession s;
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kOsUser) + ":" + kOsPassword), LDAP_SUCCESS);
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kOsUser) + ":wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kOsUser) + ":"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(s.extop(kOidOsAuth, std::string("nobody.here:") + kOsPassword),
              LDAP_INVALID_CREDENTIALS);
    // The connection stays bound as before.
    EXPECT_EQ(lower(s.whoami()), "dn: " + lower(directory().admin_dn()));
}

TEST_F(OsAuthentication, MalformedRequestIsAProtocolError) {
    AdminSession s;
    EXPECT_EQ(s.extop(kOidOsAuth, kOsUser), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(":") + kOsPassword), LDAP_PROTOCOL_ERROR);
    // A NUL byte must not cut the login name short.
    EXPECT_EQ(s.extop(kOidOsAuth, kOsUser + std::string(1, '\0') + "x:" + kOsPassword),
              LDAP_PROTOCOL_ERROR);
}

// ------------------------------------------------------------------ RADIUS

// testbed/orvradius, next to orvtestbed.
std::string radius_tool() {
    const std::string script = orv::testbed::testbed_script();
    return script.substr(0, script.rfind('/') + 1) + "orvradius";
}

std::uint16_t unused_udp_port() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// Answers every request on 127.0.0.1 with an Access-Accept that is not signed
// with the shared secret.
class ForgingResponder {
public:
    ForgingResponder() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        socklen_t len = sizeof addr;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~ForgingResponder() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }
    std::uint16_t port() const { return port_; }
    int answered() const { return answered_; }

private:
    void serve() {
        while (!stop_) {
            pollfd pfd{fd_, POLLIN, 0};
            if (::poll(&pfd, 1, 50) <= 0) continue;
            unsigned char buf[4096];
            sockaddr_in from{};
            socklen_t len = sizeof from;
            const ssize_t got = ::recvfrom(fd_, buf, sizeof buf, 0,
                                           reinterpret_cast<sockaddr*>(&from), &len);
            if (got < 20) continue;
            // Access-Accept, same identifier, the request's authenticator echoed back.
            unsigned char reply[20];
            std::memcpy(reply, buf, 20);
            reply[0] = 2;
            reply[2] = 0;
            reply[3] = 20;
            ::sendto(fd_, reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&from), len);
            ++answered_;
        }
    }
    int fd_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> answered_{0};
    std::thread thread_;
};

class Radius : public PluginTest {
protected:
    static constexpr const char* kSecret = "radius-secret";
    static constexpr const char* kUser = "radius.user";
    static constexpr const char* kPassword = "Pass:word 1";

    static void SetUpTestSuite() {
        if (orv::testbed::plugin_path().empty()) return;
        char pattern[] = "/tmp/orvplugin-radius.XXXXXX";
        if (!mkdtemp(pattern)) {
            error_ = "mkdtemp failed";
            return;
        }
        workdir_ = pattern;
        // orvradius copies the users into its directory; the watcher it
        // starts removes that directory should this process die.
        const std::string users = workdir_ + ".users";
        std::ofstream(users) << kUser << ":" << kPassword << "\n";
        const orv::testbed::RunResult up = orv::testbed::run_program(
            {radius_tool(), "up", "--workdir", workdir_, "--secret", kSecret, "--users", users,
             "--owner-pid", std::to_string(getpid())});
        std::remove(users.c_str());
        if (up.status != 0) {
            error_ = "orvradius up failed: " + up.out + up.err;
            return;
        }
        port_ = std::stoi(orv::testbed::Json::parse(up.out).str("port"));
        // Short waits keep the no-answer cases quick; they are restored afterwards.
        set_plugin_attribute("orvRadiusTimeout", "300");
        set_plugin_attribute("orvRadiusAttempts", "2");
    }
    static void TearDownTestSuite() {
        if (workdir_.empty()) return;
        orv::testbed::run_program({radius_tool(), "down", "--workdir", workdir_});
        workdir_.clear();
        directory().try_apply_ldif(plugin_change("orvRadiusTimeout", "2000"));
        directory().try_apply_ldif(plugin_change("orvRadiusAttempts", "3"));
    }
    void SetUp() override {
        PluginTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_TRUE(error_.empty()) << error_;
    }
    static std::string request(int port, const std::string& secret, const std::string& user,
                               const std::string& password) {
        return "127.0.0.1:" + std::to_string(port) + ":" + secret + ":" + user + ":" + password;
    }
    static std::string workdir_;
    static std::string error_;
    static int port_;
};

std::string Radius::workdir_;
std::string Radius::error_;
int Radius::port_ = 0;

TEST_F(Radius, AcceptAndReject) {
    AdminSession s;
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, kPassword)), 0);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, "wrong")), 2);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, "nobody", kPassword)), 2);
}

TEST_F(Radius, NoAnswerCases) {
    AdminSession s;
    // Nothing listens on the port.
    EXPECT_EQ(s.extop(kOidRadius, request(unused_udp_port(), kSecret, kUser, kPassword)), 1);
    // A wrong secret: the server drops the request, nothing verifiable comes back.
    EXPECT_EQ(s.extop(kOidRadius, request(port_, "not the secret", kUser, kPassword)), 1);
    // A reply that fails verification is not believed; the request is sent
    // once per configured attempt (2 here) before giving up.
    ForgingResponder forger;
    EXPECT_EQ(s.extop(kOidRadius, request(forger.port(), kSecret, kUser, kPassword)), 1);
    EXPECT_EQ(forger.answered(), 2);
}

TEST_F(Radius, MalformedRequestIsRefused) {
    AdminSession s;
    EXPECT_EQ(s.extop(kOidRadius, "127.0.0.1:1812:secret:user"), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(s.extop(kOidRadius, "127.0.0.1:99999:secret:user:pw"), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, std::string(129, 'p'))),
              LDAP_UNWILLING_TO_PERFORM);
}

// ------------------------------------------------------------------ navigation tokens

constexpr int kTokenExpired = 3000;

class NavigationTokens : public PluginTest {
protected:
    void TearDown() override {
        if (IsSkipped()) return;
        directory().try_apply_ldif(plugin_change("orvTokenLifetime", "300"));
        directory().try_apply_ldif(
            plugin_change("orvTokenSecret", directory().info().str("token_secret")));
    }
    static std::string issue(Session& s, const std::string& dn) {
        std::string token;
        EXPECT_EQ(s.extop(kOidTokenIssue, dn, &token), LDAP_SUCCESS) << dn;
        EXPECT_FALSE(token.empty());
        return token;
    }
};

TEST_F(NavigationTokens, IssuedTokenNamesTheUser) {
    AdminSession s;
    const std::string dn = directory().admin_dn();
    const std::string token = issue(s, dn);
    std::string answer;
    ASSERT_EQ(s.extop(kOidTokenValidate, token, &answer), LDAP_SUCCESS);
    EXPECT_EQ(lower(answer), lower(dn));

    // Another session (another application) validates the same token.
    AdminSession other;
    EXPECT_EQ(other.extop(kOidTokenValidate, token, &answer), LDAP_SUCCESS);
    EXPECT_EQ(lower(answer), lower(dn));

    // A DN unknown to the directory gets no token.
    EXPECT_EQ(s.extop(kOidTokenIssue, user_dn("no.such.user"), &answer), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(s.extop(kOidTokenIssue, "", &answer), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(s.extop(kOidTokenIssue, dn + std::string(1, '\0') + "x", &answer),
              LDAP_PROTOCOL_ERROR);
}

TEST_F(NavigationTokens, ForgedTokensAreRefused) {
    AdminSession s;
    const std::string token = issue(s, directory().admin_dn());
    std::string answer;
    for (std::size_t pos : {std::size_t(3), token.size() / 2, token.size() - 1}) {
        std::string forged = token;
        forged[pos] = forged[pos] == 'A' ? 'B' : 'A';
        EXPECT_EQ(s.extop(kOidTokenValidate, forged, &answer), LDAP_INVALID_CREDENTIALS) << pos;
    }
    for (const char* junk : {"", "garbage", "a.b", "....."}) {
        EXPECT_EQ(s.extop(kOidTokenValidate, junk, &answer), LDAP_INVALID_CREDENTIALS) << junk;
    }
    // After the secret changes, earlier tokens are no longer accepted
    // (TearDown puts the test bed's secret back).
    set_plugin_attribute("orvTokenSecret", "a completely different secret");
    EXPECT_EQ(s.extop(kOidTokenValidate, token, &answer), LDAP_INVALID_CREDENTIALS);
    set_plugin_attribute("orvTokenSecret", directory().info().str("token_secret"));
    EXPECT_EQ(s.extop(kOidTokenValidate, token, &answer), LDAP_SUCCESS);
}

TEST_F(NavigationTokens, ExpiredTokenGives3000) {
    AdminSession s;
    set_plugin_attribute("orvTokenLifetime", "1");
    const std::string token = issue(s, directory().admin_dn());
    // Lifetimes are whole seconds: two seconds later the token has run out.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    std::string answer;
    EXPECT_EQ(s.extop(kOidTokenValidate, token, &answer), kTokenExpired);
    EXPECT_TRUE(answer.empty());
}

TEST_F(PluginTest, BadSettingsAreRefused) {
    for (const auto& [attr, value] : {std::pair<const char*, const char*>{"orvTokenLifetime", "0"},
                                      {"orvTokenLifetime", "ten"},
                                      {"orvRadiusAttempts", "11"},
                                      {"orvPamService", "../etc/passwd"}}) {
        std::string output;
        EXPECT_NE(directory().try_apply_ldif(plugin_change(attr, value), &output), 0)
            << attr << "=" << value;
        EXPECT_NE(output.find("Server is unwilling to perform (53)"), std::string::npos) << output;
    }
}

}  // namespace
