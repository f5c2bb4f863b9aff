// The ORV server plugin seen from a plain libldap client: the orv_sasl_V41
// bind, operating-system authentication (PAM through pam_wrapper), the RADIUS
// check against a private FreeRADIUS on 127.0.0.1, and navigation tokens; and
// who may use each of them (the allow-lists of the plugin's entry), with
// every refusal written to the server's error log.
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

std::string plugin_change(const std::string& attr, const std::string& value) {
    return std::string("dn: ") + kPluginDn + "\nchangetype: modify\nreplace: " + attr + "\n" +
           attr + ": " + value + "\n";
}

void set_plugin_attribute(const std::string& attr, const std::string& value) {
    directory().apply_ldif(plugin_change(attr, value));
}

// Replaces all values of a setting (none: the setting is removed).
void set_plugin_values(const std::string& attr, const std::vector<std::string>& values) {
    std::string ldif = std::string("dn: ") + kPluginDn + "\nchangetype: modify\nreplace: " + attr + "\n";
    for (const std::string& v : values) ldif += attr + ": " + v + "\n";
    directory().apply_ldif(ldif);
}

// The settings of orv-plugin.ldif.in as the test bed fills them in.
void restore_plugin_settings() {
    const std::string admin = directory().admin_dn();
    const std::string ldif =
        std::string("dn: ") + kPluginDn + "\nchangetype: modify\n" +
        "replace: orvSaslAllowedDN\norvSaslAllowedDN: " + admin + "\n-\n" +
        "replace: orvTrustedDN\norvTrustedDN: " + admin + "\n-\n" +
        "replace: orvSaslAllowedNetwork\n-\n" +
        "replace: orvPamService\norvPamService: " + directory().info().str("pam_service") + "\n-\n" +
        "replace: orvOsAuthMaxFailures\norvOsAuthMaxFailures: 5\n-\n" +
        "replace: orvOsAuthFailureWindow\norvOsAuthFailureWindow: 300\n-\n" +
        "replace: orvTokenLifetime\norvTokenLifetime: 300\n-\n" +
        "replace: orvTokenSecret\norvTokenSecret: " + directory().info().str("token_secret") + "\n";
    std::string output;
    EXPECT_EQ(directory().try_apply_ldif(ldif, &output), 0) << output;
}

// Every test here needs the plugin loaded into the test directory; each
// one leaves the plugin's settings as the test bed made them.
class PluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
    }
    void TearDown() override {
        if (!IsSkipped()) restore_plugin_settings();
    }
};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// What the server writes to its error log from now on.
class ErrorLog {
public:
    ErrorLog()
        : path_(directory().workdir() + "/root/var/log/dirsrv/slapd-" + directory().name() +
                "/errors"),
          start_(read_file(path_).size()) {}
    std::string since() const {
        const std::string all = read_file(path_);
        return all.size() > start_ ? all.substr(start_) : std::string();
    }
    // True when one line holds every one of the texts (ignoring case: the
    // server writes DNs in their normalized form).
    bool has_line(std::initializer_list<std::string> texts) const {
        std::istringstream lines(lower(since()));
        for (std::string line; std::getline(lines, line);) {
            bool all = true;
            for (const std::string& t : texts) all = all && line.find(lower(t)) != std::string::npos;
            if (all) return true;
        }
        return false;
    }

private:
    std::string path_;
    std::size_t start_;
};

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

// A session bound as a seeded user with its password (a plain client).
class UserSession : public Session {
public:
    explicit UserSession(const std::string& uid) {
        const std::string pw = directory().user_pw();
        berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
        const int rc = ldap_sasl_bind_s(handle(), user_dn(uid).c_str(), LDAP_SASL_SIMPLE, &cred,
                                        nullptr, nullptr, nullptr);
        if (rc != LDAP_SUCCESS) throw std::runtime_error("bind as " + uid + ": " + std::to_string(rc));
    }
};

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

// The mechanism's fixed credential is public: it binds only the DNs on the
// allow-list (by default the library administrator).
TEST_F(PluginTest, SaslBindOnlyForAllowListedDns) {
    ErrorLog log;
    for (const std::string& dn : {user_dn("alice"), "ou=People," + directory().suffix(),
                                 directory().suffix()}) {
        Session s;
        EXPECT_EQ(s.sasl_bind(dn, kCredential), LDAP_INVALID_CREDENTIALS) << dn;
        EXPECT_EQ(s.whoami(), "") << dn;
    }
    EXPECT_TRUE(log.has_line({"orv-plugin", "orv_sasl_V41 refused", user_dn("alice"),
                              "127.0.0.1", "not in orvSaslAllowedDN"}))
        << log.since();

    // The list decides: with alice on it she binds (the DN's case does not matter).
    std::string upper = user_dn("alice");
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    set_plugin_values("orvSaslAllowedDN", {directory().admin_dn(), upper});
    {
        Session s;
        ASSERT_EQ(s.sasl_bind(user_dn("alice"), kCredential), LDAP_SUCCESS);
        EXPECT_EQ(lower(s.whoami()), "dn: " + lower(user_dn("alice")));
        AdminSession admin;
    }
    // Without the administrator on it, the administrator is refused as well.
    set_plugin_values("orvSaslAllowedDN", {user_dn("alice")});
    Session s;
    EXPECT_EQ(s.sasl_bind(directory().admin_dn(), kCredential), LDAP_INVALID_CREDENTIALS);
}

// With client networks listed, the mechanism is refused (48) to clients
// outside them, even for an allowed DN with the right credential.
TEST_F(PluginTest, SaslBindOnlyFromListedNetworks) {
    set_plugin_values("orvSaslAllowedNetwork", {"10.0.0.0/8", "::1"});
    {
        ErrorLog log;
        Session s;
        EXPECT_EQ(s.sasl_bind(directory().admin_dn(), kCredential), LDAP_INAPPROPRIATE_AUTH);
        EXPECT_EQ(s.whoami(), "");
        EXPECT_TRUE(log.has_line({"orv_sasl_V41 refused", "127.0.0.1", "result 48",
                                  "orvSaslAllowedNetwork"}))
            << log.since();
    }
    set_plugin_values("orvSaslAllowedNetwork", {"10.0.0.0/8", "127.0.0.0/8"});
    {
        Session s;
        EXPECT_EQ(s.sasl_bind(directory().admin_dn(), kCredential), LDAP_SUCCESS);
        // The network alone does not let a DN in that the list leaves out.
        Session other;
        EXPECT_EQ(other.sasl_bind(user_dn("alice"), kCredential), LDAP_INVALID_CREDENTIALS);
    }
    set_plugin_values("orvSaslAllowedNetwork", {});
    Session s;
    EXPECT_EQ(s.sasl_bind(directory().admin_dn(), kCredential), LDAP_SUCCESS);
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
    ErrorLog log;
    Session anonymous;
    for (const char* oid : {kOidOsAuth, kOidRadius, kOidTokenIssue, kOidTokenValidate}) {
        EXPECT_EQ(anonymous.extop(oid, "x:y"), LDAP_INSUFFICIENT_ACCESS) << oid;
    }
    EXPECT_TRUE(log.has_line({"orv-plugin", kOidRadius, "(anonymous)", "bind first"})) << log.since();
}

// Operating-system and RADIUS checks are for trusted identities (the
// administrator by default); a plain user is refused before anything is
// asked of PAM or of a RADIUS server.
TEST_F(PluginTest, OsAndRadiusChecksNeedATrustedIdentity) {
    ErrorLog log;
    UserSession alice("alice");
    EXPECT_EQ(alice.extop(kOidOsAuth, "osuser:whatever"), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(alice.extop(kOidRadius, "127.0.0.1:1812:testing123:alice:code"),
              LDAP_INSUFFICIENT_ACCESS);
    EXPECT_TRUE(log.has_line({"operating-system authentication refused", user_dn("alice"),
                              "not in orvTrustedDN"}))
        << log.since();
    EXPECT_EQ(log.since().find("whatever"), std::string::npos) << "no password in the log";

    // Trusting alice lets her in (the check itself then fails: no such account).
    set_plugin_values("orvTrustedDN", {directory().admin_dn(), user_dn("alice")});
    EXPECT_EQ(alice.extop(kOidOsAuth, "orvplugin.nobody:whatever"), LDAP_INVALID_CREDENTIALS);
}

// ------------------------------------------------------------------ OS authentication

// A user of the PAM password file that the server's PAM service reads.
const char kOsUser[] = "orvplugin.os";
const char kOsPassword[] = "Os Pass word 7";

// One account that reaches its failure limit, one whose account step the
// "orv-denied" PAM service of the test bed refuses.
const char kLimitUser[] = "orvplugin.limit";
const char kDeniedUser[] = "orvplugin.denied";

class OsAuthentication : public PluginTest {
protected:
    static void SetUpTestSuite() {
        if (orv::testbed::plugin_path().empty()) return;
        // pam_matrix reads the file at every check, so the lines count at once.
        const std::string service = directory().info().str("pam_service");
        std::ofstream passdb(directory().pam_passdb(), std::ios::app);
        passdb << kOsUser << ":" << kOsPassword << ":" << service << "\n"
               << kLimitUser << ":" << kOsPassword << ":" << service << "\n"
               << kDeniedUser << ":" << kOsPassword << ":orv-denied\n";
    }
    // PAM steps ("auth" or "account") the server has run for a user: the
    // test bed's PAM services record each step before running it.
    static int pam_steps(const std::string& step, const std::string& user) {
        std::istringstream lines(read_file(directory().pam_dir() + "/calls"));
        int n = 0;
        for (std::string line; std::getline(lines, line);) n += line == step + " " + user;
        return n;
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

// After five wrong passwords within the window the account is refused
// without asking PAM, even with the right password, until the failures age
// out of the window.
TEST_F(OsAuthentication, FailureLimitStopsAskingPam) {
    AdminSession s;
    const std::string wrong = std::string(kLimitUser) + ":wrong";
    const std::string right = std::string(kLimitUser) + ":" + kOsPassword;
    ASSERT_EQ(s.extop(kOidOsAuth, right), LDAP_SUCCESS);
    ASSERT_EQ(pam_steps("auth", kLimitUser), 1) << "the test bed records PAM steps";
    ASSERT_EQ(pam_steps("account", kLimitUser), 1);

    for (int i = 0; i < 5; ++i) EXPECT_EQ(s.extop(kOidOsAuth, wrong), LDAP_INVALID_CREDENTIALS) << i;
    EXPECT_EQ(pam_steps("auth", kLimitUser), 6);

    ErrorLog log;
    EXPECT_EQ(s.extop(kOidOsAuth, wrong), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(s.extop(kOidOsAuth, right), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(pam_steps("auth", kLimitUser), 6) << "PAM was asked while the account is held";
    EXPECT_TRUE(log.has_line({"orv-plugin", "operating-system authentication refused",
                              directory().admin_dn(), "too many failed passwords", kLimitUser}))
        << log.since();
    EXPECT_EQ(log.since().find(kOsPassword), std::string::npos) << "no password in the log";

    // Other accounts are not held.
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kOsUser) + ":" + kOsPassword), LDAP_SUCCESS);

    // A one-second window lets the failures age out; the right password
    // then passes and clears the account.
    set_plugin_attribute("orvOsAuthFailureWindow", "1");
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    EXPECT_EQ(s.extop(kOidOsAuth, right), LDAP_SUCCESS);
    EXPECT_EQ(pam_steps("auth", kLimitUser), 7);
}

// The account step runs after a right password: an account that PAM refuses
// (expired or locked at the operating system; here pam_deny) gives 49.
TEST_F(OsAuthentication, AccountRefusedByPamIsRefused) {
    set_plugin_attribute("orvPamService", "orv-denied");
    AdminSession s;
    ErrorLog log;
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kDeniedUser) + ":" + kOsPassword),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(pam_steps("auth", kDeniedUser), 1);
    EXPECT_EQ(pam_steps("account", kDeniedUser), 1) << "the password passed; the account did not";
    EXPECT_TRUE(log.has_line({"refused the account", kDeniedUser})) << log.since();
    // A wrong password stops before the account step.
    EXPECT_EQ(s.extop(kOidOsAuth, std::string(kDeniedUser) + ":wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(pam_steps("account", kDeniedUser), 1);
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
// with the shared secret, and counts the requests it received.
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
    int received() const { return received_; }

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
            if (got < 0) continue;
            ++received_;
            if (got < 20) continue;
            // Access-Accept, same identifier, the request's authenticator echoed back.
            unsigned char reply[20];
            std::memcpy(reply, buf, 20);
            reply[0] = 2;
            reply[2] = 0;
            reply[3] = 20;
            ::sendto(fd_, reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&from), len);
        }
    }
    int fd_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> received_{0};
    std::thread thread_;
};

// A private FreeRADIUS on 127.0.0.1 (testbed/orvradius) started with extra
// options; down with the object.
class FreeRadius {
public:
    FreeRadius(const std::string& secret, const std::string& users,
               const std::vector<std::string>& options) {
        char pattern[] = "/tmp/orvplugin-radius.XXXXXX";
        if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
        workdir_ = pattern;
        // orvradius copies the users into its directory; the watcher it
        // starts removes that directory should this process die.
        const std::string users_file = workdir_ + ".users";
        std::ofstream(users_file) << users;
        std::vector<std::string> argv{radius_tool(), "up", "--workdir", workdir_, "--secret", secret,
                                      "--users", users_file, "--owner-pid", std::to_string(getpid())};
        argv.insert(argv.end(), options.begin(), options.end());
        const orv::testbed::RunResult up = orv::testbed::run_program(argv);
        std::remove(users_file.c_str());
        if (up.status != 0) {
            orv::testbed::run_program({radius_tool(), "down", "--workdir", workdir_});
            throw std::runtime_error("orvradius up failed: " + up.out + up.err);
        }
        port_ = std::stoi(orv::testbed::Json::parse(up.out).str("port"));
    }
    ~FreeRadius() { orv::testbed::run_program({radius_tool(), "down", "--workdir", workdir_}); }
    int port() const { return port_; }

private:
    std::string workdir_;
    int port_ = 0;
};

// The stored form of a shared secret, enciphered as the directory keeps it
// when orvctl is built (plain text otherwise, which the plugin also reads).
std::string stored_secret(const std::string& secret) {
    if (orv::testbed::orvctl_path().empty()) return secret;
    const orv::testbed::RunResult r =
        orv::testbed::run_program({orv::testbed::orvctl_path(), "encipher", secret});
    std::string out = r.out;
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    if (r.status != 0 || out.empty() || out[0] != '(') {
        throw std::runtime_error("orvctl encipher failed: " + r.out + r.err);
    }
    return out;
}

std::string radius_entry_dn(const std::string& name) {
    return "cn=" + name + ",ou=RadiusConfiguration,ou=Config," + directory().suffix();
}

// A RADIUS server entry of the directory's configuration.
void add_radius_entry(const std::string& name, const std::string& host, int port,
                      const std::string& stored) {
    directory().apply_ldif("dn: " + radius_entry_dn(name) +
                           "\nchangetype: add\nobjectClass: top\n"
                           "objectClass: orvRadiusServerConfiguration\ncn: " + name +
                           "\norvRadiusServerHostName: " + host +
                           "\norvRadiusServerPortNumber: " + std::to_string(port) +
                           "\norvRadiusServerSharedSecret: " + stored + "\n");
}

void remove_radius_entry(const std::string& name) {
    directory().try_apply_ldif("dn: " + radius_entry_dn(name) + "\nchangetype: delete\n");
}

class Radius : public PluginTest {
protected:
    static constexpr const char* kSecret = "radius-secret";
    static constexpr const char* kUser = "radius.user";
    static constexpr const char* kPassword = "Pass:word 1";
    static constexpr const char* kChallengeUser = "radius.challenged";

    static void SetUpTestSuite() {
        if (orv::testbed::plugin_path().empty()) return;
        try {
            const std::string users = std::string(kUser) + ":" + kPassword + "\n" +
                                      kChallengeUser + ":" + kPassword + "\n";
            char users_file[] = "/tmp/orvplugin-radius-users.XXXXXX";
            const int fd = mkstemp(users_file);
            if (fd < 0) throw std::runtime_error("mkstemp failed");
            ::close(fd);
            std::ofstream(users_file) << users;
            try {
                server_ = std::make_unique<orv::testbed::Radius>(
                    kSecret, users_file, std::vector<std::string>{kChallengeUser});
            } catch (...) {
                std::remove(users_file);
                throw;
            }
            std::remove(users_file);
            // A server from before Message-Authenticators: its replies are not believed.
            unsigned_ = std::make_unique<FreeRadius>(
                kSecret, users, std::vector<std::string>{"--without-message-authenticator"});
            port_ = server_->port();
            add_radius_entry("PluginTest", "127.0.0.1", port_, stored_secret(kSecret));
            add_radius_entry("PluginTestUnsigned", "127.0.0.1", unsigned_->port(),
                             stored_secret(kSecret));
        } catch (const std::exception& e) {
            error_ = e.what();
        }
    }
    static void TearDownTestSuite() {
        remove_radius_entry("PluginTest");
        remove_radius_entry("PluginTestUnsigned");
        server_.reset();
        unsigned_.reset();
    }
    void SetUp() override {
        PluginTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_TRUE(error_.empty()) << error_;
        // Short waits keep the no-answer cases quick; they are restored afterwards.
        set_plugin_attribute("orvRadiusTimeout", "300");
        set_plugin_attribute("orvRadiusAttempts", "2");
    }
    void TearDown() override {
        if (IsSkipped()) return;
        PluginTest::TearDown();
        directory().try_apply_ldif(plugin_change("orvRadiusTimeout", "2000"));
        directory().try_apply_ldif(plugin_change("orvRadiusAttempts", "3"));
    }
    static std::string request(int port, const std::string& secret, const std::string& user,
                               const std::string& password, const std::string& host = "127.0.0.1") {
        return host + ":" + std::to_string(port) + ":" + secret + ":" + user + ":" + password;
    }
    static std::unique_ptr<orv::testbed::Radius> server_;
    static std::unique_ptr<FreeRadius> unsigned_;
    static std::string error_;
    static int port_;
};

std::unique_ptr<orv::testbed::Radius> Radius::server_;
std::unique_ptr<FreeRadius> Radius::unsigned_;
std::string Radius::error_;
int Radius::port_ = 0;

// An Access-Challenge answers 3043: the RADIUS server wants a further factor.
constexpr int kRadiusChallenge = 3043;

TEST_F(Radius, AcceptRejectAndChallenge) {
    AdminSession s;
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, kPassword)), 0);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, "wrong")), 2);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, "nobody", kPassword)), 2);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kChallengeUser, kPassword)),
              kRadiusChallenge);
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kChallengeUser, "wrong")), 2);
}

// Requests go only to a host and port that a RADIUS configuration entry
// names, with the secret stored there; anything else is refused (53) and
// nothing is sent.
TEST_F(Radius, OnlyConfiguredServersAreAsked) {
    AdminSession s;
    ForgingResponder listener;
    ErrorLog log;
    EXPECT_EQ(s.extop(kOidRadius, request(listener.port(), kSecret, kUser, kPassword)),
              LDAP_UNWILLING_TO_PERFORM);
    // The configured port under another name of the host is another server.
    EXPECT_EQ(s.extop(kOidRadius, request(port_, kSecret, kUser, kPassword, "localhost")),
              LDAP_UNWILLING_TO_PERFORM);
    // The configured server with another secret.
    EXPECT_EQ(s.extop(kOidRadius, request(port_, "not the secret", kUser, kPassword)),
              LDAP_UNWILLING_TO_PERFORM);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(listener.received(), 0);
    EXPECT_TRUE(log.has_line({"orv-plugin", "RADIUS check refused", directory().admin_dn(),
                              "not a RADIUS server of this directory's configuration",
                              "127.0.0.1:" + std::to_string(listener.port())}))
        << log.since();
    EXPECT_EQ(log.since().find(kPassword), std::string::npos) << "no password in the log";

    // Once configured, the same listener is asked (and its unsigned answer,
    // sent once per attempt, is not believed).
    add_radius_entry("PluginTestListener", "127.0.0.1", listener.port(), stored_secret(kSecret));
    EXPECT_EQ(s.extop(kOidRadius, request(listener.port(), kSecret, kUser, kPassword)), 1);
    EXPECT_EQ(listener.received(), 2);
    remove_radius_entry("PluginTestListener");
    EXPECT_EQ(s.extop(kOidRadius, request(listener.port(), kSecret, kUser, kPassword)),
              LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(listener.received(), 2);

    // A configured server whose stored secret cannot be read is not asked.
    add_radius_entry("PluginTestBadSecret", "127.0.0.1", listener.port(), "(413,3233):2790-");
    EXPECT_EQ(s.extop(kOidRadius, request(listener.port(), "A", kUser, kPassword)),
              LDAP_UNWILLING_TO_PERFORM);
    remove_radius_entry("PluginTestBadSecret");
    EXPECT_EQ(listener.received(), 2);
}

TEST_F(Radius, NoAnswerCases) {
    AdminSession s;
    // Nothing listens on a configured port.
    const int closed = unused_udp_port();
    add_radius_entry("PluginTestClosed", "127.0.0.1", closed, stored_secret(kSecret));
    EXPECT_EQ(s.extop(kOidRadius, request(closed, kSecret, kUser, kPassword)), 1);
    remove_radius_entry("PluginTestClosed");
    // Replies without a Message-Authenticator are not believed, not even an
    // Access-Accept for the right password.
    ErrorLog log;
    EXPECT_EQ(s.extop(kOidRadius, request(unsigned_->port(), kSecret, kUser, kPassword)), 1);
    EXPECT_TRUE(log.has_line({"RADIUS", std::to_string(unsigned_->port()), "Message-Authenticator"}))
        << log.since();
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

// A token names one existing person and is issued to that person or to a
// trusted identity; validation gives back that person's DN and nothing else.
TEST_F(NavigationTokens, OnlyForPersonsAskedByThemselvesOrTrusted) {
    std::string answer;
    UserSession alice("alice");
    const std::string own = issue(alice, user_dn("alice"));
    ASSERT_EQ(alice.extop(kOidTokenValidate, own, &answer), LDAP_SUCCESS);
    EXPECT_EQ(lower(answer), lower(user_dn("alice")));

    ErrorLog log;
    EXPECT_EQ(alice.extop(kOidTokenIssue, user_dn("bob"), &answer), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_TRUE(answer.empty());
    EXPECT_TRUE(log.has_line({"orv-plugin", "navigation token refused", user_dn("alice"),
                              "not in orvTrustedDN", user_dn("bob")}))
        << log.since();

    // The administrator may ask for others, but only for persons.
    AdminSession admin;
    const std::string bobs = issue(admin, user_dn("bob"));
    // Any bound identity validates; the answer is the person of the token.
    ASSERT_EQ(alice.extop(kOidTokenValidate, bobs, &answer), LDAP_SUCCESS);
    EXPECT_EQ(lower(answer), lower(user_dn("bob")));
    for (const std::string& container : {"ou=People," + directory().suffix(), directory().suffix(),
                                         "ou=Groups," + directory().suffix()}) {
        EXPECT_EQ(admin.extop(kOidTokenIssue, container, &answer), LDAP_UNWILLING_TO_PERFORM)
            << container;
        EXPECT_TRUE(answer.empty());
    }
    EXPECT_EQ(admin.extop(kOidTokenIssue, "cn=config", &answer), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(admin.extop(kOidTokenIssue, "not a dn", &answer), LDAP_INVALID_DN_SYNTAX);

    // A token whose person has gone names nobody.
    const std::string gone = user_dn("orvplugin.gone");
    directory().apply_ldif("dn: " + gone +
                           "\nchangetype: add\nobjectClass: top\nobjectClass: person\n"
                           "objectClass: organizationalPerson\nobjectClass: inetOrgPerson\n"
                           "uid: orvplugin.gone\ncn: Gone\nsn: Gone\n");
    const std::string token = issue(admin, gone);
    directory().apply_ldif("dn: " + gone + "\nchangetype: delete\n");
    EXPECT_EQ(admin.extop(kOidTokenValidate, token, &answer), LDAP_NO_SUCH_OBJECT);
    EXPECT_TRUE(answer.empty());
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
                                      {"orvPamService", "../etc/passwd"},
                                      {"orvSaslAllowedNetwork", "10.0.0.1/8"},
                                      {"orvSaslAllowedNetwork", "localhost"},
                                      {"orvSaslAllowedDN", "not a dn"},
                                      {"orvTrustedDN", "not a dn"},
                                      {"orvRootSuffix", "not a dn"},
                                      {"orvOsAuthMaxFailures", "0"},
                                      {"orvOsAuthFailureWindow", "86401"}}) {
        std::string output;
        EXPECT_NE(directory().try_apply_ldif(plugin_change(attr, value), &output), 0)
            << attr << "=" << value;
        EXPECT_NE(output.find("Server is unwilling to perform (53)"), std::string::npos) << output;
    }
}

}  // namespace
