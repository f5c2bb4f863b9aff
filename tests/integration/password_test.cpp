// Password policy and password change against the test directory: the
// policy entry, who may change a password, the library's syntax rules, the
// server's "too short" and "history" refusals, the reset flag, an expired
// old password, and syntax checks switched off.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "auth_support.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "testbed.hpp"

namespace {

using orv::authtest::bind_as;
using orv::authtest::Root;
using orv::authtest::Session;
using orv::authtest::values_of;

// The standalone data plus "ppchange", whose server policy refuses short
// passwords and passwords in its history.
ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone").with_param("pwd_change_user", "1"));

orv::testbed::Directory& dir() { return orv::testbed::Environment::directory(); }

const char kUserPw[] = "Secret123!";
const char kNewPw[] = "Nw8%pLq4zT";  // passes the library's rules and the dictionary

std::string policy_dn() { return "cn=Password Policy," + dir().suffix(); }

class PasswordTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { orv::authtest::enable_library_log(); }
    void SetUp() override {
        memory_.start(session_);
        session_.open(dir());
        ASSERT_NE(session_.ld(), nullptr) << "session: " << ldapErrCode;
    }
    void TearDown() override {
        session_.close();
        EXPECT_EQ(memory_.outstanding(session_), 0) << "library allocations outstanding";
    }
    LDAP* ld() { return session_.ld(); }
    int change(const char* uid, const char* old_pw, const char* new_pw) {
        return orvlib_change_user_password(ld(), uid, old_pw, new_pw);
    }

    Session session_;
    orv::authtest::MemoryBalance memory_;
};

}  // namespace

TEST_F(PasswordTest, PolicyEntryHoldsLibraryAndServerRules) {
    ORVLibEntry* e = orvlib_get_password_policy(ld());
    ASSERT_NE(e, nullptr) << ldapErrCode;
    EXPECT_EQ(ldapErrCode, 0);
    // Library rules (cn=Password Policy) ...
    EXPECT_EQ(values_of(e, 42), std::vector<std::string>{"3"});  // max repeated
    EXPECT_EQ(values_of(e, 47), std::vector<std::string>{"1"});  // min alphabetic
    EXPECT_EQ(values_of(e, 49), std::vector<std::string>{"3"});  // min different
    EXPECT_EQ(values_of(e, 52), std::vector<std::string>{"1"});  // min numbers
    EXPECT_EQ(values_of(e, 53), std::vector<std::string>{"0"});  // min symbols
    // ... followed by the server policy (cn=ORVPasswordPolicy,cn=nuvpolicies).
    EXPECT_EQ(values_of(e, 43), std::vector<std::string>{"6"});    // pwdMinLength
    EXPECT_EQ(values_of(e, 45), std::vector<std::string>{"3"});    // pwdInHistory
    EXPECT_EQ(values_of(e, 46), std::vector<std::string>{"2"});    // pwdMaxFailure
    EXPECT_EQ(values_of(e, 50), std::vector<std::string>{"600"});  // pwdLockoutDuration
    EXPECT_EQ(values_of(e, 51), std::vector<std::string>{"on"});   // pwdlockout
    orvlib_orvlibentry_free(e);

    EXPECT_EQ(orvlib_get_password_policy(nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);

    // The policy belongs to the library's own directory: not in corporate mode.
    ORV_OPERATION_MODE = 1;
    EXPECT_EQ(orvlib_get_password_policy(ld()), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_PASSWORD_POLICY_NA);
    ORV_OPERATION_MODE = 0;
}

TEST_F(PasswordTest, WhoMayChangeAPassword) {
    EXPECT_EQ(orvlib_can_user_change_password(ld(), "alice"), 1);
    EXPECT_EQ(orvlib_can_user_change_password(ld(), "frank"), 0);  // "orvChangePassword" off
    EXPECT_EQ(orvlib_can_user_change_password(ld(), "nobody"), LDAP_NO_SUCH_OBJECT);
    ldapErrCode = 4711;
    EXPECT_EQ(orvlib_can_user_change_password(nullptr, "alice"), ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(ldapErrCode, 4711) << "a missing handle is answered, not stored";

    // Only the exact first value "on" counts.
    Root root(dir());
    ASSERT_EQ(root.set(dir().user_dn("carol"), "orvChangePassword", "ON"), 0);
    EXPECT_EQ(orvlib_can_user_change_password(ld(), "carol"), 0);
    ASSERT_EQ(root.set(dir().user_dn("carol"), "orvChangePassword", "on"), 0);
    EXPECT_EQ(orvlib_can_user_change_password(ld(), "carol"), 1);

    EXPECT_EQ(change("frank", kUserPw, kNewPw), ORV_LDAPLIB_NO_PRIVILEGE);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("frank"), kUserPw), 0) << "frank's password is unchanged";
}

// Refusals that come before the server is asked: nothing changes.
TEST_F(PasswordTest, InputAndSyntaxRulesRefuseBeforeTheServer) {
    EXPECT_EQ(change("carol", "", kNewPw), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(change("carol", nullptr, kNewPw), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(change("carol", kUserPw, ""), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(change("carol", "wrong-password1", kNewPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(orvlib_change_user_password(nullptr, "carol", kUserPw, kNewPw), ORV_LDAPLIB_SESSION_INVALID);

    // The seeded rules: at least 1 digit, 0 symbols, at most 3 of one
    // character, at least 3 different characters; checked in that order.
    EXPECT_EQ(change("carol", kUserPw, "abcdefg"), ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS);
    EXPECT_EQ(change("carol", kUserPw, "a1babaa"), ORV_LDAPLIB_PASSWORD_MAX_REPEATED);
    EXPECT_EQ(change("carol", kUserPw, "a1a1"), ORV_LDAPLIB_PASSWORD_MIN_DIFF);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_PASSWORD_MIN_DIFF);

    Root root(dir());
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordminsymbols", "1"), 0);
    EXPECT_EQ(change("carol", kUserPw, "abc1234"), ORV_LDAPLIB_PASSWORD_MIN_SYM_CHARS);
    // Repetitions count anywhere in the password, not only in runs.
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordmaxrepeatedchars", "2"), 0);
    EXPECT_EQ(validate_password(ld(), "ab!ca1"), 1);
    EXPECT_EQ(validate_password(ld(), "ab!caa1"), ORV_LDAPLIB_PASSWORD_MAX_REPEATED);
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordminsymbols", "0"), 0);
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordmaxrepeatedchars", "3"), 0);

    EXPECT_EQ(bind_as(dir(), dir().user_dn("carol"), kUserPw), 0) << "carol's password is unchanged";
}

TEST_F(PasswordTest, ServerRefusesTooShortAndPasswordsInHistory) {
    const std::string dn = dir().user_dn("ppchange");
    // Passes the library's rules; the server's dictionary check says it is
    // too short.
    EXPECT_EQ(change("ppchange", kUserPw, "ab1c2"), ORV_LDAPLIB_PASSWORD_TOO_SHORT);
    // The current password is in the history.
    EXPECT_EQ(change("ppchange", kUserPw, kUserPw), ORV_LDAPLIB_PASSWORD_IN_HISTORY);
    EXPECT_EQ(bind_as(dir(), dn, kUserPw), 0);

    EXPECT_EQ(change("ppchange", kUserPw, kNewPw), 0);
    EXPECT_EQ(bind_as(dir(), dn, kNewPw), 0);
    EXPECT_EQ(bind_as(dir(), dn, kUserPw), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(change("ppchange", kNewPw, kUserPw), ORV_LDAPLIB_PASSWORD_IN_HISTORY);

    // A refusal that names neither reason is the server's own code, never
    // success.
    EXPECT_EQ(change("ppchange", kNewPw, "abcdefg1"), LDAP_CONSTRAINT_VIOLATION);
    EXPECT_EQ(bind_as(dir(), dn, "abcdefg1"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind_as(dir(), dn, kNewPw), 0);
}

TEST_F(PasswordTest, ResetPasswordMayBeChangedAndTheFlagGoesOff) {
    Root root(dir());
    const std::string dn = dir().user_dn("erin");
    // erin's password was reset; the right to change comes from the reset
    // alone.
    ASSERT_EQ(root.set(dn, "orvChangePassword", "off"), 0);
    ASSERT_EQ(root.first(dn, "orvPasswordMustChange"), "on");
    EXPECT_EQ(orvlib_authenticate_user(ld(), "erin", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET);

    EXPECT_EQ(change("erin", kUserPw, kNewPw), 0);
    EXPECT_EQ(root.first(dn, "orvPasswordMustChange"), "off");
    EXPECT_EQ(orvlib_authenticate_user(ld(), "erin", kNewPw), 0);
    // Without the reset flag the missing right counts again.
    EXPECT_EQ(change("erin", kNewPw, "Zorla2024x"), ORV_LDAPLIB_NO_PRIVILEGE);
}

TEST_F(PasswordTest, ExpiredOldPasswordStillAllowsTheChange) {
    EXPECT_EQ(orvlib_authenticate_user(ld(), "ppexpired", kUserPw), ORV_LDAPLIB_PASSWORD_HAS_EXPIRED);
    EXPECT_EQ(change("ppexpired", kUserPw, kNewPw), 0);
    // 389 DS moves the expiry date of the new password a moment after it
    // answers the change; until then a bind still finds the password expired.
    int rc = -1;
    for (int i = 0; i < 50 && rc != 0; ++i) {
        if (i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rc = bind_as(dir(), dir().user_dn("ppexpired"), kNewPw);
    }
    EXPECT_EQ(rc, 0);
}

TEST_F(PasswordTest, SyntaxChecksOffSendEveryPasswordToTheServer) {
    Root root(dir());
    ASSERT_EQ(root.set(policy_dn(), "pwdchecksyntax", "0"), 0);
    // No digit: the library's rules would refuse it, the server takes it.
    EXPECT_EQ(change("bob", kUserPw, "Zorla-Bob"), 0);
    EXPECT_EQ(bind_as(dir(), dir().user_dn("bob"), "Zorla-Bob"), 0);

    // An absent "pwdchecksyntax" means off as well.
    ASSERT_EQ(root.set(policy_dn(), "pwdchecksyntax", ""), 0);
    ldapErrCode = 99;
    EXPECT_EQ(validate_password(ld(), "a"), 1);
    EXPECT_EQ(ldapErrCode, 0);
    ASSERT_EQ(root.set(policy_dn(), "pwdchecksyntax", "1"), 0);
    EXPECT_EQ(validate_password(ld(), "a"), ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS);

    // Checks on with a limit absent: its minimum is 0, and a maximum of 0
    // refuses every password.
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordmaxrepeatedchars", ""), 0);
    EXPECT_EQ(validate_password(ld(), "Abc123"), ORV_LDAPLIB_PASSWORD_MAX_REPEATED);
    ASSERT_EQ(root.set(policy_dn(), "orvpasswordmaxrepeatedchars", "3"), 0);
}

// Runs last: what the tests above made the library write.
TEST(PasswordLog, NoPasswordInTheLog) {
    const std::string text = orv::authtest::library_log_text();
    ASSERT_NE(text.find("Password"), std::string::npos) << "the library wrote its log";
    for (const char* secret : {kUserPw, kNewPw, "ab1c2", "abcdefg1", "Zorla-Bob", "wrong-password1"})
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;
}
