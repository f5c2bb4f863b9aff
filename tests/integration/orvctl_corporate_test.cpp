// orvctl against an ORV directory in corporate mode, with its partition on a
// second directory server: what info and doctor report of the partition,
// the corporate people search, and a partition whose administrator cannot
// bind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvldap.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::testbed::Directory;
using orv::testbed::Json;
using orv::testbed::Options;
using orv::testbed::RunResult;

const char kCorpSuffix[] = "dc=corp,dc=test";
const char kCorpAdminPw[] = "CorpAdmin1";

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone"));

Directory& local() { return orv::testbed::Environment::directory(); }

RunResult orvctl(std::vector<std::string> args) {
    args.insert(args.begin(), {orv::testbed::orvctl_path(), "-H",
                               local().host() + ":" + std::to_string(local().port())});
    return orv::testbed::run_program(args);
}

bool has_line(const std::string& out, const std::string& start) {
    return out.find("\n" + start) != std::string::npos || out.compare(0, start.size(), start) == 0;
}

class OrvctlCorporateTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        corp_ = new Directory(Options()
                                  .with_scenario("corporate-directory")
                                  .with_suffix(kCorpSuffix)
                                  .without_plugin());
    }
    static void TearDownTestSuite() {
        delete corp_;
        corp_ = nullptr;
    }
    void reseed(const std::string& admin_pw) {
        orvtest::use_partition(local(), *corp_, {{"corp_admin_pw", admin_pw}});
    }
    static Directory* corp_;
};

Directory* OrvctlCorporateTest::corp_ = nullptr;

TEST_F(OrvctlCorporateTest, InfoAndDoctorDescribeThePartition) {
    ASSERT_FALSE(orv::testbed::orvctl_path().empty()) << "orvctl is not built";
    reseed(kCorpAdminPw);
    orvtest::Session session(local());
    ASSERT_NE(session.ld(), nullptr) << session.status();
    const int mechanism_in_process = operatingMechanism;

    RunResult info = orvctl({"info", "--json"});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(info.out.find(kCorpAdminPw), std::string::npos) << "the administrator's password is never printed";
    const Json j = Json::parse(info.out);
    EXPECT_EQ(j.str("operation_mode_value"), "1");
    const Json* partition = j.find("partition");
    ASSERT_NE(partition, nullptr);
    EXPECT_EQ(partition->str("host"), corp_->host());
    EXPECT_EQ(partition->str("port"), std::to_string(corp_->port()));
    EXPECT_EQ(partition->str("admin_dn"), std::string(PARTITION_INFO->admin_dn));
    EXPECT_EQ(j.str("search_mechanism"), mechanism_in_process == ORV_VLV ? "virtual list view" : "paged results");

    RunResult doctor = orvctl({"doctor"});
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    EXPECT_EQ(doctor.out.find(kCorpAdminPw), std::string::npos);
    for (const char* step : {"session", "partition reachability", "partition administrator bind", "control detection"})
        EXPECT_TRUE(has_line(doctor.out, std::string("  ok    ") + step)) << step << "\n" << doctor.out;
    EXPECT_NE(doctor.out.find(std::string("bound as ") + PARTITION_INFO->admin_dn), std::string::npos) << doctor.out;

    // Corporate people come through orvctl as through the library.
    RunResult people = orvctl({"search", "people", "jsmith", "--attrs", "uid"});
    ASSERT_EQ(people.status, 0) << people.err;
    EXPECT_NE(people.out.find("jsmith"), std::string::npos) << people.out;
    EXPECT_NE(people.out.find("\n1 entry\n"), std::string::npos) << people.out;
}

TEST_F(OrvctlCorporateTest, AnAdministratorWhoCannotBindEndsTheSession) {
    reseed("Wrong-Password-1");
    orvtest::Session session(local());
    ASSERT_EQ(session.ld(), nullptr);
    const int status = session.status();
    EXPECT_EQ(status, LDAP_INVALID_CREDENTIALS);

    RunResult info = orvctl({"info"});
    EXPECT_EQ(info.status, 3);
    EXPECT_NE(info.err.find("status " + std::to_string(status) + " "), std::string::npos) << info.err;

    RunResult doctor = orvctl({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_TRUE(has_line(doctor.out, "  FAIL  session")) << doctor.out;
    EXPECT_NE(doctor.out.find("status " + std::to_string(status) + " "), std::string::npos) << doctor.out;
    EXPECT_EQ(doctor.out.find("Wrong-Password-1"), std::string::npos);
    reseed(kCorpAdminPw);
}

}  // namespace
