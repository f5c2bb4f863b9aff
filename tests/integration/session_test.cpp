// Session context, library information, configuration records, version
// check, connection status and recovery, against ORV test directories.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "orvldap.h"
#include "orvldap_helper.h"
#include "orvldap_session.h"
#include "orvplatforms.h"
#include "session_support.hpp"
#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Environment;
using orv::testbed::Options;

ORV_TESTBED_ENVIRONMENT(Options().with_scenario("standalone").with_tls());

namespace {

std::string info_option(ORVLibInfo* info, int option, int* status = nullptr) {
    char* out = nullptr;
    int rc = orvlib_get_orvlibinfo(info, option, &out);
    if (status) *status = rc;
    std::string value = out ? out : "";
    orvlib_memfree(out);
    return value;
}

using orvtest::free_info;
using orvtest::Session;

// Closes the session and checks that it released everything it allocated.
void close_clean(Session& s) {
    s.close();
    EXPECT_EQ(s.outstanding(), 0) << "allocations left after the session";
}

void set_compat_version(Directory& dir, const std::string& version) {
    dir.apply_ldif("dn: cn=Version Number," + dir.suffix() +
                   "\nchangetype: modify\nreplace: kxslibrarycompatibleversion\n"
                   "kxslibrarycompatibleversion: " + version + "\n");
}

int closed_port() {
    // A port on loopback with nothing listening: bind, read the number, close.
    Directory& dir = Environment::directory();
    return dir.port() + 1 == 65536 ? dir.port() - 1 : dir.free_port();
}

}  // namespace

TEST(Session, PlainSessionReadsConfigurationAndInformation) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone");
    Session s(dir.host(), dir.port());
    ASSERT_NE(s.ld(), nullptr) << "status " << s.status();
    EXPECT_EQ(orv_ld, s.ld());
    ASSERT_NE(s.info(), nullptr);

    EXPECT_EQ(ORV_OPERATION_MODE, 0);
    EXPECT_EQ(isServerInStandaloneMode, 1);
    EXPECT_EQ(ORV_OS_AUTH, 0);
    EXPECT_EQ(ORVLIB_IS_RADIUS_CONFIGURED, 0);
    EXPECT_EQ(ORVLIB_PRIMARY_CACHE_SIZE, 6000000);
    EXPECT_EQ(ORVLIB_SECONDARY_CACHE_SIZE, 2000000);
    ASSERT_NE(ORVLIB_SYSTEM_DEFAULT_DOMAIN, nullptr);
    EXPECT_STREQ(ORVLIB_SYSTEM_DEFAULT_DOMAIN, dir.param("default_domain").c_str());
    EXPECT_EQ(mechanism, ORV_VLV);
    EXPECT_EQ(operatingMechanism, ORV_VLV);
    ASSERT_NE(orv_Srv, nullptr);
    EXPECT_EQ(std::string(orv_Srv), dir.host());
    EXPECT_EQ(orv_Port, dir.port());

    EXPECT_STREQ(s.info()->orv_client_library_version, "6.0.0.1");
    EXPECT_EQ(info_option(s.info(), 4000), "6.0.0.1");
    EXPECT_EQ(info_option(s.info(), 4001), dir.param("server_version"));
    EXPECT_EQ(info_option(s.info(), 4002), dir.param("compat_version"));
    EXPECT_EQ(info_option(s.info(), 4009), dir.param("instance_id"));
    int status = 0;
    EXPECT_EQ(info_option(s.info(), 4003, &status), "");
    EXPECT_EQ(status, 3005);
    EXPECT_EQ(info_option(nullptr, 4000, &status), "");
    EXPECT_EQ(status, 3009);

    EXPECT_EQ(orvlib_is_trusted_os_auth_supported(s.ld()), 0);
    EXPECT_EQ(orvlib_is_trusted_os_auth_supported(nullptr), 3007);

    char* rdn = orvlib_get_user_rdn(s.ld());
    ASSERT_NE(rdn, nullptr);
    EXPECT_STREQ(rdn, "uid");
    orvlib_memfree(rdn);
    EXPECT_EQ(orvlib_get_user_rdn(nullptr), nullptr);
    EXPECT_EQ(ldapErrCode, 3007);

    EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3040);
    EXPECT_EQ(orvlib_unbind(s.ld()), 0);
    EXPECT_EQ(orv_ld, nullptr);
    close_clean(s);
}

TEST(Session, TrustedOsAuthFlagAndSecondSessionReplaceTheFirst) {
    Directory& dir = Environment::directory();
    dir.reseed("osauth");
    int start = _memCnt;
    orvlib_init();
    ORVLibInfo* first = nullptr;
    ORVLibInfo* second = nullptr;
    LDAP* ld1 = orvlib_getsession_context(dir.host().c_str(), dir.port(), &first, 0);
    ASSERT_NE(ld1, nullptr);
    EXPECT_EQ(ORV_OS_AUTH, 1);
    EXPECT_EQ(ORV_OPERATION_MODE, 0);
    EXPECT_EQ(orvlib_is_trusted_os_auth_supported(ld1), 1);
    LDAP* ld2 = orvlib_getsession_context(dir.host().c_str(), dir.port(), &second, 0);
    ASSERT_NE(ld2, nullptr);
    EXPECT_EQ(orv_ld, ld2);
    EXPECT_EQ(orvlib_get_connection_status(ld2), 3040);
    free_info(first);
    free_info(second);
    EXPECT_EQ(orvlib_unbind(ld2), 0);
    orvlib_uninitialize_lib();
    EXPECT_EQ(_memCnt, start);
    dir.reseed("standalone");
}

TEST(Session, ServerVersionCheck) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone");
    set_compat_version(dir, "6.0.0.2");
    {
        Session s(dir.host(), dir.port());
        EXPECT_EQ(s.ld(), nullptr);
        EXPECT_EQ(s.status(), 3035);
        char* text = nullptr;
        orvlib_get_last_error(nullptr, &text);
        EXPECT_STREQ(text, "This version of ORV is not Supported");
        orvlib_memfree(text);
        close_clean(s);
    }
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), dir.port(), 0), 3041);
    for (const char* accepted : {"6.0.0.1", "5.9.9.9"}) {
        set_compat_version(dir, accepted);
        Session s(dir.host(), dir.port());
        EXPECT_NE(s.ld(), nullptr) << accepted << " status " << s.status();
        close_clean(s);
    }
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), dir.port(), 0), 3040);
}

TEST(Session, ValidateServerDetails) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone");
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), dir.port(), 0), 3040);
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), closed_port(), 0), 3041);
    EXPECT_EQ(orvlib_validate_server_details(nullptr, dir.port(), 0), 3041);
    EXPECT_EQ(orvlib_validate_server_details("", -5, 0), 3041);
    // The library's own connections are untouched.
    EXPECT_EQ(orv_ld, nullptr);
}

TEST(Session, BadInputAnswersStatusCodes) {
    Directory& dir = Environment::directory();
    int start = _memCnt;
    orvlib_init();
    ORVLibInfo* info = nullptr;
    EXPECT_EQ(orvlib_getsession_context(nullptr, dir.port(), &info, 0), nullptr);
    EXPECT_EQ(ldapErrCode, 3009);
    EXPECT_EQ(orvlib_getsession_context(dir.host().c_str(), 0, &info, 0), nullptr);
    EXPECT_EQ(orvlib_getsession_context(dir.host().c_str(), 70000, &info, 0), nullptr);
    // Neither plain nor SSL: nothing is opened.
    EXPECT_EQ(orvlib_getsession_context(dir.host().c_str(), dir.port(), &info, 7), nullptr);
    EXPECT_EQ(ldapErrCode, 3007);
    // Nothing listening.
    EXPECT_EQ(orvlib_getsession_context(dir.host().c_str(), closed_port(), &info, 0), nullptr);
    EXPECT_EQ(ldapErrCode, 81);  // server down, as the standard client API numbers it
    EXPECT_EQ(info, nullptr);

    EXPECT_EQ(orvlib_unbind(nullptr), 3007);
    EXPECT_EQ(orvlib_get_connection_status(nullptr), 3007);
    EXPECT_EQ(orvlib_get_orvlibinfo(nullptr, 4000, nullptr), 3009);
    EXPECT_EQ(is_server_supported(nullptr), 3007);
    EXPECT_EQ(populate_partition_info(nullptr), 3007);
    EXPECT_EQ(populate_radius_info(nullptr), 3007);
    EXPECT_NE(attempt_sasl_bind(nullptr), 0);
    EXPECT_EQ(create_ldap_connection(nullptr, 0, nullptr, nullptr), nullptr);
    orvlib_setcertdb_path(nullptr);
    EXPECT_STREQ(_sslPath, "");
    EXPECT_EQ(orvlib_uninitialize_lib(), 0);
    EXPECT_EQ(_memCnt, start);
}

TEST(Session, SessionWithoutPartitionEntryFailsInCorporateMode) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone", {{"operation_mode", "1"}});
    Session s(dir.host(), dir.port());
    EXPECT_EQ(s.ld(), nullptr);
    EXPECT_EQ(s.status(), 3025);
    close_clean(s);
    dir.reseed("standalone");
}

TEST(Session, CorporateSessionOpensTheAdministrativeConnection) {
    Directory corp(Options().with_scenario("corporate-directory").without_plugin());
    Directory& dir = Environment::directory();
    dir.reseed("corporate", {{"corp_host", corp.host()},
                             {"corp_port", std::to_string(corp.port())},
                             {"corp_admin_dn", corp.param("corp_admin_dn")},
                             {"corp_admin_pw", corp.param("corp_admin_pw")},
                             {"corp_suffix", corp.suffix()}});
    {
        Session s(dir.host(), dir.port());
        ASSERT_NE(s.ld(), nullptr) << "status " << s.status();
        EXPECT_EQ(ORV_OPERATION_MODE, 1);
        EXPECT_EQ(isServerInStandaloneMode, 0);
        ASSERT_NE(PARTITION_INFO, nullptr);
        EXPECT_STREQ(PARTITION_INFO->hostname, corp.host().c_str());
        EXPECT_EQ(PARTITION_INFO->port_num, corp.port());
        ASSERT_NE(PARTITION_INFO->admin_pwd, nullptr);
        EXPECT_EQ(std::string(PARTITION_INFO->admin_pwd), corp.param("corp_admin_pw"));
        EXPECT_STREQ(PARTITION_INFO->user_logon_attribute_name, "uid");
        EXPECT_NE(corporate_admin_ld, nullptr);
        ASSERT_NE(CORP_PEOPLE_SEARCH_BASE, nullptr);
        EXPECT_NE(mechanism, -1);
        char* rdn = orvlib_get_user_rdn(s.ld());
        EXPECT_STREQ(rdn, "uid");
        orvlib_memfree(rdn);
        EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3040);
        orvlib_unbind(s.ld());
        EXPECT_EQ(corporate_admin_ld, nullptr);
        close_clean(s);
    }
    dir.reseed("standalone");
}

TEST(Recovery, StatusFollowsTheServerDownAndUpAgain) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone");
    Session s(dir.host(), dir.port());
    ASSERT_NE(s.ld(), nullptr);
    EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3040);

    dir.stop_server();
    EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3041);
    EXPECT_EQ(orv_ld, nullptr);
    EXPECT_EQ(ldapErrCode, 81);  // the re-open found the server down

    dir.start_server();
    EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3040);
    EXPECT_EQ(ldapErrCode, 0);
    ASSERT_NE(orv_ld, nullptr);
    // The re-opened connection works.
    LDAPMessage* res = nullptr;
    std::string base = std::string("cn=Version Number,") + ORV_ROOT_SUFFIX;
    ASSERT_EQ(ldap_search_ext_s(orv_ld, base.c_str(), LDAP_SCOPE_BASE, "(objectclass=*)", nullptr, 0,
                                nullptr, nullptr, nullptr, 0, &res),
              LDAP_SUCCESS);
    EXPECT_EQ(ldap_count_entries(orv_ld, res), 1);
    ldap_msgfree(res);
    close_clean(s);
}

TEST(Ssl, SessionOverSslNeedsATrustedStore) {
    Directory& dir = Environment::directory();
    dir.reseed("standalone");
    ASSERT_GT(dir.tls_port(), 0);
    const std::string good = dir.tls_dir(), untrusted = dir.tls_untrusted_dir();

    for (const std::string& store : {good + "/p12/", good + "/pem/"}) {
        orvlib_setcertdb_path(store.c_str());
        Session s(dir.host(), dir.tls_port(), 1);
        EXPECT_NE(s.ld(), nullptr) << store << " status " << s.status();
        EXPECT_EQ(_orvSSLEnabled, 1);
        if (s.ld()) {
            EXPECT_EQ(orvlib_get_connection_status(s.ld()), 3040);
        }
        close_clean(s);
    }
    // A store whose CA did not sign the server's certificate.
    orvlib_setcertdb_path((untrusted + "/p12/").c_str());
    {
        Session s(dir.host(), dir.tls_port(), 1);
        EXPECT_EQ(s.ld(), nullptr);
        EXPECT_EQ(s.status(), 81);  // the TLS handshake fails: server unreachable
        close_clean(s);
    }
    // No store at all.
    orvlib_setcertdb_path("/nonexistent/");
    {
        Session s(dir.host(), dir.tls_port(), 1);
        EXPECT_EQ(s.ld(), nullptr);
        EXPECT_EQ(s.status(), 82);  // local error: no key database to set up TLS with
        close_clean(s);
    }
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), dir.tls_port(), 1), 3041);
    orvlib_setcertdb_path((good + "/p12/").c_str());
    EXPECT_EQ(orvlib_validate_server_details(dir.host().c_str(), dir.tls_port(), 1), 3040);
    orvlib_setcertdb_path("");
}

TEST(Ssl, KeyDatabaseChecks) {
    Directory& dir = Environment::directory();
    const std::string store = dir.tls_dir() + "/p12/certdb//orvclientkey.kdb";
    int reason = -1;
    EXPECT_EQ(ldap_ssl_client_init(store.c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, &reason), 0);
    EXPECT_EQ(reason, 0);
    EXPECT_NE(ldap_ssl_client_init(store.c_str(), "wrong-password", 0, &reason), 0);
    EXPECT_EQ(reason, ORV_SSL_REASON_BAD_KEYDB);
    EXPECT_NE(ldap_ssl_client_init("/nonexistent/orvclientkey.kdb", "x", 0, &reason), 0);
    EXPECT_EQ(reason, ORV_SSL_REASON_NO_KEYDB);
    EXPECT_NE(ldap_ssl_client_init(nullptr, nullptr, 0, nullptr), 0);
    // A file that is neither PKCS#12 nor PEM.
    const std::string junk = dir.workdir() + "/junk.kdb";
    FILE* f = fopen(junk.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("not a key database\n", f);
    fclose(f);
    EXPECT_NE(ldap_ssl_client_init(junk.c_str(), "x", 0, &reason), 0);
    EXPECT_EQ(reason, ORV_SSL_REASON_BAD_KEYDB);
    EXPECT_EQ(ldap_ssl_init(nullptr, 636, nullptr), nullptr);
    EXPECT_EQ(ldap_get_lderrno(nullptr, nullptr, nullptr), 89);  // parameter error
}
