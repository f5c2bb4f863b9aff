// ORV server plugin for 389 Directory Server.
//
// One "extendedop" plugin entry loads this library. It answers the ORV
// extended operations and registers, from its init function, a pre-operation
// plugin that handles the ORV SASL mechanism:
//
//   SASL "orv_sasl_V41"          bind as an existing entry with the fixed
//                                 client credential
//   1.2.3.4                       "login:password" checked with PAM
//   1.3.6.1.4.1.47391.0.1000.1    "host:port:secret:user:password" checked
//                                 with a RADIUS PAP Access-Request
//   1.3.6.1.4.1.47391.0.2000.1    DN -> navigation token
//   1.3.6.1.4.1.47391.0.2000.2    navigation token -> DN
//
// Settings come from the plugin's own entry under cn=plugins,cn=config and
// are re-read whenever that entry is modified.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <shared_mutex>
#include <string>

#include <openssl/crypto.h>
#include <security/pam_appl.h>

#include <slapi-plugin.h>

#include "orv_pam.hpp"
#include "orv_radius.hpp"
#include "orv_token.hpp"

#define ORV_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

ORV_PLUGIN_EXPORT int orv_plugin_init(Slapi_PBlock* pb);
ORV_PLUGIN_EXPORT int orv_prebind_init(Slapi_PBlock* pb);

namespace {

// ------------------------------------------------------------------ names

char kSubsystem[] = "orv-plugin";
char kVendor[] = "ORV";
char kVersion[] = "6.0.0.1";
char kExtopDescription[] = "ORV operating-system, RADIUS and navigation-token operations";
char kPrebindDescription[] = "ORV SASL mechanism orv_sasl_V41";
char kPrebindId[] = "orv-sasl-bind";
char kMechanism[] = "orv_sasl_V41";
char kAuthMethod[] = SLAPD_AUTH_SASL "orv_sasl_V41";

// The fixed credential that ORV clients present with the mechanism.
constexpr char kSaslCredential[] = "qwmzt";
constexpr std::size_t kSaslCredentialLen = sizeof kSaslCredential - 1;

char kOidOsAuth[] = "1.2.3.4";
char kOidRadius[] = "1.3.6.1.4.1.47391.0.1000.1";
char kOidTokenIssue[] = "1.3.6.1.4.1.47391.0.2000.1";
char kOidTokenValidate[] = "1.3.6.1.4.1.47391.0.2000.2";

char kNameOsAuth[] = "ORV operating-system authentication";
char kNameRadius[] = "ORV RADIUS authentication";
char kNameTokenIssue[] = "ORV navigation token request";
char kNameTokenValidate[] = "ORV navigation token validation";

char* g_oid_list[] = {kOidOsAuth, kOidRadius, kOidTokenIssue, kOidTokenValidate, nullptr};
char* g_name_list[] = {kNameOsAuth, kNameRadius, kNameTokenIssue, kNameTokenValidate, nullptr};

Slapi_PluginDesc g_extop_desc = {kSubsystem, kVendor, kVersion, kExtopDescription};
Slapi_PluginDesc g_prebind_desc = {kPrebindId, kVendor, kVersion, kPrebindDescription};

// Result code of a validation whose token has run out; ORV clients test for it.
constexpr int kTokenExpiredResult = 3000;

// Configuration attributes of the plugin entry.
constexpr char kAttrTokenSecret[] = "orvTokenSecret";
constexpr char kAttrTokenLifetime[] = "orvTokenLifetime";
constexpr char kAttrPamService[] = "orvPamService";
constexpr char kAttrRadiusTimeout[] = "orvRadiusTimeout";
constexpr char kAttrRadiusAttempts[] = "orvRadiusAttempts";

// ------------------------------------------------------------------ logging

void log_message(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void log_message(int level, const char* fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    char format[] = "%s\n";
    slapi_log_error(level, kSubsystem, format, text);
}

// ------------------------------------------------------------------ settings

struct Settings {
    std::string token_secret;
    long token_lifetime = 300;     // seconds
    std::string pam_service = "orv";
    long radius_timeout_ms = 2000; // wait per attempt
    long radius_attempts = 3;
};

std::shared_mutex g_settings_mutex;
Settings g_settings;
void* g_identity = nullptr;
std::string g_plugin_dn;

Settings current_settings() {
    std::shared_lock<std::shared_mutex> lock(g_settings_mutex);
    return g_settings;
}

// Copy of the first value of an attribute; absent gives false.
bool entry_value(Slapi_Entry* entry, const char* attr, std::string* out) {
    char* value = slapi_entry_attr_get_charptr(entry, attr);
    if (value == nullptr) return false;
    out->assign(value);
    slapi_ch_free_string(&value);
    return true;
}

bool parse_number(const std::string& text, long low, long high, long* out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 9) {
        return false;
    }
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (value < low || value > high) return false;
    *out = value;
    return true;
}

// PAM service names are file names in the PAM configuration directory.
bool valid_service_name(const std::string& name) {
    return !name.empty() && name[0] != '.' &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                  "0123456789._-") == std::string::npos;
}

// Reads the settings of the plugin entry; absent attributes keep their defaults.
bool read_settings(Slapi_Entry* entry, Settings* out, std::string* error) {
    Settings s;
    std::string text;
    entry_value(entry, kAttrTokenSecret, &s.token_secret);
    if (entry_value(entry, kAttrTokenLifetime, &text) &&
        !parse_number(text, 1, 31536000, &s.token_lifetime)) {
        *error = std::string(kAttrTokenLifetime) + " must be a number of seconds from 1 to 31536000";
        return false;
    }
    if (entry_value(entry, kAttrPamService, &text)) {
        if (!valid_service_name(text)) {
            *error = std::string(kAttrPamService) + " must be a PAM service name";
            return false;
        }
        s.pam_service = text;
    }
    if (entry_value(entry, kAttrRadiusTimeout, &text) &&
        !parse_number(text, 1, 60000, &s.radius_timeout_ms)) {
        *error = std::string(kAttrRadiusTimeout) + " must be milliseconds from 1 to 60000";
        return false;
    }
    if (entry_value(entry, kAttrRadiusAttempts, &text) &&
        !parse_number(text, 1, 10, &s.radius_attempts)) {
        *error = std::string(kAttrRadiusAttempts) + " must be a number from 1 to 10";
        return false;
    }
    *out = std::move(s);
    return true;
}

void apply_settings(Settings settings) {
    if (settings.token_secret.empty()) {
        log_message(SLAPI_LOG_WARNING, "%s is not set: navigation tokens are refused",
                    kAttrTokenSecret);
    } else if (settings.token_secret.size() < 16) {
        log_message(SLAPI_LOG_WARNING, "%s is shorter than 16 characters", kAttrTokenSecret);
    }
    std::unique_lock<std::shared_mutex> lock(g_settings_mutex);
    g_settings = std::move(settings);
}

void copy_text(char* returntext, const std::string& text) {
    if (returntext != nullptr) {
        std::snprintf(returntext, SLAPI_DSE_RETURNTEXT_SIZE, "%s", text.c_str());
    }
}

// Refuses a modification of the plugin entry that would leave bad settings.
int check_modified_entry(Slapi_PBlock*, Slapi_Entry*, Slapi_Entry* after, int* returncode,
                         char* returntext, void*) {
    Settings unused;
    std::string error;
    try {
        if (!read_settings(after, &unused, &error)) {
            *returncode = LDAP_UNWILLING_TO_PERFORM;
            copy_text(returntext, error);
            return SLAPI_DSE_CALLBACK_ERROR;
        }
    } catch (const std::exception&) {
        *returncode = LDAP_OPERATIONS_ERROR;
        return SLAPI_DSE_CALLBACK_ERROR;
    }
    return SLAPI_DSE_CALLBACK_OK;
}

int apply_modified_entry(Slapi_PBlock*, Slapi_Entry*, Slapi_Entry* after, int* returncode,
                         char*, void*) {
    Settings settings;
    std::string error;
    try {
        if (read_settings(after, &settings, &error)) {
            apply_settings(std::move(settings));
            log_message(SLAPI_LOG_PLUGIN, "settings re-read from %s", g_plugin_dn.c_str());
        }
    } catch (const std::exception&) {
        log_message(SLAPI_LOG_ERR, "could not re-read the settings");
    }
    *returncode = LDAP_SUCCESS;
    return SLAPI_DSE_CALLBACK_OK;
}

char kAnyEntry[] = "(objectclass=*)";

// ------------------------------------------------------------------ helpers

struct Reply {
    int code = LDAP_SUCCESS;
    std::string text;
    bool has_value = false;
    std::string value;
};

Reply failure(int code, std::string text) {
    Reply r;
    r.code = code;
    r.text = std::move(text);
    return r;
}

Reply success(std::string value) {
    Reply r;
    r.has_value = true;
    r.value = std::move(value);
    return r;
}

// Owns an entry found by an internal search.
struct EntryHolder {
    Slapi_Entry* entry = nullptr;
    ~EntryHolder() {
        if (entry) slapi_entry_free(entry);
    }
};

// Finds an entry of a user database (not cn=config, cn=schema, cn=monitor).
bool find_user_entry(const std::string& dn, EntryHolder* holder) {
    if (dn.empty()) return false;
    Slapi_DN* sdn = slapi_sdn_new_dn_byval(dn.c_str());
    bool found = false;
    Slapi_Backend* be = slapi_be_select(sdn);
    if (be != nullptr && !slapi_be_private(be)) {
        char* attrs[] = {const_cast<char*>("objectClass"), nullptr};
        found = slapi_search_internal_get_entry(sdn, attrs, &holder->entry, g_identity) ==
                    LDAP_SUCCESS &&
                holder->entry != nullptr;
    }
    slapi_sdn_free(&sdn);
    return found;
}

std::string connection_dn(Slapi_PBlock* pb) {
    char* dn = nullptr;
    std::string result;
    if (slapi_pblock_get(pb, SLAPI_CONN_DN, &dn) == 0 && dn != nullptr) {
        result = dn;
        slapi_ch_free_string(&dn);
    }
    return result;
}

// Request values are texts; an embedded NUL would cut them short further down.
bool has_nul(const std::string& value) {
    return value.find('\0') != std::string::npos;
}

void send_result(Slapi_PBlock* pb, int code, const std::string& text) {
    slapi_send_ldap_result(pb, code, nullptr,
                           text.empty() ? nullptr : const_cast<char*>(text.c_str()), 0, nullptr);
}

// ------------------------------------------------------------------ operations

Reply os_authenticate(const Settings& settings, const std::string& value) {
    const std::size_t colon = value.find(':');
    if (colon == std::string::npos || colon == 0 || has_nul(value)) {
        return failure(LDAP_PROTOCOL_ERROR, "expected login:password");
    }
    const std::string login = value.substr(0, colon);
    const std::string password = value.substr(colon + 1);
    std::string why;
    const int status = orvsrv::pam_check_password(settings.pam_service, login, password, &why);
    if (status == PAM_SUCCESS) {
        log_message(SLAPI_LOG_PLUGIN, "PAM service %s accepted %s", settings.pam_service.c_str(),
                    login.c_str());
        return success(std::string());
    }
    log_message(SLAPI_LOG_PLUGIN, "PAM service %s refused %s: %s", settings.pam_service.c_str(),
                login.c_str(), why.c_str());
    switch (status) {
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_CRED_INSUFFICIENT:
    case PAM_MAXTRIES:
    case PAM_PERM_DENIED:
        return failure(LDAP_INVALID_CREDENTIALS, "operating-system authentication failed");
    default:
        // The PAM stack itself is broken (missing service, module error).
        log_message(SLAPI_LOG_ERR, "PAM service %s failed: %s", settings.pam_service.c_str(),
                    why.c_str());
        return failure(LDAP_OTHER, "operating-system authentication unavailable: " + why);
    }
}

Reply radius_authenticate(const Settings& settings, const std::string& value) {
    orvsrv::RadiusRequest request;
    std::string why;
    // Result 2 means "rejected by RADIUS" here, so a malformed request gets 53.
    if (has_nul(value)) return failure(LDAP_UNWILLING_TO_PERFORM, "NUL byte in the request");
    if (!orvsrv::radius_parse_request(value, &request, &why) ||
        !orvsrv::radius_request_fits(request, &why)) {
        return failure(LDAP_UNWILLING_TO_PERFORM, why);
    }
    const orvsrv::RadiusOutcome outcome = orvsrv::radius_authenticate(
        request, static_cast<int>(settings.radius_timeout_ms),
        static_cast<int>(settings.radius_attempts), &why);
    log_message(SLAPI_LOG_PLUGIN, "RADIUS %s:%u for %s: %d %s", request.host.c_str(),
                static_cast<unsigned>(request.port), request.user.c_str(), outcome, why.c_str());
    if (outcome == orvsrv::radius_accept) return success(std::string());
    return failure(outcome, why);
}

Reply issue_token(const Settings& settings, const std::string& value,
                  const std::string& requestor) {
    if (settings.token_secret.empty()) {
        return failure(LDAP_UNWILLING_TO_PERFORM, "navigation tokens are not configured");
    }
    if (value.empty() || has_nul(value)) return failure(LDAP_PROTOCOL_ERROR, "expected a DN");
    EntryHolder holder;
    if (!find_user_entry(value, &holder)) return failure(LDAP_NO_SUCH_OBJECT, "no such entry");
    const std::string dn = slapi_entry_get_dn_const(holder.entry);
    const std::string token = orvsrv::token_issue(settings.token_secret, dn,
                                                  static_cast<std::int64_t>(std::time(nullptr)),
                                                  settings.token_lifetime);
    if (token.empty()) return failure(LDAP_OPERATIONS_ERROR, "could not make a token");
    log_message(SLAPI_LOG_PLUGIN, "navigation token for %s issued to %s", dn.c_str(),
                requestor.c_str());
    return success(token);
}

Reply validate_token(const Settings& settings, const std::string& value) {
    if (settings.token_secret.empty()) {
        return failure(LDAP_UNWILLING_TO_PERFORM, "navigation tokens are not configured");
    }
    std::string dn;
    switch (orvsrv::token_check(settings.token_secret, value,
                                static_cast<std::int64_t>(std::time(nullptr)), &dn)) {
    case orvsrv::TokenState::invalid:
        return failure(LDAP_INVALID_CREDENTIALS, "invalid navigation token");
    case orvsrv::TokenState::expired:
        return failure(kTokenExpiredResult, "navigation token expired");
    case orvsrv::TokenState::valid:
        break;
    }
    EntryHolder holder;
    if (!find_user_entry(dn, &holder)) {
        return failure(LDAP_NO_SUCH_OBJECT, "the token names an entry that no longer exists");
    }
    return success(dn);
}

// ------------------------------------------------------------------ plugin functions

int extended_operation(Slapi_PBlock* pb) {
    char* oid = nullptr;
    struct berval* request = nullptr;
    if (slapi_pblock_get(pb, SLAPI_EXT_OP_REQ_OID, &oid) != 0 || oid == nullptr) {
        send_result(pb, LDAP_OPERATIONS_ERROR, "no request name");
        return SLAPI_PLUGIN_EXTENDED_SENT_RESULT;
    }
    slapi_pblock_get(pb, SLAPI_EXT_OP_REQ_VALUE, &request);
    Reply reply;
    try {
        const std::string requestor = connection_dn(pb);
        const std::string value = request != nullptr && request->bv_val != nullptr
                                      ? std::string(request->bv_val, request->bv_len)
                                      : std::string();
        const Settings settings = current_settings();
        if (requestor.empty()) {
            reply = failure(LDAP_INSUFFICIENT_ACCESS, "bind first");
        } else if (std::strcmp(oid, kOidOsAuth) == 0) {
            reply = os_authenticate(settings, value);
        } else if (std::strcmp(oid, kOidRadius) == 0) {
            reply = radius_authenticate(settings, value);
        } else if (std::strcmp(oid, kOidTokenIssue) == 0) {
            reply = issue_token(settings, value, requestor);
        } else if (std::strcmp(oid, kOidTokenValidate) == 0) {
            reply = validate_token(settings, value);
        } else {
            return SLAPI_PLUGIN_EXTENDED_NOT_HANDLED;
        }
    } catch (const std::exception& e) {
        log_message(SLAPI_LOG_ERR, "extended operation %s failed: %s", oid, e.what());
        reply = failure(LDAP_OPERATIONS_ERROR, "internal error");
    }

    struct berval response = {0, nullptr};
    if (reply.code == LDAP_SUCCESS && reply.has_value) {
        response.bv_len = reply.value.size();
        response.bv_val = const_cast<char*>(reply.value.data());
        slapi_pblock_set(pb, SLAPI_EXT_OP_RET_OID, oid);
        slapi_pblock_set(pb, SLAPI_EXT_OP_RET_VALUE, &response);
    }
    send_result(pb, reply.code, reply.text);
    slapi_pblock_set(pb, SLAPI_EXT_OP_RET_OID, nullptr);
    slapi_pblock_set(pb, SLAPI_EXT_OP_RET_VALUE, nullptr);
    return SLAPI_PLUGIN_EXTENDED_SENT_RESULT;
}

// Handles binds with the ORV mechanism; every other bind is left to the server.
int sasl_prebind(Slapi_PBlock* pb) {
    int method = 0;
    char* mechanism = nullptr;
    if (slapi_pblock_get(pb, SLAPI_BIND_METHOD, &method) != 0 || method != LDAP_AUTH_SASL ||
        slapi_pblock_get(pb, SLAPI_BIND_SASLMECHANISM, &mechanism) != 0 || mechanism == nullptr ||
        strcasecmp(mechanism, kMechanism) != 0) {
        return 0;
    }
    Slapi_DN* target = nullptr;
    struct berval* credentials = nullptr;
    slapi_pblock_get(pb, SLAPI_BIND_TARGET_SDN, &target);
    slapi_pblock_get(pb, SLAPI_BIND_CREDENTIALS, &credentials);
    try {
        const std::string dn = target != nullptr && slapi_sdn_get_dn(target) != nullptr
                                   ? slapi_sdn_get_dn(target)
                                   : std::string();
        const bool credential_ok =
            credentials != nullptr && credentials->bv_val != nullptr &&
            credentials->bv_len == kSaslCredentialLen &&
            CRYPTO_memcmp(credentials->bv_val, kSaslCredential, kSaslCredentialLen) == 0;
        EntryHolder holder;
        if (!credential_ok || !find_user_entry(dn, &holder)) {
            log_message(SLAPI_LOG_PLUGIN, "%s bind refused for \"%s\"", kMechanism, dn.c_str());
            send_result(pb, LDAP_INVALID_CREDENTIALS, std::string());
            return 1;
        }
        // An inactivated account may not bind this way either (result sent there).
        if (slapi_check_account_lock(pb, holder.entry, 0, 0, 1) == 1) return 1;

        // Order matters: setting the DN keeps the authentication method already set.
        if (slapi_pblock_set(pb, SLAPI_CONN_AUTHMETHOD, kAuthMethod) != 0 ||
            slapi_pblock_set(pb, SLAPI_CONN_DN,
                             slapi_ch_strdup(slapi_entry_get_ndn(holder.entry))) != 0) {
            send_result(pb, LDAP_OPERATIONS_ERROR, "cannot record the bind");
            return 1;
        }
        log_message(SLAPI_LOG_PLUGIN, "%s bind as %s", kMechanism,
                    slapi_entry_get_dn_const(holder.entry));
        send_result(pb, LDAP_SUCCESS, std::string());
    } catch (const std::exception& e) {
        log_message(SLAPI_LOG_ERR, "%s bind failed: %s", kMechanism, e.what());
        send_result(pb, LDAP_OPERATIONS_ERROR, "internal error");
    }
    return 1;
}

int plugin_start(Slapi_PBlock*) {
    if (!g_plugin_dn.empty()) {
        slapi_config_register_callback(SLAPI_OPERATION_MODIFY, DSE_FLAG_PREOP, g_plugin_dn.c_str(),
                                       LDAP_SCOPE_BASE, kAnyEntry, check_modified_entry, nullptr);
        slapi_config_register_callback(SLAPI_OPERATION_MODIFY, DSE_FLAG_POSTOP,
                                       g_plugin_dn.c_str(), LDAP_SCOPE_BASE, kAnyEntry,
                                       apply_modified_entry, nullptr);
    }
    return 0;
}

int plugin_close(Slapi_PBlock*) {
    if (!g_plugin_dn.empty()) {
        slapi_config_remove_callback(SLAPI_OPERATION_MODIFY, DSE_FLAG_PREOP, g_plugin_dn.c_str(),
                                     LDAP_SCOPE_BASE, kAnyEntry, check_modified_entry);
        slapi_config_remove_callback(SLAPI_OPERATION_MODIFY, DSE_FLAG_POSTOP, g_plugin_dn.c_str(),
                                     LDAP_SCOPE_BASE, kAnyEntry, apply_modified_entry);
    }
    return 0;
}

}  // namespace

int orv_prebind_init(Slapi_PBlock* pb) {
    if (slapi_pblock_set(pb, SLAPI_PLUGIN_VERSION, const_cast<char*>(SLAPI_PLUGIN_VERSION_03)) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_DESCRIPTION, &g_prebind_desc) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_PRE_BIND_FN, reinterpret_cast<void*>(sasl_prebind)) != 0) {
        log_message(SLAPI_LOG_ERR, "cannot register the pre-bind function");
        return -1;
    }
    return 0;
}

int orv_plugin_init(Slapi_PBlock* pb) {
    try {
        Slapi_Entry* entry = nullptr;
        if (slapi_pblock_get(pb, SLAPI_PLUGIN_CONFIG_ENTRY, &entry) == 0 && entry != nullptr) {
            g_plugin_dn = slapi_entry_get_dn_const(entry);
            Settings settings;
            std::string error;
            if (!read_settings(entry, &settings, &error)) {
                log_message(SLAPI_LOG_ERR, "%s: %s", g_plugin_dn.c_str(), error.c_str());
                return -1;
            }
            apply_settings(std::move(settings));
        }
    } catch (const std::exception& e) {
        log_message(SLAPI_LOG_ERR, "cannot read the settings: %s", e.what());
        return -1;
    }
    slapi_pblock_get(pb, SLAPI_PLUGIN_IDENTITY, &g_identity);

    if (slapi_pblock_set(pb, SLAPI_PLUGIN_VERSION, const_cast<char*>(SLAPI_PLUGIN_VERSION_03)) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_DESCRIPTION, &g_extop_desc) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_EXT_OP_FN, reinterpret_cast<void*>(extended_operation)) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_EXT_OP_OIDLIST, g_oid_list) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_EXT_OP_NAMELIST, g_name_list) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_START_FN, reinterpret_cast<void*>(plugin_start)) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_CLOSE_FN, reinterpret_cast<void*>(plugin_close)) != 0) {
        log_message(SLAPI_LOG_ERR, "cannot register the extended operations");
        return -1;
    }
    if (slapi_register_plugin("preoperation", 1, "orv_prebind_init", orv_prebind_init,
                              kPrebindDescription, nullptr, g_identity) != 0) {
        log_message(SLAPI_LOG_ERR, "cannot register the pre-bind plugin");
        return -1;
    }
    slapi_register_supported_saslmechanism(kMechanism);
    return 0;
}
