// Status texts, message identifiers and the severity derived from them.
#include <gtest/gtest.h>
#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "orv_ldap.hpp"
#include "orvldap.h"
#include "scratch_log.hpp"

namespace {

// Logging on at level 3 and tracing off: lines of severity 1 to 3 are
// written, severity 4 is not.
::testing::Environment* const log_env = ::testing::AddGlobalTestEnvironment(
    new orvtest::ScratchLog("orverr_test", "EnableLogging=1\nEnableTracing=0\nLogLevel=3\n"));
using orvtest::log_text;

std::string identifier(int code) {
    char id[32];
    std::memset(id, 'x', sizeof id);
    ldap_err2Logstring(id, code);
    EXPECT_LT(std::strlen(id), 15u) << code;
    return id;
}

// Text and return value of orvlib_get_last_error for a stored status.
std::string text_for(int code, int* returned = nullptr) {
    ldapErrCode = code;
    char* text = nullptr;
    int status = orvlib_get_last_error(nullptr, &text);
    if (returned) *returned = status;
    EXPECT_NE(text, nullptr) << code;
    std::string copy = text ? text : "";
    orvlib_memfree(text);
    EXPECT_EQ(ldapErrCode, code) << "the stored status is left alone";
    return copy;
}

TEST(OrvLdapErr, EveryLibraryTextAndIdentifier) {
    struct Row {
        int code;
        const char* text;
        const char* id;
    };
    const Row rows[] = {
        {0, "Success", "ZVKTR0000I"},
        {3002, "Cannot connect to ORV LDAP Server", "ZVKTR3002E"},
        {3005, "Unknown Option", "ZVKTR3005E"},
        {3006, "Not Supported", "ZVKTR3006E"},
        {3007, "Invalid Session", "ZVKTR3007E"},
        {3008, "Unknown Error", "ZVKTR3008E"},
        {3009, "Invalid input", "ZVKTR3009E"},
        {3010, "Callback function not registered", "ZVKTR3010E"},
        {3012, "Inactive User", "ZVKTR3012E"},
        {3013, "Password has been reset", "ZVKTR3013E"},
        {3014, "Password has expired", "ZVKTR3014E"},
        {3015, "password in history", "ZVKTR3015E"},
        {3016, "Maximum repeated characters violation in the password", "ZVKTR3016E"},
        {3017, "Minimum diff characters violation in the password", "ZVKTR3017E"},
        {3018, "Minimum numeric characters violation in the password", "ZVKTR3018E"},
        {3020, "Account is locked", "ZVKTR3019E"},
        {3021, "Password too short - minimum length criteria violated", "ZVKTR3020E"},
        {3022, "No privilege for the current operation", "ZVKTR3021E"},
        {3025, "Invalid partition info.", "ZVKTR3022E"},
        {3026, "Unable to register a Server", "ZVKTR3023E"},
        {3027, "Unable to add a Facility", "ZVKTR3024E"},
        {3028, "Unable to delete Server", "ZVKTR3025E"},
        {3029, "Unable to delete Facility", "ZVKTR3026E"},
        {3030, "ORV SSO time out error", "ZVKTR3027E"},
        {3032, "sso authentication error", "ZVKTR3029E"},
        {3033, "Unable to create Zorla database", "ZVKTR3030E"},
        {3034, "Unable to create database role ", "ZVKTR3031E"},
        {3035, "This version of ORV is not Supported", "ZVKTR3032E"},
        {3036, "Minimum numeric characters violation in the password", "ZVKTR3033E"},
        {3037, "Minimum symbol characters violation in the password", "ZVKTR3034E"},
        {3038, "Password Policy details not present", "ZVKTR3035E"},
    };
    for (const Row& row : rows) {
        int status = -12345;
        EXPECT_EQ(text_for(row.code, &status), row.text) << row.code;
        EXPECT_EQ(status, row.code);
        EXPECT_EQ(identifier(row.code), row.id) << row.code;
    }

    // Codes without a library text take the LDAP client library's text.
    for (int code : {1, 32, 49, 68, 116, 3003, 3004, 3011, 3019, 3023, 3024, 3031, 3039, 3040,
                     3041, 3043, 3044, 3045, 117, 2000, -1, -7}) {
        int status = -12345;
        EXPECT_EQ(text_for(code, &status), ldap_err2string(code)) << code;
        EXPECT_EQ(status, code);
    }

    // Every identifier slot of the LDAP result code table.
    auto empty_ldap_slot = [](int n) {
        return n == 15 || (n >= 22 && n <= 31) || (n >= 37 && n <= 47) ||
               (n >= 55 && n <= 63) || (n >= 72 && n <= 79) || (n >= 98 && n <= 107);
    };
    for (int n = 0; n <= 116; ++n) {
        std::string expected;
        if (!empty_ldap_slot(n)) {
            int shown = n <= 106 ? n : n - 1;  // 108..116 show one below their slot
            char letter = 'E';
            if (n == 0 || n == 6 || n == 9 || n == 14) letter = 'I';
            if (n == 10 || n == 71) letter = 'W';
            char buf[32];
            std::snprintf(buf, sizeof buf, "ZVKTR%04d%c", shown, letter);
            expected = buf;
        }
        EXPECT_EQ(identifier(n), expected) << "LDAP slot " << n;
        EXPECT_EQ(std::string(LDAP_ErrorMessageCodes[n]), expected) << "LDAP slot " << n;
    }

    // Every slot of the library code table: gaps at 3019, 3023-3024 and
    // 3039-3041, and the numbering runs on across the gaps.
    int next = 3004;
    for (int code = 3002; code <= 3044; ++code) {
        std::string expected;
        if (code == 3002) {
            expected = "ZVKTR3002E";
        } else if (code == 3003) {
            expected = "ZVKTR3003I";
        } else if (code != 3019 && code != 3023 && code != 3024 &&
                   !(code >= 3039 && code <= 3041)) {
            expected = "ZVKTR" + std::to_string(next++) + "E";
        }
        EXPECT_EQ(identifier(code), expected) << "library code " << code;
        EXPECT_EQ(std::string(PEX_ErrorMessageCodes[code - 3002]), expected) << code;
    }
    EXPECT_EQ(next, 3039);
}

TEST(OrvLdapErr, CodesOutsideBothTablesHaveNoIdentifier) {
    for (int code : {-1, -17, INT_MIN, 117, 500, 3001, 3045, 5001, INT_MAX}) {
        EXPECT_EQ(identifier(code), "") << code;
    }
    ldap_err2Logstring(nullptr, 0);  // no buffer, nothing written
}

TEST(OrvLdapErr, SeverityFollowsTheIdentifierLetter) {
    struct Row {
        const char* id;
        int level;
    };
    const Row rows[] = {{"ZVKTR3019E", 1}, {"ZVKTR0010W", 2}, {"ZVKTR0071W", 2},
                        {"ZVKTR0000I", 3}, {"ZVKTR3003I", 3}, {"", 4}, {nullptr, 4}};
    for (const Row& row : rows) {
        int level = -1;
        ldap_getmessage_loglevel(&level, row.id);
        EXPECT_EQ(level, row.level) << (row.id ? row.id : "(null)");
    }
    ldap_getmessage_loglevel(nullptr, "ZVKTR0000I");  // no out pointer: no crash
}

TEST(OrvLdapErr, MissingTextFallsBackToUnknownError) {
    const int start = _memCnt;
    radius_err_str = nullptr;
    int status = 0;
    EXPECT_EQ(text_for(3042, &status), "Unknown Error");
    EXPECT_EQ(status, 3008);

    char radius_text[] = "Unable to connect to radius server\n";
    radius_err_str = radius_text;
    EXPECT_EQ(text_for(3042, &status), radius_text);
    EXPECT_EQ(status, 3042);
    EXPECT_EQ(identifier(3042), "ZVKTR3036E");
    radius_err_str = nullptr;

    // Without an out pointer nothing is allocated.
    ldapErrCode = 3020;
    EXPECT_EQ(orvlib_get_last_error(nullptr, nullptr), 3020);
    EXPECT_EQ(_memCnt, start);
}

TEST(OrvLdapErr, LogLineCarriesIdentifierTextAndDerivedSeverity) {
    const std::string text10 = ldap_err2string(10);
    for (int code : {0, 3020, 10, 3019, -1}) {
        ldapErrCode = code;
        orvlib_get_last_error(nullptr, nullptr);
    }
    const std::string log = log_text();
    EXPECT_NE(log.find(" ID: ZVKTR0000I | Success : "), std::string::npos) << log;
    EXPECT_NE(log.find(" ID: ZVKTR3019E | Account is locked : "), std::string::npos);
    EXPECT_NE(log.find(" ID: ZVKTR0010W | " + text10 + " : "), std::string::npos);
    // 3019 and -1 have no identifier, hence severity 4, below this log level.
    EXPECT_EQ(log.find(" ID:  |"), std::string::npos) << log;
}

// libldap's client-side codes reach callers as the standard API numbers
// them, with the standard texts, their message identifiers and an error
// severity in the log.
TEST(OrvLdapErr, ClientSideCodesMapToTheStandardNumbers) {
    struct Row {
        int openldap;
        int status;
    };
    const Row rows[] = {
        {LDAP_SERVER_DOWN, 81},      {LDAP_LOCAL_ERROR, 82},       {LDAP_ENCODING_ERROR, 83},
        {LDAP_DECODING_ERROR, 84},   {LDAP_TIMEOUT, 85},           {LDAP_AUTH_UNKNOWN, 86},
        {LDAP_FILTER_ERROR, 87},     {LDAP_USER_CANCELLED, 88},    {LDAP_PARAM_ERROR, 89},
        {LDAP_NO_MEMORY, 90},        {LDAP_CONNECT_ERROR, 91},     {LDAP_NOT_SUPPORTED, 92},
        {LDAP_CONTROL_NOT_FOUND, 93}, {LDAP_NO_RESULTS_RETURNED, 94},
        {LDAP_MORE_RESULTS_TO_RETURN, 95}, {LDAP_CLIENT_LOOP, 96},
        {LDAP_REFERRAL_LIMIT_EXCEEDED, 97},
    };
    ASSERT_EQ(sizeof rows / sizeof rows[0], 17u);
    const int start = _memCnt;
    for (const Row& row : rows) {
        EXPECT_EQ(orv::status_from_ldap(row.openldap), row.status) << row.openldap;
        int returned = 0;
        const std::string text = text_for(row.status, &returned);
        EXPECT_EQ(returned, row.status);
        EXPECT_EQ(text, ldap_err2string(row.openldap)) << row.status;
        const std::string id = identifier(row.status);
        char expected[16];
        std::snprintf(expected, sizeof expected, "ZVKTR%04dE", row.status);
        EXPECT_EQ(id, expected);
        int level = 0;
        ldap_getmessage_loglevel(&level, id.c_str());
        EXPECT_EQ(level, 1) << row.status;
    }
    EXPECT_EQ(text_for(81), "Can't contact LDAP server");
    EXPECT_EQ(text_for(87), "Bad search filter");
    // Protocol results pass unchanged; negative codes libldap may add later
    // are "other".
    for (int code : {0, 4, 32, 49, 53, 80, 116}) EXPECT_EQ(orv::status_from_ldap(code), code);
    EXPECT_EQ(orv::status_from_ldap(-18), LDAP_OTHER);
    EXPECT_EQ(orv::status_from_ldap(INT_MIN), LDAP_OTHER);
    EXPECT_EQ(_memCnt, start);

    // The log line of a mapped code carries its identifier at error level.
    ldapErrCode = 91;
    orvlib_get_last_error(nullptr, nullptr);
    EXPECT_NE(log_text().find(" ID: ZVKTR0091E | " + std::string(ldap_err2string(LDAP_CONNECT_ERROR))),
              std::string::npos);
}

}  // namespace
