// orvldaperr.cpp - status texts and message identifiers of orvlib.
//
// The library keeps its last status in ldapErrCode: an LDAP result code
// (0 to 116) or a library code of the 3000 range.  orvlib_get_last_error
// turns a status into a message text and a message identifier, writes one
// log line with the identifier as message id and the severity that the
// identifier's letter gives, and hands the text to the caller on request.

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"

extern "C" {

/* ------------------------------------------------------------------ */
/* Status texts                                                        */
/* ------------------------------------------------------------------ */

const char* ORV_LDAPLIB_SUCCESS_STR = "Success";
const char* ORV_LDAPLIB_CONNECTION_ERROR_STR = "Cannot connect to ORV LDAP Server";
const char* ORV_LDAPLIB_UNKNOWN_OPTION_STR = "Unknown Option";
const char* ORV_LDAPLIB_NOT_SUPPORTED_STR = "Not Supported";
const char* ORV_LDAPLIB_SESSION_INVALID_STR = "Invalid Session";
const char* ORV_LDAPLIB_UNKNOWN_ERROR_STR = "Unknown Error";
const char* ORV_LDAPLIB_INVALID_INPUT_STR = "Invalid input";
const char* ORV_LDAPLIB_CALLBACK_NOT_REGISTERED_STR = "Callback function not registered";
const char* ORV_LDAPLIB_INACTIVE_USER_STR = "Inactive User";
const char* ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET_STR = "Password has been reset";
const char* ORV_LDAPLIB_PASSWORD_HAS_EXPIRED_STR = "Password has expired";
const char* ORV_LDAPLIB_PASSWORD_IN_HISTORY_STR = "password in history";
const char* ORV_LDAPLIB_PASSWORD_ERR_MAX_REPEATED_CHARS_STR =
    "Maximum repeated characters violation in the password";
const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_DIFF_CHARS_STR =
    "Minimum diff characters violation in the password";
const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_NUM_CHARS_STR =
    "Minimum numeric characters violation in the password";
const char* ORV_LDAPLIB_ACCOUNT_LOCKED_STR = "Account is locked";
const char* ORV_LDAPLIB_PASSWORD_TOO_SHORT_STR =
    "Password too short - minimum length criteria violated";
const char* ORV_LDAPLIB_NO_PRIVILEGE_ERROR_STR = "No privilege for the current operation";
const char* ORV_LDAPLIB_INVALID_PARTITION_INFO_STR = "Invalid partition info.";
const char* ORV_LDAPLIB_UNABLE_TO_ADD_SERVER_STR = "Unable to register a Server";
const char* ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY_STR = "Unable to add a Facility";
const char* ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER_STR = "Unable to delete Server";
const char* ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY_STR = "Unable to delete Facility";
const char* ORV_LDAPLIB_SSO_TIMEOUT_ERROR_STR = "ORV SSO time out error";
const char* ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR_STR = "sso authentication error";
const char* ORV_LDAPLIB_UNABLE_TO_CREATE_ZORLA_DB_STR = "Unable to create Zorla database";
const char* ORV_LDAPLIB_UNABLE_TO_CREATE_DATABASE_ROLE_STR = "Unable to create database role ";
const char* ORV_LDAPLIB_ORV_VERSION_NOT_SUPPORTED_STR = "This version of ORV is not Supported";
const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_SYM_CHARS_STR =
    "Minimum symbol characters violation in the password";
const char* ORV_LDAPLIB_PASSWORD_POLICY_NOT_AVAILABLE_STR = "Password Policy details not present";

/* Exported beside the others; no status maps to them. */
const char* ORV_LDAPLIB_OPERATIONS_ERROR_STR = "Operations error";
const char* ORV_LDAPLIB_AUTH_METHOD_NOT_SUPPORTED_STR = "Authentication mode is not supported";
const char* ORV_LDAPLIB_INVALID_CREDENTIALS_STR = "Invalid credentials";
const char* ORV_LDAPLIB_PASSWORD_ERR_MIN_OTHER_CHARS_STR =
    "Minimum non-alpha characters violation in the password";
const char* ORV_LDAPLIB_FILTER_ERROR_STR = "Invalid search filter";
const char* ORV_LDAPLIB_OTHER_STR = "Unknown Error";
const char* ORV_LDAPLIB_NO_SUCH_OBJECT_STR = "Object does not exist in the LDAP Server";

/* Text of the last RADIUS failure (status 3042); set by the RADIUS check. */
char* radius_err_str = nullptr;

/* ------------------------------------------------------------------ */
/* Message identifiers                                                 */
/* ------------------------------------------------------------------ */

/* Indexed by LDAP result code.  Slots 108 to 116 carry the identifier one
 * below their own number; slot 107 is empty. */
const char LDAP_ErrorMessageCodes[117][15] = {
    "ZVKTR0000I", "ZVKTR0001E", "ZVKTR0002E", "ZVKTR0003E", "ZVKTR0004E",  /* 0-4 */
    "ZVKTR0005E", "ZVKTR0006I", "ZVKTR0007E", "ZVKTR0008E", "ZVKTR0009I",  /* 5-9 */
    "ZVKTR0010W", "ZVKTR0011E", "ZVKTR0012E", "ZVKTR0013E", "ZVKTR0014I",  /* 10-14 */
    "",           "ZVKTR0016E", "ZVKTR0017E", "ZVKTR0018E", "ZVKTR0019E",  /* 15-19 */
    "ZVKTR0020E", "ZVKTR0021E", "",           "",           "",            /* 20-24 */
    "",           "",           "",           "",           "",            /* 25-29 */
    "",           "",           "ZVKTR0032E", "ZVKTR0033E", "ZVKTR0034E",  /* 30-34 */
    "ZVKTR0035E", "ZVKTR0036E", "",           "",           "",            /* 35-39 */
    "",           "",           "",           "",           "",            /* 40-44 */
    "",           "",           "",           "ZVKTR0048E", "ZVKTR0049E",  /* 45-49 */
    "ZVKTR0050E", "ZVKTR0051E", "ZVKTR0052E", "ZVKTR0053E", "ZVKTR0054E",  /* 50-54 */
    "",           "",           "",           "",           "",            /* 55-59 */
    "",           "",           "",           "",           "ZVKTR0064E",  /* 60-64 */
    "ZVKTR0065E", "ZVKTR0066E", "ZVKTR0067E", "ZVKTR0068E", "ZVKTR0069E",  /* 65-69 */
    "ZVKTR0070E", "ZVKTR0071W", "",           "",           "",            /* 70-74 */
    "",           "",           "",           "",           "",            /* 75-79 */
    "ZVKTR0080E", "ZVKTR0081E", "ZVKTR0082E", "ZVKTR0083E", "ZVKTR0084E",  /* 80-84 */
    "ZVKTR0085E", "ZVKTR0086E", "ZVKTR0087E", "ZVKTR0088E", "ZVKTR0089E",  /* 85-89 */
    "ZVKTR0090E", "ZVKTR0091E", "ZVKTR0092E", "ZVKTR0093E", "ZVKTR0094E",  /* 90-94 */
    "ZVKTR0095E", "ZVKTR0096E", "ZVKTR0097E", "",           "",            /* 95-99 */
    "",           "",           "",           "",           "",            /* 100-104 */
    "",           "",           "",           "ZVKTR0107E", "ZVKTR0108E",  /* 105-109 */
    "ZVKTR0109E", "ZVKTR0110E", "ZVKTR0111E", "ZVKTR0112E", "ZVKTR0113E",  /* 110-114 */
    "ZVKTR0114E", "ZVKTR0115E",                                            /* 115-116 */
};

/* Indexed by library code minus 3002.  From 3020 on the identifier's digits
 * no longer follow the code. */
const char PEX_ErrorMessageCodes[43][15] = {
    "ZVKTR3002E", "ZVKTR3003I", "ZVKTR3004E", "ZVKTR3005E", "ZVKTR3006E",  /* 3002-3006 */
    "ZVKTR3007E", "ZVKTR3008E", "ZVKTR3009E", "ZVKTR3010E", "ZVKTR3011E",  /* 3007-3011 */
    "ZVKTR3012E", "ZVKTR3013E", "ZVKTR3014E", "ZVKTR3015E", "ZVKTR3016E",  /* 3012-3016 */
    "ZVKTR3017E", "ZVKTR3018E", "",           "ZVKTR3019E", "ZVKTR3020E",  /* 3017-3021 */
    "ZVKTR3021E", "",           "",           "ZVKTR3022E", "ZVKTR3023E",  /* 3022-3026 */
    "ZVKTR3024E", "ZVKTR3025E", "ZVKTR3026E", "ZVKTR3027E", "ZVKTR3028E",  /* 3027-3031 */
    "ZVKTR3029E", "ZVKTR3030E", "ZVKTR3031E", "ZVKTR3032E", "ZVKTR3033E",  /* 3032-3036 */
    "ZVKTR3034E", "ZVKTR3035E", "",           "",           "",            /* 3037-3041 */
    "ZVKTR3036E", "ZVKTR3037E", "ZVKTR3038E",                              /* 3042-3044 */
};

}  // extern "C"

namespace {

constexpr int kFirstLibraryCode = ORV_LDAPLIB_CONNECTION_ERROR;  // 3002
constexpr int kLdapSlots = sizeof LDAP_ErrorMessageCodes / sizeof LDAP_ErrorMessageCodes[0];
constexpr int kPexSlots = sizeof PEX_ErrorMessageCodes / sizeof PEX_ErrorMessageCodes[0];
constexpr std::size_t kIdSize = sizeof LDAP_ErrorMessageCodes[0];  // 15

// The identifier slot of a status, or "" for a status outside both tables.
const char* identifier_of(int code) {
    if (code >= 0 && code < kLdapSlots) {
        return LDAP_ErrorMessageCodes[code];
    }
    if (code >= kFirstLibraryCode && code - kFirstLibraryCode < kPexSlots) {
        return PEX_ErrorMessageCodes[code - kFirstLibraryCode];
    }
    return "";
}

// The message text of a status; may be null (no text known).
const char* text_of(int code) {
    switch (code) {
        case ORV_LDAPLIB_SUCCESS: return ORV_LDAPLIB_SUCCESS_STR;
        case ORV_LDAPLIB_CONNECTION_ERROR: return ORV_LDAPLIB_CONNECTION_ERROR_STR;
        case ORV_LDAPLIB_UNKNOWN_OPTION: return ORV_LDAPLIB_UNKNOWN_OPTION_STR;
        case ORV_LDAPLIB_NOT_SUPPORTED: return ORV_LDAPLIB_NOT_SUPPORTED_STR;
        case ORV_LDAPLIB_SESSION_INVALID: return ORV_LDAPLIB_SESSION_INVALID_STR;
        case ORV_LDAPLIB_UNKNOWN_ERROR: return ORV_LDAPLIB_UNKNOWN_ERROR_STR;
        case ORV_LDAPLIB_INVALID_INPUT: return ORV_LDAPLIB_INVALID_INPUT_STR;
        case ORV_LDAPLIB_CALLBACK_NOT_REGISTERED: return ORV_LDAPLIB_CALLBACK_NOT_REGISTERED_STR;
        case ORV_LDAPLIB_INACTIVE_USER: return ORV_LDAPLIB_INACTIVE_USER_STR;
        case ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET: return ORV_LDAPLIB_PASSWORD_HAS_BEEN_RESET_STR;
        case ORV_LDAPLIB_PASSWORD_HAS_EXPIRED: return ORV_LDAPLIB_PASSWORD_HAS_EXPIRED_STR;
        case ORV_LDAPLIB_PASSWORD_IN_HISTORY: return ORV_LDAPLIB_PASSWORD_IN_HISTORY_STR;
        case ORV_LDAPLIB_PASSWORD_MAX_REPEATED:
            return ORV_LDAPLIB_PASSWORD_ERR_MAX_REPEATED_CHARS_STR;
        case ORV_LDAPLIB_PASSWORD_MIN_DIFF: return ORV_LDAPLIB_PASSWORD_ERR_MIN_DIFF_CHARS_STR;
        case ORV_LDAPLIB_PASSWORD_MIN_NUM: return ORV_LDAPLIB_PASSWORD_ERR_MIN_NUM_CHARS_STR;
        case ORV_LDAPLIB_ACCOUNT_LOCKED: return ORV_LDAPLIB_ACCOUNT_LOCKED_STR;
        case ORV_LDAPLIB_PASSWORD_TOO_SHORT: return ORV_LDAPLIB_PASSWORD_TOO_SHORT_STR;
        case ORV_LDAPLIB_NO_PRIVILEGE: return ORV_LDAPLIB_NO_PRIVILEGE_ERROR_STR;
        case ORV_LDAPLIB_INVALID_PARTITION_INFO: return ORV_LDAPLIB_INVALID_PARTITION_INFO_STR;
        case ORV_LDAPLIB_UNABLE_TO_ADD_SERVER: return ORV_LDAPLIB_UNABLE_TO_ADD_SERVER_STR;
        case ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY: return ORV_LDAPLIB_UNABLE_TO_ADD_FACILITY_STR;
        case ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER: return ORV_LDAPLIB_UNABLE_TO_DELETE_SERVER_STR;
        case ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY:
            return ORV_LDAPLIB_UNABLE_TO_DELETE_FACILITY_STR;
        case ORV_LDAPLIB_SSO_TIMEOUT: return ORV_LDAPLIB_SSO_TIMEOUT_ERROR_STR;
        case ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR: return ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR_STR;
        case ORV_LDAPLIB_UNABLE_TO_CREATE_ZORLA_DB: return ORV_LDAPLIB_UNABLE_TO_CREATE_ZORLA_DB_STR;
        case ORV_LDAPLIB_UNABLE_TO_CREATE_DB_ROLE:
            return ORV_LDAPLIB_UNABLE_TO_CREATE_DATABASE_ROLE_STR;
        case ORV_LDAPLIB_VERSION_NOT_SUPPORTED: return ORV_LDAPLIB_ORV_VERSION_NOT_SUPPORTED_STR;
        case ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS: return ORV_LDAPLIB_PASSWORD_ERR_MIN_NUM_CHARS_STR;
        case ORV_LDAPLIB_PASSWORD_MIN_SYM_CHARS: return ORV_LDAPLIB_PASSWORD_ERR_MIN_SYM_CHARS_STR;
        case ORV_LDAPLIB_PASSWORD_POLICY_NA: return ORV_LDAPLIB_PASSWORD_POLICY_NOT_AVAILABLE_STR;
        case ORV_LDAPLIB_RADIUS_ERROR: return radius_err_str;
        default: return orv::ldap_text(code);
    }
}

}  // namespace

extern "C" {

void ldap_err2Logstring(char* id, int code) {
    ORV_TRACE();
    if (id == nullptr) {
        return;
    }
    std::strncpy(id, identifier_of(code), kIdSize - 1);
    id[kIdSize - 1] = '\0';
}

void ldap_getmessage_loglevel(int* level, const char* id) {
    ORV_TRACE();
    if (level == nullptr) {
        return;
    }
    if (id != nullptr && std::strchr(id, 'E') != nullptr) {
        *level = PEX_FATAL;
    } else if (id != nullptr && std::strchr(id, 'W') != nullptr) {
        *level = PEX_ERROR;
    } else if (id != nullptr && std::strchr(id, 'I') != nullptr) {
        *level = PEX_WARNING;
    } else {
        *level = PEX_INFO;
    }
}

int orvlib_get_last_error(LDAP* /*unused*/, char** message) {
    ORV_TRACE();
    ORV_DEBUG_AT(PEX_TRACE_MAX, "Memory Count", _memCnt);

    int status = ldapErrCode;
    const char* text = text_of(status);
    if (text == nullptr) {
        text = ORV_LDAPLIB_UNKNOWN_ERROR_STR;
        status = ORV_LDAPLIB_UNKNOWN_ERROR;
    }

    // Without a text the line reports 3008 throughout: "Unknown Error" with
    // the identifier of 3008.
    char id[kIdSize];
    ldap_err2Logstring(id, status);
    int severity = PEX_INFO;
    ldap_getmessage_loglevel(&severity, id);
    LogPEXMessage(__FILE__, __LINE__, __func__, id, severity, text, nullptr, nullptr);

    if (message != nullptr) {
        std::size_t length = std::strlen(text) + 1;
        *message = orvlib_str_malloc(static_cast<unsigned int>(length));
        if (*message != nullptr) {
            std::memcpy(*message, text, length);
        }
    }
    return status;
}

}  // extern "C"
