// A test that works on a library session of the test bed's ORV directory in
// corporate mode, its partition on a corporate directory (corp_) that the
// test suite starts in its SetUpTestSuite and hands to use_partition.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "orvldap.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace orvtest {

class CorporateSessionTest : public ::testing::Test {
protected:
    static void TearDownTestSuite() {
        corp_.reset();
        orv::testbed::Environment::directory().reseed("standalone");
    }
    void SetUp() override {
        session_.open(orv::testbed::Environment::directory());
        ASSERT_NE(session_.ld(), nullptr) << session_.status();
        ASSERT_EQ(ORV_OPERATION_MODE, 1);
        ASSERT_NE(corporate_admin_ld, nullptr);
    }
    void TearDown() override { session_.close(); }
    LDAP* ld() const { return session_.ld(); }

    static inline std::unique_ptr<orv::testbed::Directory> corp_;
    Session session_;
};

}  // namespace orvtest
