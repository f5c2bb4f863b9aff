// Authentication and password change fail closed: a server that cannot be
// reached, that is stopped or restarted under the session, that resets the
// connection after the bind or never answers it; a partition that allows
// blank passwords on a server that accepts unauthenticated binds; login
// names with filter and DN special characters; the identity of the
// corporate administrative connection after user logins.
//
// Every listener here is a socket of this process on 127.0.0.1.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "auth_support.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvldap_entry.h"
#include "orvldap_utils.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::authtest::bind_as;
using orv::authtest::Root;
using orv::authtest::Session;
using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& dir() { return orv::testbed::Environment::directory(); }

const char kUserPw[] = "Secret123!";
const char kWrongPw[] = "definitely-wrong";
const char kNewPw[] = "Nw8%pLq4zT";

std::string str(const char* s) { return s ? s : "(null)"; }

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// A socket listening on 127.0.0.1.  Quiet: connections wait in the backlog
// and no byte is ever read or written.  Resetting: each connection is
// accepted, its first request read, and the connection closed.
class Listener {
public:
    enum Kind { Quiet, Resetting };
    explicit Listener(Kind kind) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(fd_, 16) == 0 &&
            getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            port_ = ntohs(a.sin_port);
        if (kind == Resetting) thread_ = std::thread([this] { serve(); });
    }
    ~Listener() {
        shutdown(fd_, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        close(fd_);
    }
    int port() const { return port_; }
    int accepted() const { return accepted_; }

private:
    void serve() {
        for (;;) {
            int c = accept(fd_, nullptr, nullptr);
            if (c < 0) return;
            ++accepted_;
            timeval tv{5, 0};
            setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            char buf[512];
            (void)!read(c, buf, sizeof buf);
            close(c);
        }
    }
    int fd_ = -1;
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::thread thread_;
};

// Seconds taken by f.
template <typename F>
double seconds_of(F f) {
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The identity a connection is bound as ("dn:..." lower-cased, "" anonymous).
std::string whoami(LDAP* ld) {
    berval* id = nullptr;
    if (!ld || ldap_whoami_s(ld, &id, nullptr, nullptr) != LDAP_SUCCESS) return "(failed)";
    std::string out;
    for (ber_len_t i = 0; id && id->bv_val && i < id->bv_len; ++i)
        if (id->bv_val[i] != ' ') out.push_back(id->bv_val[i]);
    if (id) ber_bvfree(id);
    return lower(out);
}

// The seeded repository id (application server) that names the database.
std::string seeded_repository_id() {
    Root root(dir());
    auto servers = root.find("ou=Application Registry," + dir().suffix(), "(objectclass=orvApplicationServer)");
    return servers.empty() ? std::string() : root.first(servers[0], "orvFullyQualifiedObjectId");
}

// Restores the library time-out and the port of the library's own server.
class FailClosedTest : public ::testing::Test {
protected:
    void SetUp() override {
        memory_.start(session_);
        open();
    }
    void TearDown() override {
        orv::g_timeout_seconds = 30;
        if (port_) orv_Port = port_;
        session_.close();
        if (!dir().is_up() || !orv::testbed::process_running(dir().pid())) dir().start_server();
        EXPECT_EQ(memory_.outstanding(session_), 0) << "library allocations outstanding";
    }
    void open() {
        session_.open(dir());
        ASSERT_NE(session_.ld(), nullptr) << "session: " << ldapErrCode;
        port_ = orv_Port;
    }
    LDAP* ld() { return session_.ld(); }
    int auth(const char* uid, const char* pw) { return orvlib_authenticate_user(ld(), uid, pw); }
    // A good login first: the status is 0 and the credentials are alice's.
    void log_in_alice() {
        ASSERT_EQ(auth("alice", kUserPw), 0);
        ASSERT_EQ(ldapErrCode, 0);
        ASSERT_EQ(str(_user_id), dir().user_dn("alice"));
    }
    void expect_alice_kept() {
        EXPECT_EQ(str(_user_id), dir().user_dn("alice"));
        EXPECT_EQ(str(_pwd), kUserPw);
    }

    Session session_;
    orv::authtest::MemoryBalance memory_;
    int port_ = 0;
};

}  // namespace

// ------------------------------------------------------------------ the library's own server

TEST_F(FailClosedTest, ClosedPortRefusesUserDatabaseUserAndPasswordChange) {
    const std::string repository = seeded_repository_id();
    ASSERT_FALSE(repository.empty());
    log_in_alice();
    orv_Port = Directory::free_port();

    EXPECT_EQ(auth("alice", kWrongPw), orv::kServerDown);
    EXPECT_EQ(ldapErrCode, orv::kServerDown);
    expect_alice_kept();
    // Not even the right password passes without a bind result.
    EXPECT_EQ(auth("bob", kUserPw), orv::kServerDown);
    expect_alice_kept();
    EXPECT_EQ(_authenticateUserTempConn(dir().user_dn("bob").c_str(), kUserPw), orv::kServerDown);

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kWrongPw, repository.c_str()),
              orv::kServerDown);
    expect_alice_kept();

    // The new password is never written with the administrator's rights.
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_change_user_password(ld(), "carol", kWrongPw, kNewPw), orv::kServerDown);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0) << "carol's password is unchanged";
    // The same in corporate mode, where the old password is checked first.
    ORV_OPERATION_MODE = 1;
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_change_user_password(ld(), "carol", kWrongPw, kNewPw), orv::kServerDown);
    ORV_OPERATION_MODE = 0;
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0);

    orv_Port = port_;
    EXPECT_EQ(auth("bob", kUserPw), 0);
}

TEST_F(FailClosedTest, ServerStoppedUnderTheSession) {
    const std::string repository = seeded_repository_id();
    log_in_alice();
    dir().stop_server();

    // The inactive-user check is the first to find the server gone.
    EXPECT_EQ(auth("alice", kWrongPw), orv::kServerDown);
    expect_alice_kept();
    ldapErrCode = 0;
    EXPECT_EQ(auth("alice", kWrongPw), orv::kServerDown);
    expect_alice_kept();

    // The database user's look-up finds the server gone.
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kWrongPw, repository.c_str()), orv::kServerDown);
    expect_alice_kept();

    ldapErrCode = 0;
    EXPECT_EQ(orvlib_change_user_password(ld(), "carol", kWrongPw, kNewPw), orv::kServerDown);

    dir().start_server();
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0);
}

TEST_F(FailClosedTest, RestartUnderTheSessionRefusesInactiveAndResetUsers) {
    EXPECT_EQ(auth("dave", kUserPw), ORV_LDAPLIB_INACTIVE_USER);
    EXPECT_EQ(auth("erin", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET);
    log_in_alice();

    // The session's connection died with the server, the temporary
    // connection of the password check works: the checks that could not be
    // made refuse.
    dir().restart();
    EXPECT_EQ(auth("dave", kUserPw), orv::kServerDown);
    expect_alice_kept();
    EXPECT_EQ(auth("erin", kUserPw), orv::kServerDown);
    expect_alice_kept();
    EXPECT_EQ(orvlib_change_user_password(ld(), "erin", kUserPw, kNewPw), orv::kServerDown);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("erin"), kUserPw), 0) << "erin's password is unchanged";

    // A session connection without the administrator's rights sees no role
    // and cannot read the reset flag: a user's entry that cannot be read is
    // no "not reset".
    LDAP* anonymous = orv::open_plain(dir().host().c_str(), dir().port());
    ASSERT_NE(anonymous, nullptr);
    LDAP* session = orv_ld;
    orv_ld = anonymous;
    EXPECT_EQ(auth("erin", kUserPw), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(auth("bob", kUserPw), LDAP_NO_SUCH_OBJECT);
    expect_alice_kept();
    EXPECT_EQ(orvlib_change_user_password(ld(), "carol", kUserPw, kNewPw), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(can_user_change_password(orv_ld, dir().user_dn("carol").c_str()), LDAP_NO_SUCH_OBJECT);
    orv_ld = session;
    orv::unbind(anonymous);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0);
}

TEST_F(FailClosedTest, BindWithoutResultOrWithoutAnswer) {
    log_in_alice();

    // The connection is reset once the bind is sent: no result, no success.
    {
        Listener resetting(Listener::Resetting);
        orv_Port = resetting.port();
        EXPECT_EQ(auth("alice", kWrongPw), orv::kServerDown);
        EXPECT_GE(resetting.accepted(), 1);
        expect_alice_kept();
    }

    // A server that takes the connection and never answers: refused with a
    // time-out after the library's time-out, not waited for.
    Listener quiet(Listener::Quiet);
    orv_Port = quiet.port();
    orv::g_timeout_seconds = 2;
    int rc = -1;
    double took = seconds_of([&] { rc = auth("alice", kWrongPw); });
    EXPECT_EQ(rc, orv::kTimeout);
    EXPECT_GE(took, 1.5);
    EXPECT_LT(took, 10.0);
    expect_alice_kept();

    ldapErrCode = 0;
    took = seconds_of([&] { rc = orvlib_change_user_password(ld(), "carol", kWrongPw, kNewPw); });
    EXPECT_EQ(rc, orv::kTimeout);
    EXPECT_LT(took, 10.0);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0);
}

TEST_F(FailClosedTest, LoginNamesWithFilterAndDnSpecialCharacters) {
    Root root(dir());
    const std::string role = "cn=Inactive User,ou=roles," + dir().suffix();
    const std::string specials = ",+=\"\\;<>()*";
    std::vector<std::string> uids, dns;
    for (char c : specials) {
        const std::string uid = std::string("sp") + c + "x";
        // The entry's DN with the RFC 4514 escapes.
        std::string rdnValue;
        if (std::string(",+=\"\\;<>").find(c) != std::string::npos) rdnValue += '\\';
        rdnValue = "sp" + rdnValue + c + "x";
        const std::string dn = "uid=" + rdnValue + ",ou=People," + dir().suffix();
        std::string pw = kUserPw, cn = "Special " + uid;
        char* oc[] = {const_cast<char*>("top"), const_cast<char*>("person"),
                      const_cast<char*>("organizationalPerson"), const_cast<char*>("inetOrgPerson"),
                      const_cast<char*>("morvanePerson"), nullptr};
        char* uidv[] = {const_cast<char*>(uid.c_str()), nullptr};
        char* cnv[] = {&cn[0], nullptr};
        char* snv[] = {const_cast<char*>("Special"), nullptr};
        char* pwv[] = {&pw[0], nullptr};
        char* onv[] = {const_cast<char*>("on"), nullptr};
        LDAPMod m[6] = {{LDAP_MOD_ADD, const_cast<char*>("objectClass"), {oc}},
                        {LDAP_MOD_ADD, const_cast<char*>("uid"), {uidv}},
                        {LDAP_MOD_ADD, const_cast<char*>("cn"), {cnv}},
                        {LDAP_MOD_ADD, const_cast<char*>("sn"), {snv}},
                        {LDAP_MOD_ADD, const_cast<char*>("userPassword"), {pwv}},
                        {LDAP_MOD_ADD, const_cast<char*>("orvChangePassword"), {onv}}};
        LDAPMod* mods[] = {&m[0], &m[1], &m[2], &m[3], &m[4], &m[5], nullptr};
        ASSERT_EQ(ldap_add_ext_s(root.ld(), dn.c_str(), mods, nullptr, nullptr), 0) << dn;
        uids.push_back(uid);
        dns.push_back(dn);
    }

    for (const std::string& uid : uids) {
        EXPECT_EQ(auth(uid.c_str(), kUserPw), 0) << uid;
        EXPECT_EQ(auth(uid.c_str(), kWrongPw), LDAP_INVALID_CREDENTIALS) << uid;
    }

    // Listed by the Inactive User role: every one of them is found inactive.
    for (const std::string& dn : dns) {
        std::string v = dn;
        char* vals[] = {&v[0], nullptr};
        LDAPMod mod{LDAP_MOD_ADD, const_cast<char*>("member"), {vals}};
        LDAPMod* mods[] = {&mod, nullptr};
        ASSERT_EQ(ldap_modify_ext_s(root.ld(), role.c_str(), mods, nullptr, nullptr), 0) << dn;
    }
    for (size_t i = 0; i < uids.size(); ++i) {
        EXPECT_EQ(auth(uids[i].c_str(), kUserPw), ORV_LDAPLIB_INACTIVE_USER) << uids[i];
        char** roles = getRolesOfUser(orv_ld, dns[i].c_str());
        ASSERT_NE(roles, nullptr) << dns[i];
        EXPECT_EQ(lower(str(roles[0])), lower(role));
        EXPECT_EQ(roles[1], nullptr);
        orvlib_free_values(roles);
    }

    // The DN look-up by login name finds the user itself, not a pattern.
    char* dn = getDNFromUid(orv_ld, "sp*x", nullptr, nullptr);
    EXPECT_EQ(lower(str(dn)), lower(dns[specials.find('*')]));
    orvlib_memfree(dn);
    EXPECT_EQ(getDNFromUid(orv_ld, "sp*", nullptr, nullptr), nullptr);
    EXPECT_EQ(getDNFromUid(orv_ld, "alice", nullptr, "uid)(cn=*"), nullptr);
    EXPECT_EQ(ldapErrCode, orv::kFilterError);

    for (const std::string& d : dns) {
        std::string v = d;
        char* vals[] = {&v[0], nullptr};
        LDAPMod mod{LDAP_MOD_DELETE, const_cast<char*>("member"), {vals}};
        LDAPMod* mods[] = {&mod, nullptr};
        EXPECT_EQ(ldap_modify_ext_s(root.ld(), role.c_str(), mods, nullptr, nullptr), 0);
        EXPECT_EQ(root.remove(d), 0);
    }
}

TEST_F(FailClosedTest, RefusedPasswordChangeIsNeverSuccess) {
    Root root(dir());
    const std::string erin = dir().user_dn("erin");
    ASSERT_EQ(root.first(erin, "orvPasswordMustChange"), "on");
    // Five characters: the library's rules pass it, the server's stock
    // policy ("must be at least 6 characters long") does not.
    EXPECT_EQ(orvlib_change_user_password(ld(), "carol", kUserPw, "ab1c2"), ORV_LDAPLIB_PASSWORD_TOO_SHORT);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), "ab1c2"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_change_user_password(ld(), "erin", kUserPw, "ab1c2"), ORV_LDAPLIB_PASSWORD_TOO_SHORT);
    EXPECT_EQ(root.first(erin, "orvPasswordMustChange"), "on") << "the reset flag stays";
    EXPECT_EQ(auth("erin", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET);

    // A refusal for any other reason is the server's own code.
    const std::string config = "dn: cn=config\nchangetype: modify\nreplace: passwordMinDigits\npasswordMinDigits: ";
    dir().apply_ldif(config + "3\n");
    const int rc = orvlib_change_user_password(ld(), "erin", kUserPw, "Zorla12xyz");
    dir().apply_ldif(config + "0\n");
    EXPECT_EQ(rc, LDAP_CONSTRAINT_VIOLATION);
    EXPECT_EQ(root.first(erin, "orvPasswordMustChange"), "on");
    EXPECT_EQ(bind_as(dir(), erin, kUserPw), 0);
}

// ------------------------------------------------------------------ corporate partition

class CorporateFailClosedTest : public FailClosedTest {
protected:
    static void SetUpTestSuite() {
        corp_ = std::make_unique<Directory>(
            Options().with_scenario("corporate-directory").with_suffix("dc=corp,dc=test").without_plugin());
        seed_corporate({});
    }
    static void TearDownTestSuite() {
        corp_.reset();
        dir().reseed("standalone");
    }
    static void seed_corporate(std::map<std::string, std::string> params) {
        orvtest::use_partition(dir(), *corp_, std::move(params));
    }
    void reopen(std::map<std::string, std::string> params) {
        session_.close();
        seed_corporate(std::move(params));
        open();
    }
    static std::string corp_dn(const std::string& uid) { return corp_->user_dn(uid); }
    static std::string admin() { return "dn:" + lower(corp_->admin_dn()); }

    static std::unique_ptr<Directory> corp_;
};

std::unique_ptr<Directory> CorporateFailClosedTest::corp_;

TEST_F(CorporateFailClosedTest, AdministrativeConnectionKeepsTheAdministrator) {
    ASSERT_EQ(ORV_OPERATION_MODE, 1);
    ASSERT_EQ(whoami(corporate_admin_ld), admin());

    EXPECT_EQ(auth("jsmith", kUserPw), 0);
    EXPECT_EQ(whoami(corporate_user_ld), "dn:" + lower(corp_dn("jsmith")));
    EXPECT_EQ(whoami(corporate_admin_ld), admin());

    // A wrong password leaves both connections as they were.
    LDAP* user = corporate_user_ld;
    EXPECT_EQ(auth("mjones", kWrongPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(whoami(corporate_admin_ld), admin());
    EXPECT_EQ(corporate_user_ld, user);
    // The next look-up still runs with the administrator's rights.
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "kwhite", kUserPw), 0);
    EXPECT_EQ(str(_user_id), corp_dn("kwhite"));
    EXPECT_EQ(whoami(corporate_admin_ld), admin());
}

TEST_F(CorporateFailClosedTest, EmptyPasswordOnAServerThatAllowsUnauthenticatedBinds) {
    const std::string allow = "dn: cn=config\nchangetype: modify\nreplace: nsslapd-allow-unauthenticated-binds\n"
                              "nsslapd-allow-unauthenticated-binds: ";
    corp_->apply_ldif(allow + "on\n");
    ASSERT_EQ(bind_as(*corp_, corp_dn("jsmith"), ""), 0) << "the server takes an unauthenticated bind";

    reopen({{"corp_blank_pw", "on"}});
    ASSERT_EQ(PARTITION_INFO->partition_allows_blank_password, 1);
    ASSERT_EQ(auth("kwhite", kUserPw), 0);
    EXPECT_EQ(auth("jsmith", ""), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(auth("jsmith", nullptr), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), corp_dn("kwhite"));
    EXPECT_EQ(whoami(corporate_user_ld), "dn:" + lower(corp_dn("kwhite")));
    // Without blank passwords on the partition the library says so itself.
    reopen({});
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "jsmith", ""), ORV_LDAPLIB_INVALID_INPUT);
    corp_->apply_ldif(allow + "off\n");
}

TEST_F(CorporateFailClosedTest, LogonFilterValueAndUnansweredUserBind) {
    // A corporate login name that would break the logon filter.
    Root corp(*corp_);
    const std::string dn = "uid=j(s),ou=People,dc=corp,dc=test";
    std::string pw = kUserPw;
    char* oc[] = {const_cast<char*>("top"), const_cast<char*>("inetOrgPerson"), nullptr};
    char* uidv[] = {const_cast<char*>("j(s)"), nullptr};
    char* cnv[] = {const_cast<char*>("J S"), nullptr};
    char* pwv[] = {&pw[0], nullptr};
    LDAPMod m[5] = {{LDAP_MOD_ADD, const_cast<char*>("objectClass"), {oc}},
                    {LDAP_MOD_ADD, const_cast<char*>("uid"), {uidv}},
                    {LDAP_MOD_ADD, const_cast<char*>("cn"), {cnv}},
                    {LDAP_MOD_ADD, const_cast<char*>("sn"), {cnv}},
                    {LDAP_MOD_ADD, const_cast<char*>("userPassword"), {pwv}}};
    LDAPMod* mods[] = {&m[0], &m[1], &m[2], &m[3], &m[4], nullptr};
    ASSERT_EQ(ldap_add_ext_s(corp.ld(), dn.c_str(), mods, nullptr, nullptr), 0);
    // A wildcard is refused outright; parentheses are matched as they are.
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "j(s)*", kUserPw), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "j(s)", kUserPw), 0);
    EXPECT_EQ(lower(str(_user_id)), lower(dn));
    EXPECT_EQ(corp.remove(dn), 0);

    // The user's bind goes to a server that never answers: a time-out, no
    // local attempt, nothing kept, the administrator still the administrator.
    ASSERT_EQ(auth("kwhite", kUserPw), 0);
    LDAP* user = corporate_user_ld;
    Listener quiet(Listener::Quiet);
    const int port = PARTITION_INFO->port_num;
    PARTITION_INFO->port_num = quiet.port();
    orv::g_timeout_seconds = 2;
    int rc = -1;
    const double took = seconds_of([&] { rc = auth("alice", kUserPw); });
    PARTITION_INFO->port_num = port;
    EXPECT_EQ(rc, orv::kTimeout);
    EXPECT_LT(took, 10.0);
    EXPECT_EQ(str(_user_id), corp_dn("kwhite"));
    EXPECT_EQ(corporate_user_ld, user);
    EXPECT_EQ(whoami(corporate_admin_ld), admin());
}
