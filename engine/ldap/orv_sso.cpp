// orv_sso.cpp - single sign-on between applications that use the library.
//
// An application holding an authenticated user asks the directory server
// for a navigation token naming that user (extended operation
// 1.3.6.1.4.1.47391.0.2000.1, request value the DN) and hands it on; the
// receiving application wraps it in an ORVSSOToken and has the server
// validate it (1.3.6.1.4.1.47391.0.2000.2, request value the token, response
// the DN), receiving the user's entry.  The token is opaque here: its format
// and lifetime are the server's.

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_search_internal.hpp"
#include "orv_ldap.hpp"
#include "orvldap.h"

namespace {

const char kIssueOid[] = "1.3.6.1.4.1.47391.0.2000.1";
const char kValidateOid[] = "1.3.6.1.4.1.47391.0.2000.2";
const char kTokenKey[] = "ORV_SSO_TOKEN";

// Status of a token record with a wrong or missing key.
constexpr int kInvalidTokenKey = 3031;
// Status of a token asked for a DN that the people search does not find.
constexpr int kUnknownUser = 34;
// Result the server gives a token that has run out.
constexpr int kServerTokenExpired = 3000;

}  // namespace

extern "C" {

char** orvlib_get_sso_navigation_token(LDAP* ld, const char* user_dn) {
    ORV_TRACE();
    if (!ld || !orv_ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    ORV_DEBUG("User DN: ", user_dn ? user_dn : "");
    // Only a user the directory knows gets a token.  The people search
    // reports "nothing found" as 32; that, like an empty result, is an
    // unknown user.  Any other failure is the search's.  The look-up is a
    // search of its own: a caller iterating a search keeps its place.
    int rc = LDAP_SUCCESS;
    bool found = false;
    {
        orv::NestedSearch lookup;
        LDAPMessage* res = nullptr;
        rc = orvlib_search_ext_s(ld, user_dn, ORV_SEARCH_PEOPLE, &res);
        found = rc == LDAP_SUCCESS && res && orv_ld && ldap_count_entries(orv_ld, res) > 0;
        orvlib_orvmessage_free(res);
    }
    if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT) {
        orv::report(rc);
        return nullptr;
    }
    if (!found) {
        orv::report(kUnknownUser);
        return nullptr;
    }

    orv::ExtendedResponse token;
    rc = orv::extended_operation(orv_ld, kIssueOid, user_dn, &token);
    if (rc != LDAP_SUCCESS) {
        orv::report(rc);
        return nullptr;
    }
    if (!token.hasValue) {
        orv::report(LDAP_SUCCESS);
        return nullptr;
    }
    char** result = orvlib_arr_malloc(2);
    if (!result) return nullptr;
    result[0] = _orvlib_dupString(token.value.c_str());
    result[1] = nullptr;
    orv::report(LDAP_SUCCESS);
    return result;
}

unsigned long orvlib_validate_sso_token(LDAP* ld, const ORVSSOToken** structSSOToken,
                                        ORVLibEntry** libentry) {
    ORV_TRACE();
    if (!ld || !orv_ld) return static_cast<unsigned long>(orv::report(ORV_LDAPLIB_SESSION_INVALID));
    // The argument is the record itself, passed through the declared type.
    const auto* record = reinterpret_cast<const ORVSSOToken*>(structSSOToken);
    if (!record || !libentry) return static_cast<unsigned long>(orv::report(ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR));
    *libentry = nullptr;
    // A wrong key is noted, but the server's answer decides.
    if (!record->token_key || std::strcmp(record->token_key, kTokenKey) != 0) ldapErrCode = kInvalidTokenKey;

    orv::ExtendedResponse answer;
    int rc = orv::extended_operation(orv_ld, kValidateOid, record->token_value ? record->token_value : "",
                                     &answer);
    const std::string& dn = answer.value;
    if (rc != LDAP_SUCCESS || !answer.hasValue) {
        int status = rc == kServerTokenExpired ? ORV_LDAPLIB_SSO_TIMEOUT : ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR;
        return static_cast<unsigned long>(orv::report(status));
    }
    ORV_DEBUG("Token user DN: ", dn);

    {
        orv::NestedSearch lookup;
        LDAPMessage* res = nullptr;
        rc = orvlib_search_ext_s(ld, dn.c_str(), ORV_SEARCH_PEOPLE, &res);
        if (rc == LDAP_SUCCESS && res) orvlib_first_entry(ld, libentry, res);
        orvlib_orvmessage_free(res);
    }
    return static_cast<unsigned long>(orv::report(rc));
}

ORVSSOToken* orvlib_create_sso_token(const char* token_name, const char* token_value) {
    ORV_TRACE();
    if (!token_name || std::strcmp(token_name, kTokenKey) != 0 || !token_value) {
        orv::report(kInvalidTokenKey);
        return nullptr;
    }
    auto* token = reinterpret_cast<ORVSSOToken*>(orvlib_str_malloc(sizeof(ORVSSOToken)));
    if (!token) return nullptr;
    token->token_key = _orvlib_dupString(token_name);
    token->token_value = _orvlib_dupString(token_value);
    return token;
}

void orvlib_orvssotoken_free(ORVSSOToken* ssoToken) {
    ORV_TRACE();
    if (!ssoToken) return;
    orvlib_memfree(ssoToken->token_key);
    orvlib_memfree(ssoToken->token_value);
    orvlib_memfree(ssoToken);
}

}  // extern "C"
