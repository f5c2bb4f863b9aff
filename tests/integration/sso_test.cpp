// Navigation tokens through the ORV server plugin: issued for a known DN,
// validated back into the user's entry, refused for an unknown DN without
// asking the server, expired and forged tokens.
#include <gtest/gtest.h>

#include <strings.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "auth_support.hpp"
#include "orvldap.h"
#include "testbed.hpp"

namespace {

using orv::authtest::Session;
using orv::authtest::values_of;

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));

orv::testbed::Directory& dir() { return orv::testbed::Environment::directory(); }

const char kPluginDn[] = "cn=ORV Server Plugin,cn=plugins,cn=config";
const char kIssueOid[] = "1.3.6.1.4.1.47391.0.2000.1";

void set_plugin(const std::string& attr, const std::string& value) {
    dir().apply_ldif(std::string("dn: ") + kPluginDn + "\nchangetype: modify\nreplace: " + attr + "\n" + attr +
                     ": " + value + "\n");
}

// Token-issue requests the server has logged so far (access log written
// unbuffered, see SetUpTestSuite).
int issue_requests_logged() {
    std::ifstream in(dir().workdir() + "/root/var/log/dirsrv/slapd-" + dir().name() + "/access");
    std::string line;
    int n = 0;
    while (std::getline(in, line))
        if (line.find(std::string("EXT oid=\"") + kIssueOid + "\"") != std::string::npos) ++n;
    return n;
}

class SsoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        orv::authtest::enable_library_log();
        dir().apply_ldif(
            "dn: cn=config\nchangetype: modify\nreplace: nsslapd-accesslog-logbuffering\n"
            "nsslapd-accesslog-logbuffering: off\n");
    }
    void SetUp() override {
        if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
        memory_.start(session_);
        session_.open(dir());
        ASSERT_NE(session_.ld(), nullptr) << "session: " << ldapErrCode;
    }
    void TearDown() override {
        if (IsSkipped()) return;
        session_.close();
        EXPECT_EQ(memory_.outstanding(session_), 0) << "library allocations outstanding";
    }
    LDAP* ld() { return session_.ld(); }

    // A token for dn, or "" (with the status in ldapErrCode).
    std::string token_for(const std::string& dn) {
        char** tokens = orvlib_get_sso_navigation_token(ld(), dn.c_str());
        if (!tokens) return "";
        std::string token = tokens[0] ? tokens[0] : "";
        EXPECT_EQ(tokens[1], nullptr) << "one token, then the terminator";
        orvlib_free_values(tokens);
        return token;
    }
    // Validates a record made by orvlib_create_sso_token; *uid receives the
    // entry's uid values.
    unsigned long validate(const char* key, const std::string& value, std::vector<std::string>* uid) {
        ORVSSOToken record{const_cast<char*>(key), const_cast<char*>(value.c_str())};
        ORVLibEntry* entry = nullptr;
        unsigned long rc =
            orvlib_validate_sso_token(ld(), reinterpret_cast<const ORVSSOToken**>(&record), &entry);
        if (uid) *uid = values_of(entry, 3);
        orvlib_orvlibentry_free(entry);
        return rc;
    }

    Session session_;
    orv::authtest::MemoryBalance memory_;
};

}  // namespace

TEST_F(SsoTest, TokenOfAKnownUserValidatesIntoThatUsersEntry) {
    const std::string token = token_for(dir().user_dn("alice"));
    ASSERT_FALSE(token.empty()) << ldapErrCode;
    EXPECT_EQ(ldapErrCode, 0);

    // The record as a caller makes it, passed through the declared type.
    ORVSSOToken* record = orvlib_create_sso_token("ORV_SSO_TOKEN", token.c_str());
    ASSERT_NE(record, nullptr);
    ORVLibEntry* entry = nullptr;
    EXPECT_EQ(orvlib_validate_sso_token(ld(), reinterpret_cast<const ORVSSOToken**>(record), &entry), 0u);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(values_of(entry, 3), std::vector<std::string>{"alice"});
    const auto dn = values_of(entry, 0);
    ASSERT_EQ(dn.size(), 1u);
    EXPECT_EQ(strcasecmp(dn[0].c_str(), dir().user_dn("alice").c_str()), 0) << dn[0];
    orvlib_orvlibentry_free(entry);
    orvlib_orvssotoken_free(record);

    // A token names its own user; a wrong key in the record alone does not
    // refuse a token the server accepts.
    std::vector<std::string> uid;
    EXPECT_EQ(validate("orv_sso_token", token_for(dir().user_dn("bob")), &uid), 0u);
    EXPECT_EQ(uid, std::vector<std::string>{"bob"});
    EXPECT_EQ(validate(nullptr, token, &uid), 0u);
    EXPECT_EQ(uid, std::vector<std::string>{"alice"});

    EXPECT_EQ(orvlib_get_sso_navigation_token(nullptr, dir().user_dn("alice").c_str()), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
}

TEST_F(SsoTest, UnknownUserGetsNoTokenAndTheServerIsNotAsked) {
    EXPECT_FALSE(token_for(dir().user_dn("alice")).empty());
    const int before = issue_requests_logged();
    ASSERT_GT(before, 0) << "the access log records token requests";
    EXPECT_EQ(token_for("uid=nobody,ou=People," + dir().suffix()), "");
    EXPECT_EQ(ldapErrCode, 34);
    EXPECT_EQ(issue_requests_logged(), before);
}

TEST_F(SsoTest, ExpiredAndForgedTokensAreRefused) {
    set_plugin("orvTokenLifetime", "1");
    const std::string shortLived = token_for(dir().user_dn("carol"));
    set_plugin("orvTokenLifetime", "300");
    ASSERT_FALSE(shortLived.empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(validate("ORV_SSO_TOKEN", shortLived, nullptr), static_cast<unsigned long>(ORV_LDAPLIB_SSO_TIMEOUT));

    std::string forged = token_for(dir().user_dn("carol"));
    ASSERT_FALSE(forged.empty());
    forged.back() = forged.back() == 'A' ? 'B' : 'A';
    EXPECT_EQ(validate("ORV_SSO_TOKEN", forged, nullptr),
              static_cast<unsigned long>(ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR));
    EXPECT_EQ(validate("ORV_SSO_TOKEN", "not-a-token", nullptr),
              static_cast<unsigned long>(ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR));
    EXPECT_EQ(validate("ORV_SSO_TOKEN", "", nullptr),
              static_cast<unsigned long>(ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR));
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR);
    EXPECT_EQ(orvlib_validate_sso_token(nullptr, nullptr, nullptr),
              static_cast<unsigned long>(ORV_LDAPLIB_SESSION_INVALID));
}
