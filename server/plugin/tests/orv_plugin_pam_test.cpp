// PAM password check of the server plugin, run under pam_wrapper with the
// pam_matrix module and a private password file (never real accounts).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <security/pam_appl.h>
#include <unistd.h>

#include "orv_pam.hpp"

#ifndef ORV_PAM_MATRIX_MODULE
#error "ORV_PAM_MATRIX_MODULE must name pam_matrix.so"
#endif
#ifndef ORV_PAM_DENY_MODULE
#error "ORV_PAM_DENY_MODULE must name pam_deny.so"
#endif

namespace {

// pam_wrapper copies the service directory once per process, at the first
// PAM call, so the whole suite shares one directory.
class PamCheck : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (std::getenv("PAM_WRAPPER") == nullptr) return;
        char pattern[] = "/tmp/orv-pam-test.XXXXXX";
        if (mkdtemp(pattern) == nullptr) return;
        dir_ = pattern;
        // pam_matrix's account check reads the first line of a user, so
        // every service has its own user.
        std::ofstream(dir_ + "/passdb") << "pamuser:right pass:orvtest\n"
                                        << "verboseuser:right pass:orvverbose\n"
                                        << "denieduser:right pass:orvdenied\n";
        const std::string module =
            std::string(ORV_PAM_MATRIX_MODULE) + " passdb=" + dir_ + "/passdb";
        std::ofstream(dir_ + "/orvtest") << "auth required " << module << "\n"
                                         << "account required " << module << "\n";
        std::ofstream(dir_ + "/orvverbose") << "auth required " << module << " verbose\n"
                                            << "account required " << module << " verbose\n";
        // The password is right but the account may not be used.
        std::ofstream(dir_ + "/orvdenied") << "auth required " << module << "\n"
                                           << "account required " << ORV_PAM_DENY_MODULE << "\n";
        setenv("PAM_WRAPPER_SERVICE_DIR", dir_.c_str(), 1);
    }
    static void TearDownTestSuite() {
        if (dir_.empty()) return;
        for (const char* name : {"passdb", "orvtest", "orvverbose", "orvdenied"}) {
            unlink((dir_ + "/" + name).c_str());
        }
        rmdir(dir_.c_str());
        dir_.clear();
    }
    void SetUp() override {
        if (std::getenv("PAM_WRAPPER") == nullptr) {
            GTEST_SKIP() << "needs LD_PRELOAD=libpam_wrapper.so PAM_WRAPPER=1";
        }
        ASSERT_FALSE(dir_.empty());
    }
    static std::string dir_;
};

std::string PamCheck::dir_;

TEST_F(PamCheck, RightAndWrongPasswords) {
    std::string why;
    orvsrv::PamStage stage = orvsrv::PamStage::start;
    EXPECT_EQ(orvsrv::pam_check_password("orvtest", "pamuser", "right pass", &why, &stage),
              PAM_SUCCESS);
    EXPECT_EQ(stage, orvsrv::PamStage::account) << "the account is checked after the password";
    EXPECT_EQ(orvsrv::pam_check_password("orvtest", "pamuser", "wrong pass", &why, &stage),
              PAM_AUTH_ERR);
    EXPECT_EQ(stage, orvsrv::PamStage::authenticate);
    EXPECT_FALSE(why.empty());
    EXPECT_NE(orvsrv::pam_check_password("orvtest", "nobody", "right pass", &why), PAM_SUCCESS);
    EXPECT_NE(orvsrv::pam_check_password("orvtest", "pamuser", "", &why), PAM_SUCCESS);
    // A user of another service's lines is not accepted here.
    EXPECT_NE(orvsrv::pam_check_password("orvtest", "pamuser", "right passX", &why), PAM_SUCCESS);
}

// In verbose mode the module also sends information messages, some without
// a response pointer; the check must neither crash nor fail on them.
TEST_F(PamCheck, VerboseModuleMessagesAreTolerated) {
    std::string why;
    EXPECT_EQ(orvsrv::pam_check_password("orvverbose", "verboseuser", "right pass", &why),
              PAM_SUCCESS);
    EXPECT_EQ(orvsrv::pam_check_password("orvverbose", "verboseuser", "bad", &why), PAM_AUTH_ERR);
}

// pam_acct_mgmt runs after a right password: an account that the stack
// refuses (expired, locked; here pam_deny) does not pass.
TEST_F(PamCheck, RefusedAccountFailsAfterTheRightPassword) {
    std::string why;
    orvsrv::PamStage stage = orvsrv::PamStage::start;
    EXPECT_EQ(orvsrv::pam_check_password("orvdenied", "denieduser", "right pass", &why, &stage),
              PAM_AUTH_ERR);
    EXPECT_EQ(stage, orvsrv::PamStage::account);
    EXPECT_EQ(orvsrv::pam_check_password("orvdenied", "denieduser", "wrong pass", &why, &stage),
              PAM_AUTH_ERR);
    EXPECT_EQ(stage, orvsrv::PamStage::authenticate);
}

TEST_F(PamCheck, MissingServiceFails) {
    std::string why;
    EXPECT_NE(orvsrv::pam_check_password("orvnosuchservice", "pamuser", "right pass", &why),
              PAM_SUCCESS);
}

}  // namespace
