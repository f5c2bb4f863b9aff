// User authentication against the test directory: local users with the
// password policy response, operating-system accounts through the server's
// PAM check, corporate users on a second directory playing the corporate
// server, and database users with their system-login and RADIUS factors.
//
// The system-login factor compares the login name of the process's real
// user id; the tests that need a particular name run this binary again in a
// child process under nss_wrapper (see main below), never touching real
// accounts.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "auth_support.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::authtest::Root;
using orv::authtest::Session;
using orv::authtest::values_of;
using orv::testbed::Directory;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& dir() { return orv::testbed::Environment::directory(); }

const char kUserPw[] = "Secret123!";
const char kRadiusSecret[] = "testing123";
const char kPluginDn[] = "cn=ORV Server Plugin,cn=plugins,cn=config";

std::string str(const char* s) { return s ? s : "(null)"; }

// Seconds from now until a generalized time "YYYYMMDDhhmmssZ".
long seconds_until(const std::string& when) {
    struct tm t {};
    if (when.size() < 15 || !strptime(when.c_str(), "%Y%m%d%H%M%SZ", &t)) return -1;
    return static_cast<long>(timegm(&t) - time(nullptr));
}

// A UDP port on loopback with nothing listening at the time of the call.
int free_udp_port() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

void set_plugin(const std::string& attr, const std::string& value) {
    dir().apply_ldif(std::string("dn: ") + kPluginDn + "\nchangetype: modify\nreplace: " + attr + "\n" + attr +
                     ": " + value + "\n");
}

// A session per test; the allocation counter must come back to where it
// was when the session is closed.
class AuthTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static bool logging = false;
        if (!logging) orv::authtest::enable_library_log();
        logging = true;
    }
    void SetUp() override {
        memory_.start(session_);
        open();
    }
    void TearDown() override {
        session_.close();
        EXPECT_EQ(memory_.outstanding(session_), 0) << "library allocations outstanding";
    }
    void open() {
        session_.open(dir());
        ASSERT_NE(session_.ld(), nullptr) << "session: " << ldapErrCode;
    }
    void reopen() {
        session_.close();
        open();
    }
    LDAP* ld() { return session_.ld(); }
    int auth(const char* uid, const char* pw) { return orvlib_authenticate_user(ld(), uid, pw); }

    Session session_;
    orv::authtest::MemoryBalance memory_;
};

}  // namespace

// ------------------------------------------------------------------ local users

TEST_F(AuthTest, LocalPasswordCheckKeepsTheCredentials) {
    EXPECT_EQ(auth("alice", kUserPw), 0);
    EXPECT_EQ(str(_user_id), dir().user_dn("alice"));
    EXPECT_EQ(str(_pwd), kUserPw);

    // The credentials serve a later re-bind.
    LDAP* other = nullptr;
    ASSERT_EQ(ldap_initialize(&other, dir().uri().c_str()), 0);
    int v3 = LDAP_VERSION3;
    ldap_set_option(other, LDAP_OPT_PROTOCOL_VERSION, &v3);
    EXPECT_EQ(attempt_simple_bind(other), 0);
    ldap_unbind_ext_s(other, nullptr, nullptr);

    // Replaced once the directory has answered, also with a refusal.
    EXPECT_EQ(auth("bob", "wrong-password1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), dir().user_dn("bob"));
    EXPECT_EQ(str(_pwd), "wrong-password1");

    EXPECT_EQ(auth("alice", ""), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(auth("alice", nullptr), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_authenticate_user(nullptr, "alice", kUserPw), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(auth("nobody", kUserPw), LDAP_INVALID_CREDENTIALS);
    // A wildcard is escaped into the DN and simply fails to bind locally.
    EXPECT_EQ(auth("ali*", kUserPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), "uid=ali*,ou=People," + dir().suffix());
}

TEST_F(AuthTest, InactiveRoleAndResetFlag) {
    EXPECT_EQ(auth("dave", kUserPw), ORV_LDAPLIB_INACTIVE_USER);

    // Listed by two "Inactive User" roles: inactive as well.
    Root root(dir());
    const std::string second = "cn=Inactive User,ou=Groups," + dir().suffix();
    dir().apply_ldif("dn: " + second +
                     "\nchangetype: add\nobjectClass: top\nobjectClass: morvaneRole\ncn: Inactive User\n"
                     "member: " + dir().user_dn("dave") + "\n");
    EXPECT_EQ(auth("dave", kUserPw), ORV_LDAPLIB_INACTIVE_USER);
    EXPECT_EQ(_isUserInactive(orv_ld, dir().user_dn("dave").c_str()), 1);
    ASSERT_EQ(root.remove(second), 0);
    EXPECT_EQ(auth("dave", kUserPw), ORV_LDAPLIB_INACTIVE_USER);
    EXPECT_EQ(_isUserInactive(orv_ld, dir().user_dn("alice").c_str()), 0);
    // A check that cannot be made answers its status, not "active".
    EXPECT_EQ(_isUserInactive(nullptr, dir().user_dn("dave").c_str()), 89);

    // Only "on" exactly means the password was reset.
    EXPECT_EQ(auth("erin", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET);
    ASSERT_EQ(root.set(dir().user_dn("erin"), "orvPasswordMustChange", "ON"), 0);
    EXPECT_EQ(auth("erin", kUserPw), 0);
    ASSERT_EQ(root.set(dir().user_dn("erin"), "orvPasswordMustChange", "on"), 0);
    // The reset flag is looked at only once the password is right.
    EXPECT_EQ(auth("erin", "wrong-password1"), LDAP_INVALID_CREDENTIALS);
}

TEST_F(AuthTest, PasswordPolicyResponses) {
    password_expiry_time = 777;
    EXPECT_EQ(auth("ppexpired", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_EXPIRED);
    EXPECT_EQ(password_expiry_time, 777) << "only a time-before-expiry warning sets it";
    EXPECT_EQ(auth("alice", kUserPw), 0);
    EXPECT_EQ(password_expiry_time, 777);

    // Within the warning period the server reports the seconds left (389 DS
    // grants the whole warning period at the first warning).
    EXPECT_EQ(auth("ppwarning", kUserPw), 0);
    Root root(dir());
    const long left = seconds_until(root.first(dir().user_dn("ppwarning"), "passwordExpirationTime"));
    EXPECT_GT(password_expiry_time, 0);
    EXPECT_NEAR(password_expiry_time, left, 10);
    EXPECT_EQ(orvlib_get_password_expiry_time(ld()), static_cast<int>((left + 86399) / 86400));
    EXPECT_EQ(orvlib_get_password_expiry_time(nullptr), -1);

    // Two failures lock the account; then even the right password is refused.
    int rc = 0;
    for (int i = 0; i < 3 && rc != ORV_LDAPLIB_ACCOUNT_LOCKED; ++i) rc = auth("pplocked", "wrong-password1");
    EXPECT_EQ(auth("pplocked", kUserPw), ORV_LDAPLIB_ACCOUNT_LOCKED);
}

TEST_F(AuthTest, UnreachableTemporaryConnectionRefusesWithItsStatus) {
    EXPECT_EQ(auth("bob", kUserPw), 0);
    const int port = orv_Port;
    orv_Port = Directory::free_port();
    // Stored: the caller never sees the status of an earlier call.
    EXPECT_EQ(_authenticateUserTempConn(dir().user_dn("alice").c_str(), kUserPw), 81);  // server down
    EXPECT_EQ(ldapErrCode, 81);
    ldapErrCode = 0;
    EXPECT_EQ(auth("alice", kUserPw), 81);
    EXPECT_EQ(str(_user_id), dir().user_dn("bob")) << "nothing kept from a check that was not made";
    EXPECT_EQ(str(_pwd), kUserPw);
    orv_Port = port;
    EXPECT_EQ(auth("alice", kUserPw), 0);
    // An empty password never reaches a bind.
    EXPECT_EQ(_authenticateUserTempConn(dir().user_dn("alice").c_str(), ""), LDAP_INVALID_CREDENTIALS);
}

// ------------------------------------------------------------------ operating-system accounts

TEST_F(AuthTest, OperatingSystemAccountsThroughTheServer) {
    if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
    dir().reseed("osauth");
    reopen();
    ASSERT_EQ(ORV_OS_AUTH, 1);
    const std::string user = dir().param("os_user");
    const std::string pw = dir().param("os_pw");

    EXPECT_EQ(auth(user.c_str(), pw.c_str()), 0);
    EXPECT_EQ(_user_id, nullptr) << "no session state changes";
    EXPECT_EQ(_pwd, nullptr);
    EXPECT_EQ(auth(user.c_str(), "wrong-password1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(auth("nobody", pw.c_str()), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(auth(user.c_str(), ""), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(_user_id, nullptr);

    session_.close();
    dir().reseed("standalone");
    open();
}

// ------------------------------------------------------------------ corporate users

class CorporateTest : public AuthTest {
protected:
    static void SetUpTestSuite() {
        AuthTest::SetUpTestSuite();
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
    static std::string corp_dn(const std::string& uid) { return corp_->user_dn(uid); }

    static std::unique_ptr<Directory> corp_;
};

std::unique_ptr<Directory> CorporateTest::corp_;

TEST_F(CorporateTest, CorporateUserIsBoundOnTheCorporateServer) {
    ASSERT_EQ(ORV_OPERATION_MODE, 1);
    ASSERT_NE(corporate_admin_ld, nullptr);
    EXPECT_EQ(auth("jsmith", kUserPw), 0);
    EXPECT_EQ(user_authenticated, 1);
    EXPECT_EQ(str(_user_id), corp_dn("jsmith"));
    EXPECT_NE(corporate_user_ld, nullptr);
    EXPECT_NE(corporate_user_ld, corporate_admin_ld);

    // alice exists on both servers; the corporate one wins.
    EXPECT_EQ(auth("alice", kUserPw), 0);
    EXPECT_EQ(str(_user_id), corp_dn("alice"));

    // A wrong corporate password is final: the local directory is not tried.
    EXPECT_EQ(auth("mjones", "wrong-password1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), corp_dn("mjones"));
    // The administrative connection was never rebound: the next look-up works.
    EXPECT_EQ(auth("jsmith", kUserPw), 0);

    // Without the administrative connection the corporate check cannot run.
    LDAP* admin = corporate_admin_ld;
    corporate_admin_ld = nullptr;
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "jsmith", kUserPw), ORV_LDAPLIB_INVALID_PARTITION_INFO);
    corporate_admin_ld = admin;
}

TEST_F(CorporateTest, UnknownCorporateUsersFallBackToTheLocalDirectory) {
    const int expectedMechanism = operatingMechanism == 1 ? 1 : 0;
    EXPECT_EQ(auth("bob", kUserPw), 0);
    EXPECT_EQ(str(_user_id), dir().user_dn("bob"));
    EXPECT_EQ(corporate_user_ld, corporate_admin_ld);
    EXPECT_EQ(ORV_OPERATION_MODE, 1);
    EXPECT_EQ(mechanism, expectedMechanism);

    EXPECT_EQ(auth("nobody", kUserPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ORV_OPERATION_MODE, 1);
    // The wildcard is refused on the corporate side (3009), then the local
    // directory answers.
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "j*", kUserPw), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(auth("j*", kUserPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), "uid=j*,ou=People," + dir().suffix());
    // No blank passwords on this partition, on either side.
    EXPECT_EQ(auth("jsmith", ""), ORV_LDAPLIB_INVALID_INPUT);

    // Local password rules are not the corporate server's business.
    EXPECT_EQ(orvlib_get_password_policy(ld()), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_PASSWORD_POLICY_NA);
    EXPECT_EQ(orvlib_change_user_password(ld(), "bob", "wrong-password1", "Nw8%pLq4zT"),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_change_user_password(ld(), "bob", kUserPw, "Nw8%pLq4zT"), 0);
    EXPECT_EQ(auth("bob", "Nw8%pLq4zT"), 0);
}

TEST_F(CorporateTest, MetaGroupAndBlankPasswordSettings) {
    // Partition restricted to the members of its meta group (ZorlaUsers).
    session_.close();
    seed_corporate({{"corp_search_base_type", "2"}});
    open();
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "pbrown", kUserPw), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(auth("kwhite", kUserPw), 0);
    EXPECT_EQ(str(_user_id), corp_dn("kwhite"));
    // pbrown is no member: tried locally, where he does not exist.
    EXPECT_EQ(auth("pbrown", kUserPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(str(_user_id), dir().user_dn("pbrown"));

    // A partition that allows blank passwords: an empty password is wrong
    // without a bind (it would be an unauthenticated bind), and kept nowhere.
    session_.close();
    seed_corporate({{"corp_blank_pw", "on"}});
    open();
    ASSERT_EQ(PARTITION_INFO->partition_allows_blank_password, 1);
    EXPECT_EQ(_authenticateCorporateUser(orv_ld, "jsmith", ""), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(_user_id, nullptr);
    EXPECT_EQ(_pwd, nullptr);

    session_.close();
    seed_corporate({});
    open();
}

// ------------------------------------------------------------------ database users

namespace {

// The seeded repository (application server) and its database.
struct Repository {
    std::string id;
    std::string database_id;
    std::string database_dn;
};

Repository seeded_repository() {
    Root root(dir());
    Repository r;
    auto servers = root.find("ou=Application Registry," + dir().suffix(), "(objectclass=orvApplicationServer)");
    if (servers.empty()) return r;
    r.id = root.first(servers[0], "orvFullyQualifiedObjectId");
    r.database_id = root.first(servers[0], "orvExtendedKXSAttribute");
    r.database_dn = "orvZORLADatabaseId=" + r.database_id +
                    ",ou=Databases,ou=Application Data,ou=Morvane Zorla,ou=Applications," + dir().suffix();
    return r;
}

std::string self_path() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// Runs orvlib_authenticate_database_user in a child process whose login
// name (password database entry of its real user id) is loginName.
std::string database_user_as(const std::string& loginName, const std::string& uid, const std::string& pw,
                             const std::string& repository) {
    char tmpl[] = "/tmp/orvauth-nss.XXXXXX";
    if (!mkdtemp(tmpl)) return "mkdtemp failed";
    const std::string d = tmpl;
    std::ofstream(d + "/passwd") << loginName << ":x:" << getuid() << ":" << getgid() << ":Test:/tmp:/bin/sh\n";
    std::ofstream(d + "/group") << "orvtest:x:" << getgid() << ":\n";
    orv::testbed::RunResult r = orv::testbed::run_program(
        {"/usr/bin/env", "LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_PASSWD=" + d + "/passwd",
         "NSS_WRAPPER_GROUP=" + d + "/group", "NSS_WRAPPER_DISABLE_DEEPBIND=1",
         "ASAN_OPTIONS=verify_asan_link_order=0",
         "ORV_AUTH_CHILD_HOST=" + dir().host(), "ORV_AUTH_CHILD_PORT=" + std::to_string(dir().port()),
         "ORV_AUTH_CHILD_UID=" + uid, "ORV_AUTH_CHILD_PW=" + pw, "ORV_AUTH_CHILD_REPOSITORY=" + repository,
         self_path()});
    std::remove((d + "/passwd").c_str());
    std::remove((d + "/group").c_str());
    rmdir(d.c_str());
    if (r.status != 0) return "child failed (" + std::to_string(r.status) + "): " + r.out + r.err;
    return r.out;
}

// The child: one database-user authentication; prints the process's login
// name and the status.
int database_user_child() {
    const char* host = getenv("ORV_AUTH_CHILD_HOST");
    const int port = atoi(getenv("ORV_AUTH_CHILD_PORT"));
    orvlib_init();
    ORVLibInfo* info = nullptr;
    LDAP* ld = orvlib_getsession_context(host, port, &info, 0);
    if (!ld) {
        printf("session %d\n", ldapErrCode);
        return 0;
    }
    char* login = get_unix_login_name();
    int status = orvlib_authenticate_database_user(ld, getenv("ORV_AUTH_CHILD_UID"), getenv("ORV_AUTH_CHILD_PW"),
                                                   getenv("ORV_AUTH_CHILD_REPOSITORY"));
    printf("%s %d\n", login ? login : "(none)", status);
    orvlib_memfree(login);
    orvlib_memfree(const_cast<char*>(info->orv_server_version));
    orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
    orvlib_orvlibinfo_free(info);
    orvlib_unbind(ld);
    orvlib_uninitialize_lib();
    return 0;
}

}  // namespace

TEST_F(AuthTest, DatabaseUserWithoutSecondFactors) {
    const Repository repo = seeded_repository();
    ASSERT_FALSE(repo.id.empty());

    char* databaseId = nullptr;
    EXPECT_EQ(get_database_id_from_repository_id(ld(), repo.id.c_str(), &databaseId), 0);
    EXPECT_EQ(str(databaseId), repo.database_id);
    orvlib_memfree(databaseId);
    EXPECT_EQ(get_database_id_from_repository_id(ld(), nullptr, &databaseId), 0);
    EXPECT_EQ(databaseId, nullptr);
    EXPECT_EQ(get_database_id_from_repository_id(ld(), "no-such-repository", &databaseId), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(databaseId, nullptr);

    ORVLibEntry* db = orvlib_get_database_details_internal(ld(), repo.database_id.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(values_of(db, 64), std::vector<std::string>{"0"});
    EXPECT_EQ(values_of(db, 69), std::vector<std::string>{"0"});
    orvlib_orvlibentry_free(db);
    EXPECT_EQ(orvlib_get_database_details_internal(ld(), nullptr), nullptr);

    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, repo.id.c_str()), 0);
    ASSERT_NE(AUTH_USER_ORVLIBENTRY, nullptr);
    EXPECT_EQ(values_of(AUTH_USER_ORVLIBENTRY, 3), std::vector<std::string>{"alice"});
    EXPECT_EQ(str(_user_id), dir().user_dn("alice"));
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", "wrong-password1", repo.id.c_str()),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "dave", kUserPw, repo.id.c_str()),
              ORV_LDAPLIB_INACTIVE_USER);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "nobody", kUserPw, repo.id.c_str()), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "bob", kUserPw, nullptr), 0);
    EXPECT_EQ(values_of(AUTH_USER_ORVLIBENTRY, 3), std::vector<std::string>{"bob"});
    EXPECT_EQ(orvlib_authenticate_database_user(nullptr, "bob", kUserPw, nullptr), ORV_LDAPLIB_SESSION_INVALID);

    // No RADIUS server configured on this directory.
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), "bob", "123456"), ORV_LDAPLIB_RADIUS_NOT_CONFIGURED);
    EXPECT_EQ(ldapErrCode, 0);
}

TEST_F(AuthTest, SystemLoginFactorComparesTheProcessLoginName) {
    const Repository repo = seeded_repository();
    Root root(dir());
    ASSERT_EQ(root.set(repo.database_dn, "orvSystemLogin2FactorAuthenticationRequired", "1"), 0);

    // alice's Unix account is "alice"; letter case does not matter.
    EXPECT_EQ(database_user_as("ALICE", "alice", kUserPw, repo.id), "ALICE 0\n");
    EXPECT_EQ(database_user_as("bob", "alice", kUserPw, repo.id), "bob 49\n");
    // The factor comes first: a wrong password is not even tried.
    EXPECT_EQ(database_user_as("bob", "alice", "wrong-password1", repo.id), "bob 49\n");
    EXPECT_EQ(database_user_as("alice", "alice", "wrong-password1", repo.id), "alice 49\n");
    // Without a database the factor is off.
    EXPECT_EQ(database_user_as("bob", "alice", kUserPw, ""), "bob 0\n");

    ASSERT_EQ(root.set(repo.database_dn, "orvSystemLogin2FactorAuthenticationRequired", "0"), 0);
    EXPECT_EQ(database_user_as("bob", "alice", kUserPw, repo.id), "bob 0\n");
}

TEST_F(AuthTest, RadiusFactorAgainstFreeRadius) {
    if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
    char users[] = "/tmp/orvauth-radius-users.XXXXXX";
    int fd = mkstemp(users);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(users) << "alice:alice-otp\nbob:bob-otp\n";
    orv::testbed::Radius radius(kRadiusSecret, users);
    std::remove(users);

    session_.close();
    dir().reseed("radius", {{"radius_port", std::to_string(radius.port())}, {"radius_secret", kRadiusSecret}});
    open();
    ASSERT_EQ(ORVLIB_IS_RADIUS_CONFIGURED, 1);
    ASSERT_NE(RADIUS_INFO, nullptr);
    ASSERT_EQ(RADIUS_INFO->radius_port_number, radius.port());
    const Repository repo = seeded_repository();

    // User and database require RADIUS: the password alone is not enough,
    // and nothing has been asked of the RADIUS server yet.
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, repo.id.c_str()),
              ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", "wrong-password1", repo.id.c_str()),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, repo.id.c_str()),
              ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED);
    // The RADIUS user name comes from the user's entry when none is given.
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), nullptr, "alice-otp"), 0);
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), nullptr, "bob-otp"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), "bob", "bob-otp"), 0);
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), "bob", ""), ORV_LDAPLIB_INVALID_INPUT);

    // RADIUS server unreachable (configured in the directory: the server
    // asks configured RADIUS servers only).
    set_plugin("orvRadiusTimeout", "300");
    set_plugin("orvRadiusAttempts", "1");
    const int port = RADIUS_INFO->radius_port_number;
    const std::string radiusDn = "cn=RadiusServer,ou=RadiusConfiguration,ou=Config," + dir().suffix();
    RADIUS_INFO->radius_port_number = free_udp_port();
    Root radiusConfig(dir());
    ASSERT_EQ(radiusConfig.set(radiusDn, "orvRadiusServerPortNumber",
                               std::to_string(RADIUS_INFO->radius_port_number)), 0);
    EXPECT_EQ(orvlib_authenticate_radius_user(ld(), "bob", "bob-otp"), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(radius_err_str, "Unable to connect to radius server\n");
    char* text = nullptr;
    EXPECT_EQ(orvlib_get_last_error(ld(), &text), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(text, "Unable to connect to radius server\n");
    orvlib_memfree(text);
    RADIUS_INFO->radius_port_number = port;
    ASSERT_EQ(radiusConfig.set(radiusDn, "orvRadiusServerPortNumber", std::to_string(port)), 0);
    set_plugin("orvRadiusTimeout", "2000");
    set_plugin("orvRadiusAttempts", "3");

    // The database alone decides nothing: with its flag off, no RADIUS.
    Root root(dir());
    ASSERT_EQ(root.set(repo.database_dn, "orvRadius2FactorAuthenticationRequired", "0"), 0);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "alice", kUserPw, repo.id.c_str()), 0);
    ASSERT_EQ(root.set(repo.database_dn, "orvRadius2FactorAuthenticationRequired", "1"), 0);
    // Nor the user alone.
    ASSERT_EQ(root.set(dir().user_dn("bob"), "orvRadius2FactorAuthenticationRequired", "0"), 0);
    EXPECT_EQ(orvlib_authenticate_database_user(ld(), "bob", kUserPw, repo.id.c_str()), 0);

    session_.close();
    dir().reseed("standalone");
    open();
}

// Runs last: what the tests above made the library write.
TEST(AuthLog, NoPasswordInTheLog) {
    const std::string text = orv::authtest::library_log_text();
    ASSERT_NE(text.find("Password"), std::string::npos) << "the library wrote its log";
    for (const char* secret : {kUserPw, "wrong-password1", "Nw8%pLq4zT", "OsPass123", "alice-otp", "bob-otp",
                               kRadiusSecret, "CorpAdmin1"})
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;
}

int main(int argc, char** argv) {
    if (getenv("ORV_AUTH_CHILD_HOST")) return database_user_child();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
