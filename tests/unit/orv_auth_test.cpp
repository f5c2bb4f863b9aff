// Authentication logic that needs no directory server: expiry-day rounding,
// the password policy response parser, the RADIUS request and its refusals
// before the server is asked, and SSO token records.

#include <gtest/gtest.h>


#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orvldap.h"
#include "orvldap_auth.h"
#include "orvplatforms.h"

namespace {

// A BER-encoded password policy response value.  expire/grace < 0: no
// warning; error < 0: no error.
std::string policy_value(int expire, int grace, int error) {
    BerElement* ber = ber_alloc_t(LBER_USE_DER);
    EXPECT_NE(ber, nullptr);
    ber_printf(ber, "{");
    if (expire >= 0) ber_printf(ber, "t{ti}", (ber_tag_t)0xa0, (ber_tag_t)0x80, (ber_int_t)expire);
    if (grace >= 0) ber_printf(ber, "t{ti}", (ber_tag_t)0xa0, (ber_tag_t)0x81, (ber_int_t)grace);
    if (error >= 0) ber_printf(ber, "te", (ber_tag_t)0x81, (ber_int_t)error);
    ber_printf(ber, "N}");
    berval bv{0, nullptr};
    EXPECT_EQ(ber_flatten2(ber, &bv, 0), 0);
    std::string out(bv.bv_val, bv.bv_len);
    ber_free(ber, 1);
    return out;
}

struct Parsed {
    int rc, error, kind, value;
};

// Parses a control list of an unrelated control followed by the given
// policy response value.
Parsed parse(LDAP* ld, std::string value) {
    LDAPControl other{};
    other.ldctl_oid = const_cast<char*>("1.2.840.113556.1.4.319");
    LDAPControl policy{};
    policy.ldctl_oid = const_cast<char*>(LDAP_CONTROL_PASSWORDPOLICYRESPONSE);
    policy.ldctl_value.bv_val = value.empty() ? nullptr : &value[0];
    policy.ldctl_value.bv_len = value.size();
    LDAPControl* list[] = {&other, &policy, nullptr};
    Parsed p{-99, -99, -99, -99};
    p.rc = ldap_parse_pwdpolicy_response(ld, list, &p.error, &p.kind, &p.value);
    return p;
}

// A handle that is never connected (libldap opens no socket until used).
struct Handle {
    LDAP* ld = nullptr;
    explicit Handle(int port = 389) {
        ld = ldap_init("127.0.0.1", port);
        int v3 = LDAP_VERSION3;
        if (ld) ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    }
    ~Handle() {
        if (ld) ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
};

// Entry with one attribute, built through the library allocator.
ORVLibEntry* entry_with(int id, const char* name, std::vector<const char*> values) {
    auto* entry = reinterpret_cast<ORVLibEntry*>(orvlib_str_malloc(sizeof(ORVLibEntry)));
    entry->orvlibEntryAttrData =
        reinterpret_cast<ORVLibAttribute**>(orvlib_arr_malloc(2));
    auto* attr = reinterpret_cast<ORVLibAttribute*>(orvlib_str_malloc(sizeof(ORVLibAttribute)));
    attr->attrId = id;
    attr->attrName = _orvlib_dupString(name);
    attr->attrVals = orvlib_arr_malloc(static_cast<unsigned>(values.size() + 1));
    for (size_t i = 0; i < values.size(); ++i) attr->attrVals[i] = _orvlib_dupString(values[i]);
    attr->attrVals[values.size()] = nullptr;
    entry->orvlibEntryAttrData[0] = attr;
    entry->orvlibEntryAttrData[1] = nullptr;
    return entry;
}

// Keeps the session globals that a test changes and puts them back.
class SessionGlobals : public ::testing::Test {
protected:
    void SetUp() override {
        memStart_ = _memCnt;
        savedRadiusFlag_ = ORVLIB_IS_RADIUS_CONFIGURED;
        savedRadius_ = RADIUS_INFO;
        savedEntry_ = AUTH_USER_ORVLIBENTRY;
        savedLd_ = orv_ld;
        savedExpiry_ = password_expiry_time;
        AUTH_USER_ORVLIBENTRY = nullptr;
    }
    void TearDown() override {
        orvlib_orvlibentry_free(AUTH_USER_ORVLIBENTRY);
        ORVLIB_IS_RADIUS_CONFIGURED = savedRadiusFlag_;
        RADIUS_INFO = savedRadius_;
        AUTH_USER_ORVLIBENTRY = savedEntry_;
        orv_ld = savedLd_;
        password_expiry_time = savedExpiry_;
        EXPECT_EQ(_memCnt, memStart_) << "allocations outstanding";
    }
    int memStart_ = 0;
    int savedRadiusFlag_ = 0;
    radius_info* savedRadius_ = nullptr;
    ORVLibEntry* savedEntry_ = nullptr;
    LDAP* savedLd_ = nullptr;
    int savedExpiry_ = 0;
};

std::string last_error_text() {
    char* text = nullptr;
    orvlib_get_last_error(nullptr, &text);
    std::string out = text ? text : "";
    orvlib_memfree(text);
    return out;
}

}  // namespace

TEST(PasswordExpiryDays, PositiveSecondsRoundUpToWholeDays) {
    EXPECT_EQ(orv::password_expiry_days(86400 + 1), 2);
    EXPECT_EQ(orv::password_expiry_days(86400), 1);
    EXPECT_EQ(orv::password_expiry_days(86399), 1);
    EXPECT_EQ(orv::password_expiry_days(1), 1);
    EXPECT_EQ(orv::password_expiry_days(0), 0);
    EXPECT_EQ(orv::password_expiry_days(5 * 86400 - 30), 5);
    EXPECT_EQ(orv::password_expiry_days(INT_MAX), INT_MAX / 86400 + 1);
    // Negative numbers are truncated toward zero, never rounded.
    EXPECT_EQ(orv::password_expiry_days(-1), 0);
    EXPECT_EQ(orv::password_expiry_days(-86401), -1);
}

TEST_F(SessionGlobals, ExpiryTimeIsTheStoredWarningInDays) {
    password_expiry_time = 86401;
    ldapErrCode = 0;
    EXPECT_EQ(orvlib_get_password_expiry_time(nullptr), -1);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    Handle h;
    EXPECT_EQ(orvlib_get_password_expiry_time(h.ld), 2);
    password_expiry_time = 0;
    EXPECT_EQ(orvlib_get_password_expiry_time(h.ld), 0);
}

TEST(PasswordPolicyResponse, ErrorsAndWarningsInClientNumbering) {
    Handle h;
    ASSERT_NE(h.ld, nullptr);
    Parsed p = parse(h.ld, policy_value(-1, -1, PP_passwordExpired));
    EXPECT_EQ(p.rc, LDAP_SUCCESS);
    EXPECT_EQ(p.error, ORV_PWDPOLICY_PASSWORD_EXPIRED);
    EXPECT_EQ(p.error, 3);
    EXPECT_EQ(p.kind, 0);
    EXPECT_EQ(p.value, 0);

    p = parse(h.ld, policy_value(-1, -1, PP_accountLocked));
    EXPECT_EQ(p.error, 4);
    p = parse(h.ld, policy_value(-1, -1, PP_passwordInHistory));
    EXPECT_EQ(p.error, ORV_PWDPOLICY_IN_HISTORY);

    p = parse(h.ld, policy_value(432000, -1, -1));
    EXPECT_EQ(p.rc, LDAP_SUCCESS);
    EXPECT_EQ(p.error, 0);
    EXPECT_EQ(p.kind, 1);
    EXPECT_EQ(p.value, 432000);

    p = parse(h.ld, policy_value(-1, 2, -1));
    EXPECT_EQ(p.kind, 2);
    EXPECT_EQ(p.value, 2);

    // A warning and an error together (grace login on an expired password).
    p = parse(h.ld, policy_value(-1, 1, PP_changeAfterReset));
    EXPECT_EQ(p.error, ORV_PWDPOLICY_CHANGE_AFTER_RESET);
    EXPECT_EQ(p.kind, ORV_PWDPOLICY_WARNING_GRACE);
    EXPECT_EQ(p.value, 1);

    // An empty response: found, nothing to report.
    p = parse(h.ld, policy_value(-1, -1, -1));
    EXPECT_EQ(p.rc, LDAP_SUCCESS);
    EXPECT_EQ(p.error + p.kind + p.value, 0);
}

TEST(PasswordPolicyResponse, MissingMalformedAndNullInputs) {
    Handle h;
    LDAPControl other{};
    other.ldctl_oid = const_cast<char*>("1.2.3.4.5");
    LDAPControl* list[] = {&other, nullptr};
    int error = -1, kind = -1, value = -1;
    EXPECT_EQ(ldap_parse_pwdpolicy_response(h.ld, list, &error, &kind, &value), 93);  // control not found
    EXPECT_EQ(error, 0);
    EXPECT_EQ(kind, 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(ldap_parse_pwdpolicy_response(h.ld, nullptr, &error, &kind, &value), 93);  // control not found

    Parsed p = parse(h.ld, std::string("\x04\x02zz", 4));  // an octet string, not a sequence
    EXPECT_EQ(p.rc, 84);  // decoding error
    EXPECT_EQ(p.error, 0);

    // No handle: refused instead of reaching libldap's assertions.
    std::string v = policy_value(-1, -1, PP_accountLocked);
    LDAPControl policy{};
    policy.ldctl_oid = const_cast<char*>(LDAP_CONTROL_PASSWORDPOLICYRESPONSE);
    policy.ldctl_value.bv_val = &v[0];
    policy.ldctl_value.bv_len = v.size();
    LDAPControl* plist[] = {&policy, nullptr};
    EXPECT_EQ(ldap_parse_pwdpolicy_response(nullptr, plist, &error, &kind, &value), 89);  // parameter error
    EXPECT_EQ(error, 0);
    // Outputs are optional.
    EXPECT_EQ(ldap_parse_pwdpolicy_response(h.ld, plist, nullptr, nullptr, nullptr), LDAP_SUCCESS);
}

TEST(RadiusRequest, FieldsJoinedUnescapedWithPortInNineCharacters) {
    EXPECT_EQ(orv::radius_request_value("127.0.0.1", 1812, "s:e", "bob", "p:w"),
              "127.0.0.1:1812:s:e:bob:p:w");
    EXPECT_EQ(orv::radius_request_value("h", -2147483647, "s", "u", "p"), "h:-21474836:s:u:p");
    EXPECT_EQ(orv::radius_request_value(nullptr, 0, nullptr, "u", "p"), ":0::u:p");
}

TEST_F(SessionGlobals, RadiusRefusalsBeforeTheServerIsAsked) {
    Handle h;
    EXPECT_EQ(orvlib_authenticate_radius_user(nullptr, "bob", "x"), ORV_LDAPLIB_SESSION_INVALID);

    // Not configured on the server: answered, not stored.
    ORVLIB_IS_RADIUS_CONFIGURED = 0;
    ldapErrCode = 12345;
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, "bob", "x"), ORV_LDAPLIB_RADIUS_NOT_CONFIGURED);
    EXPECT_EQ(ldapErrCode, 12345);

    ORVLIB_IS_RADIUS_CONFIGURED = 1;
    RADIUS_INFO = nullptr;
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, "bob", "x"), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(radius_err_str, "Radius server not configured\n");
    EXPECT_EQ(last_error_text(), "Radius server not configured\n");

    radius_info info{nullptr, 1812, const_cast<char*>("secret")};
    RADIUS_INFO = &info;
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, "bob", "x"), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(radius_err_str, "Radius server not configured\n");

    info.radius_hostname = const_cast<char*>("127.0.0.1");
    // No user name given and none in the user's entry.
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, nullptr, "x"), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(radius_err_str, "Radius user name not present\n");
    AUTH_USER_ORVLIBENTRY = entry_with(64, "orvRadius2FactorAuthenticationRequired", {"1"});
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, nullptr, "x"), ORV_LDAPLIB_RADIUS_ERROR);
    EXPECT_STREQ(radius_err_str, "Radius user name not present\n");

    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, "bob", ""), ORV_LDAPLIB_INVALID_INPUT);
    EXPECT_EQ(orvlib_authenticate_radius_user(h.ld, "bob", nullptr), ORV_LDAPLIB_INVALID_INPUT);
}

TEST(SsoTokenRecord, KeyMustBeExactAndValuePresent) {
    const int start = _memCnt;
    ORVSSOToken* token = orvlib_create_sso_token("ORV_SSO_TOKEN", "abc.def");
    ASSERT_NE(token, nullptr);
    EXPECT_STREQ(token->token_key, "ORV_SSO_TOKEN");
    EXPECT_STREQ(token->token_value, "abc.def");
    orvlib_orvssotoken_free(token);
    orvlib_orvssotoken_free(nullptr);
    EXPECT_EQ(_memCnt, start);

    for (auto [key, value] : std::vector<std::pair<const char*, const char*>>{
             {"orv_sso_token", "v"}, {"ORV_SSO_TOKEN ", "v"}, {nullptr, "v"}, {"ORV_SSO_TOKEN", nullptr}}) {
        ldapErrCode = 0;
        EXPECT_EQ(orvlib_create_sso_token(key, value), nullptr) << (key ? key : "(null)");
        EXPECT_EQ(ldapErrCode, 3031);
    }
    EXPECT_EQ(_memCnt, start);

    EXPECT_EQ(orvlib_get_sso_navigation_token(nullptr, "uid=a"), nullptr);
    EXPECT_EQ(ldapErrCode, ORV_LDAPLIB_SESSION_INVALID);
    EXPECT_EQ(orvlib_validate_sso_token(nullptr, nullptr, nullptr),
              static_cast<unsigned long>(ORV_LDAPLIB_SESSION_INVALID));
}

TEST(PasswordRefusal, ServerWordsDecideTheStatus) {
    // 389 DS's length rule and the dictionary check both mean "too short".
    EXPECT_EQ(orv::password_refusal_status(
                  19, "invalid password syntax - password must be at least 6 characters long"),
              ORV_LDAPLIB_PASSWORD_TOO_SHORT);
    EXPECT_EQ(orv::password_refusal_status(19, "Password failed dictionary check: it is too short"),
              ORV_LDAPLIB_PASSWORD_TOO_SHORT);
    EXPECT_EQ(orv::password_refusal_status(19, "password in history"), ORV_LDAPLIB_PASSWORD_IN_HISTORY);
    EXPECT_EQ(orv::password_refusal_status(19, "too SHORT and in HISTORY"), ORV_LDAPLIB_PASSWORD_IN_HISTORY);
    // Any other refusal is the server's own code, never success.
    EXPECT_EQ(orv::password_refusal_status(
                  19, "invalid password syntax - password must contain at least 3 digit characters"),
              19);
    EXPECT_EQ(orv::password_refusal_status(19, ""), 19);
    EXPECT_EQ(orv::password_refusal_status(50, "too short"), 50);
    EXPECT_EQ(orv::password_refusal_status(81, ""), 81);
}

TEST(Secrets, WipedBeforeTheyAreReleased) {
    char buffer[] = "Secret123!";
    orv::wipe(buffer, sizeof buffer - 1);
    for (char c : buffer) EXPECT_EQ(c, '\0');
    std::string text = "Secret123!";
    orv::wipe(text);
    EXPECT_TRUE(text.empty());

    // Released through the library allocator: the count comes back.
    const int start = _memCnt;
    orv::free_secret(_orvlib_dupString("Secret123!"));
    orv::free_secret(nullptr);
    EXPECT_EQ(_memCnt, start);
}

TEST_F(SessionGlobals, ReconnectBindNeedsStoredCredentials) {
    // Without a DN and a password the bind would be anonymous or
    // unauthenticated and prove nothing: refused without a bind.
    Handle h(1);
    char* savedId = _user_id;
    char* savedPw = _pwd;
    _user_id = nullptr;
    _pwd = nullptr;
    EXPECT_EQ(attempt_simple_bind(h.ld), LDAP_INVALID_CREDENTIALS);
    _user_id = const_cast<char*>("uid=alice,ou=People,dc=orv,dc=test");
    _pwd = const_cast<char*>("");
    EXPECT_EQ(attempt_simple_bind(h.ld), LDAP_INVALID_CREDENTIALS);
    // With both, the bind is made: here nobody listens on port 1.
    _pwd = const_cast<char*>("Secret123!");
    EXPECT_EQ(attempt_simple_bind(h.ld), 81);
    _user_id = savedId;
    _pwd = savedPw;
}
