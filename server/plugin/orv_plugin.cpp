// ORV server plugin for 389 Directory Server.
//
// One "extendedop" plugin entry loads this library. It answers the ORV
// extended operations and registers, from its init function, a pre-operation
// plugin that handles the ORV SASL mechanism:
//
//   SASL "orv_sasl_V41"          bind with the fixed client credential, for
//                                 the DNs (and client networks) the settings
//                                 allow
//   1.2.3.4                       "login:password" checked with PAM
//                                 (authentication, then the account)
//   1.3.6.1.4.1.47391.0.1000.1    "host:port:secret:user:password" checked
//                                 with a RADIUS PAP Access-Request, sent only
//                                 to a server that the directory's RADIUS
//                                 configuration names
//   1.3.6.1.4.1.47391.0.2000.1    person DN -> navigation token
//   1.3.6.1.4.1.47391.0.2000.2    navigation token -> person DN
//
// Every operation starts with its own authorization function; a refusal is
// written to the error log (who, what, why; never a password) and answered
// with its result code before any other work is done. Settings come from the
// plugin's own entry under cn=plugins,cn=config and are re-read whenever
// that entry is modified (docs/server-plugin.md lists them).

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
#include <vector>

#include <openssl/crypto.h>
#include <security/pam_appl.h>

#include <prio.h>
#include <prnetdb.h>
#include <slapi-plugin.h>

#include "orv_credential.hpp"
#include "orv_failures.hpp"
#include "orv_network.hpp"
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
constexpr char kAttrRootSuffix[] = "orvRootSuffix";
constexpr char kAttrSaslAllowedDn[] = "orvSaslAllowedDN";
constexpr char kAttrSaslAllowedNetwork[] = "orvSaslAllowedNetwork";
constexpr char kAttrTrustedDn[] = "orvTrustedDN";
constexpr char kAttrOsAuthMaxFailures[] = "orvOsAuthMaxFailures";
constexpr char kAttrOsAuthFailureWindow[] = "orvOsAuthFailureWindow";

// The library administrator, under the root suffix: the default of both
// allow-lists.
constexpr char kAdministratorRdn[] = "uid=orvadmin,ou=People,";

// Where the directory keeps its RADIUS servers, under the root suffix.
constexpr char kRadiusConfigRdn[] = "ou=RadiusConfiguration,ou=Config,";
char kRadiusConfigFilter[] = "(objectClass=orvRadiusServerConfiguration)";
constexpr char kAttrRadiusHost[] = "orvRadiusServerHostName";
constexpr char kAttrRadiusPort[] = "orvRadiusServerPortNumber";
constexpr char kAttrRadiusSecret[] = "orvRadiusServerSharedSecret";

// Login names longer than this are not operating-system accounts.
constexpr std::size_t kMaxLoginLength = 256;

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
    std::string root_suffix;               // normalized; empty when not set
    std::vector<std::string> sasl_dns;     // normalized DNs that may use the mechanism
    std::vector<orvsrv::Network> sasl_networks;  // empty: any client network
    std::vector<std::string> trusted_dns;  // normalized DNs trusted with the other operations
    long os_max_failures = 5;
    long os_failure_window = 300;          // seconds
};

std::shared_mutex g_settings_mutex;
Settings g_settings;
void* g_identity = nullptr;
std::string g_plugin_dn;
orvsrv::FailureLimit g_os_failures;

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

// Copies of all values of an attribute; absent gives false.
bool entry_values(const Slapi_Entry* entry, const char* attr, std::vector<std::string>* out) {
    char** values = slapi_entry_attr_get_charray(entry, attr);
    if (values == nullptr) return false;
    out->clear();
    for (char** v = values; *v != nullptr; ++v) out->emplace_back(*v);
    slapi_ch_array_free(values);
    return true;
}

// The normalized (lower-case) form of a DN; empty for an empty or invalid DN.
std::string normalized_dn(const std::string& dn) {
    if (dn.empty()) return std::string();
    Slapi_DN* sdn = slapi_sdn_new_dn_byval(dn.c_str());
    const char* ndn = slapi_sdn_get_ndn(sdn);
    std::string out = ndn != nullptr ? ndn : "";
    slapi_sdn_free(&sdn);
    return out;
}

bool contains(const std::vector<std::string>& list, const std::string& value) {
    for (const std::string& item : list) {
        if (item == value) return true;
    }
    return false;
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

// Reads a list of DNs; absent gives the default (the administrator when the
// root suffix is known, nobody otherwise).
bool read_dn_list(Slapi_Entry* entry, const char* attr, const std::string& root_suffix,
                  std::vector<std::string>* out, std::string* error) {
    std::vector<std::string> values;
    out->clear();
    if (!entry_values(entry, attr, &values)) {
        if (!root_suffix.empty()) out->push_back(normalized_dn(kAdministratorRdn + root_suffix));
        return true;
    }
    for (const std::string& value : values) {
        const std::string ndn = normalized_dn(value);
        if (ndn.empty()) {
            *error = std::string(attr) + " must hold DNs: \"" + value + "\"";
            return false;
        }
        out->push_back(ndn);
    }
    return true;
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
    if (entry_value(entry, kAttrRootSuffix, &text)) {
        s.root_suffix = normalized_dn(text);
        if (s.root_suffix.empty()) {
            *error = std::string(kAttrRootSuffix) + " must be a DN";
            return false;
        }
    }
    if (!read_dn_list(entry, kAttrSaslAllowedDn, s.root_suffix, &s.sasl_dns, error) ||
        !read_dn_list(entry, kAttrTrustedDn, s.root_suffix, &s.trusted_dns, error)) {
        return false;
    }
    std::vector<std::string> networks;
    if (entry_values(entry, kAttrSaslAllowedNetwork, &networks)) {
        for (const std::string& value : networks) {
            orvsrv::Network network;
            if (!orvsrv::parse_network(value, &network)) {
                *error = std::string(kAttrSaslAllowedNetwork) +
                         " must hold addresses or networks such as 127.0.0.0/8: \"" + value + "\"";
                return false;
            }
            s.sasl_networks.push_back(network);
        }
    }
    if (entry_value(entry, kAttrOsAuthMaxFailures, &text) &&
        !parse_number(text, 1, 1000, &s.os_max_failures)) {
        *error = std::string(kAttrOsAuthMaxFailures) + " must be a number from 1 to 1000";
        return false;
    }
    if (entry_value(entry, kAttrOsAuthFailureWindow, &text) &&
        !parse_number(text, 1, 86400, &s.os_failure_window)) {
        *error = std::string(kAttrOsAuthFailureWindow) + " must be a number of seconds from 1 to 86400";
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
    if (settings.root_suffix.empty()) {
        log_message(SLAPI_LOG_WARNING,
                    "%s is not set: RADIUS checks are refused, and only the DNs that %s and %s "
                    "name are allowed",
                    kAttrRootSuffix, kAttrSaslAllowedDn, kAttrTrustedDn);
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

// A request that the plugin will not serve: logged with who asked and why,
// answered with code. The text sent to the client is the reason as well.
Reply refuse(const char* operation, const std::string& who, int code, const std::string& why) {
    log_message(SLAPI_LOG_WARNING, "%s refused for \"%s\" (result %d): %s", operation, who.c_str(),
                code, why.c_str());
    return failure(code, why);
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

// A person: an entry of one of the person classes, not a container.
bool is_person(const Slapi_Entry* entry) {
    std::vector<std::string> classes;
    if (!entry_values(entry, "objectClass", &classes)) return false;
    for (const std::string& c : classes) {
        if (strcasecmp(c.c_str(), "person") == 0 ||
            strcasecmp(c.c_str(), "organizationalPerson") == 0 ||
            strcasecmp(c.c_str(), "inetOrgPerson") == 0) {
            return true;
        }
    }
    return false;
}

// The normalized DN the connection is bound as; empty when anonymous.
std::string connection_dn(Slapi_PBlock* pb) {
    char* dn = nullptr;
    std::string result;
    if (slapi_pblock_get(pb, SLAPI_CONN_DN, &dn) == 0 && dn != nullptr) {
        result = normalized_dn(dn);
        slapi_ch_free_string(&dn);
    }
    return result;
}

// The client's address: 4 bytes (IPv4) or 16 (IPv6), none for a local
// socket; *text is its printed form for the log.
std::vector<std::uint8_t> client_address(Slapi_PBlock* pb, std::string* text) {
    PRNetAddr addr;
    std::memset(&addr, 0, sizeof addr);
    std::vector<std::uint8_t> bytes;
    *text = "(no address)";
    if (slapi_pblock_get(pb, SLAPI_CONN_CLIENTNETADDR, &addr) != 0) return bytes;
    if (addr.raw.family == PR_AF_INET) {
        const auto* ip = reinterpret_cast<const std::uint8_t*>(&addr.inet.ip);
        bytes.assign(ip, ip + 4);
    } else if (addr.raw.family == PR_AF_INET6) {
        const auto* ip = reinterpret_cast<const std::uint8_t*>(&addr.ipv6.ip);
        bytes.assign(ip, ip + 16);
    } else if (addr.raw.family == PR_AF_LOCAL) {
        *text = "(local socket)";
        return bytes;
    }
    char printed[128];
    if (!bytes.empty() && PR_NetAddrToString(&addr, printed, sizeof printed) == PR_SUCCESS) {
        *text = printed;
    }
    return bytes;
}

// Request values are texts; an embedded NUL would cut them short further down.
bool has_nul(const std::string& value) {
    return value.find('\0') != std::string::npos;
}

void send_result(Slapi_PBlock* pb, int code, const std::string& text) {
    slapi_send_ldap_result(pb, code, nullptr,
                           text.empty() ? nullptr : const_cast<char*>(text.c_str()), 0, nullptr);
}

// ------------------------------------------------------------------ authorization
//
// One function per operation, called before anything else is done. Each
// answers true, or false with the result code and the reason.

struct Refusal {
    int code = LDAP_SUCCESS;
    std::string why;
};

bool refused(Refusal* r, int code, std::string why) {
    r->code = code;
    r->why = std::move(why);
    return false;
}

// SASL bind: the target DN must be on the mechanism's allow-list and, when
// networks are listed, the client must be in one of them.
bool authorize_sasl_bind(const Settings& s, const std::string& target_ndn,
                         const std::vector<std::uint8_t>& address, Refusal* r) {
    if (!s.sasl_networks.empty()) {
        bool listed = false;
        for (const orvsrv::Network& n : s.sasl_networks) {
            listed = listed || orvsrv::network_contains(n, address.data(), address.size());
        }
        if (!listed) {
            return refused(r, LDAP_INAPPROPRIATE_AUTH,
                           std::string("client network is not in ") + kAttrSaslAllowedNetwork);
        }
    }
    if (target_ndn.empty() || !contains(s.sasl_dns, target_ndn)) {
        return refused(r, LDAP_INVALID_CREDENTIALS,
                       std::string("DN is not in ") + kAttrSaslAllowedDn);
    }
    return true;
}

// Operating-system passwords are checked for trusted identities only.
bool authorize_os_auth(const Settings& s, const std::string& requestor, Refusal* r) {
    if (!contains(s.trusted_dns, requestor)) {
        return refused(r, LDAP_INSUFFICIENT_ACCESS,
                       std::string("requestor is not in ") + kAttrTrustedDn);
    }
    return true;
}

// A RADIUS server named by the directory's RADIUS configuration.
struct RadiusServer {
    std::string entry_dn;
    std::string secret;  // plain
};

// Looks the request's host and port up among the RADIUS configuration
// entries under the root suffix. False when none matches.
bool find_radius_server(const Settings& s, const orvsrv::RadiusRequest& request,
                        RadiusServer* out, Refusal* r) {
    const std::string base = kRadiusConfigRdn + s.root_suffix;
    Slapi_PBlock* spb = slapi_pblock_new();
    char* attrs[] = {const_cast<char*>(kAttrRadiusHost), const_cast<char*>(kAttrRadiusPort),
                     const_cast<char*>(kAttrRadiusSecret), nullptr};
    slapi_search_internal_set_pb(spb, base.c_str(), LDAP_SCOPE_SUBTREE, kRadiusConfigFilter, attrs,
                                 0, nullptr, nullptr, static_cast<Slapi_ComponentId*>(g_identity), 0);
    slapi_search_internal_pb(spb);
    int rc = LDAP_OPERATIONS_ERROR;
    Slapi_Entry** entries = nullptr;
    slapi_pblock_get(spb, SLAPI_PLUGIN_INTOP_RESULT, &rc);
    slapi_pblock_get(spb, SLAPI_PLUGIN_INTOP_SEARCH_ENTRIES, &entries);
    bool found = false;
    bool bad_secret = false;
    for (int i = 0; rc == LDAP_SUCCESS && entries != nullptr && entries[i] != nullptr; ++i) {
        std::string host, port, stored;
        long number = 0;
        if (!entry_value(entries[i], kAttrRadiusHost, &host) ||
            !entry_value(entries[i], kAttrRadiusPort, &port) ||
            strcasecmp(host.c_str(), request.host.c_str()) != 0 ||
            !parse_number(port, 1, 65535, &number) || number != request.port) {
            continue;
        }
        out->entry_dn = slapi_entry_get_dn_const(entries[i]);
        if (!entry_value(entries[i], kAttrRadiusSecret, &stored) ||
            !orvsrv::credential_plain(stored, &out->secret)) {
            bad_secret = true;
            log_message(SLAPI_LOG_ERR, "%s of %s is missing or malformed", kAttrRadiusSecret,
                        out->entry_dn.c_str());
            continue;
        }
        found = true;
        break;
    }
    slapi_free_search_results_internal(spb);
    slapi_pblock_destroy(spb);
    if (found) return true;
    if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT) {
        log_message(SLAPI_LOG_ERR, "cannot read the RADIUS configuration under %s: result %d",
                    base.c_str(), rc);
    }
    return refused(r, LDAP_UNWILLING_TO_PERFORM,
                   bad_secret ? "the configured RADIUS server has no usable shared secret"
                              : "not a RADIUS server of this directory's configuration");
}

// RADIUS checks: trusted identities only, a well-formed request, and only
// towards a server that the directory configures, with the secret
// configured there. *request receives the parsed request.
bool authorize_radius(const Settings& s, const std::string& requestor, const std::string& value,
                      orvsrv::RadiusRequest* request, RadiusServer* server, Refusal* r) {
    if (!contains(s.trusted_dns, requestor)) {
        return refused(r, LDAP_INSUFFICIENT_ACCESS,
                       std::string("requestor is not in ") + kAttrTrustedDn);
    }
    // Result 2 means "rejected by RADIUS" here, so a malformed request gets 53.
    std::string why;
    if (has_nul(value)) return refused(r, LDAP_UNWILLING_TO_PERFORM, "NUL byte in the request");
    if (!orvsrv::radius_parse_request(value, request, &why) ||
        !orvsrv::radius_request_fits(*request, &why)) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM, why);
    }
    if (s.root_suffix.empty()) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM,
                       std::string(kAttrRootSuffix) + " is not set: no RADIUS configuration");
    }
    const std::string target = " (" + request->host + ":" + std::to_string(request->port) + ")";
    if (!find_radius_server(s, *request, server, r)) {
        r->why += target;
        return false;
    }
    if (server->secret.size() != request->secret.size() ||
        CRYPTO_memcmp(server->secret.data(), request->secret.data(), request->secret.size()) != 0) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM,
                       "the shared secret differs from the one configured for the server" + target);
    }
    return true;
}

// Tokens: only for an existing person, asked by that person or by a trusted
// identity. *holder receives the person's entry.
bool authorize_token_issue(const Settings& s, const std::string& requestor,
                           const std::string& target, EntryHolder* holder, Refusal* r) {
    if (s.token_secret.empty()) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM, "navigation tokens are not configured");
    }
    if (target.empty() || has_nul(target)) return refused(r, LDAP_PROTOCOL_ERROR, "expected a DN");
    const std::string target_ndn = normalized_dn(target);
    if (target_ndn.empty()) return refused(r, LDAP_INVALID_DN_SYNTAX, "not a DN");
    if (target_ndn != requestor && !contains(s.trusted_dns, requestor)) {
        return refused(r, LDAP_INSUFFICIENT_ACCESS,
                       std::string("a token for another entry, and the requestor is not in ") +
                           kAttrTrustedDn);
    }
    if (!find_user_entry(target, holder)) return refused(r, LDAP_NO_SUCH_OBJECT, "no such entry");
    if (!is_person(holder->entry)) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM, "tokens are issued for persons only");
    }
    return true;
}

// Any bound identity may validate a token; the server must have a secret.
bool authorize_token_validate(const Settings& s, Refusal* r) {
    if (s.token_secret.empty()) {
        return refused(r, LDAP_UNWILLING_TO_PERFORM, "navigation tokens are not configured");
    }
    return true;
}

// ------------------------------------------------------------------ operations

Reply os_authenticate(const Settings& settings, const std::string& requestor,
                      const std::string& value) {
    static const char op[] = "operating-system authentication";
    Refusal r;
    if (!authorize_os_auth(settings, requestor, &r)) return refuse(op, requestor, r.code, r.why);

    const std::size_t colon = value.find(':');
    if (colon == std::string::npos || colon == 0 || colon > kMaxLoginLength || has_nul(value)) {
        return refuse(op, requestor, LDAP_PROTOCOL_ERROR, "expected login:password");
    }
    const std::string login = value.substr(0, colon);
    const std::string password = value.substr(colon + 1);
    const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
    switch (g_os_failures.begin(login, now, static_cast<unsigned>(settings.os_max_failures),
                                settings.os_failure_window)) {
    case orvsrv::FailureLimit::Decision::allowed:
        break;
    case orvsrv::FailureLimit::Decision::locked:
        return refuse(op, requestor, LDAP_INVALID_CREDENTIALS,
                      "too many failed passwords for account \"" + login +
                          "\"; PAM was not asked");
    case orvsrv::FailureLimit::Decision::full:
        return refuse(op, requestor, LDAP_INVALID_CREDENTIALS,
                      "too many accounts with failed passwords; PAM was not asked for \"" +
                          login + "\"");
    }

    std::string why;
    orvsrv::PamStage stage = orvsrv::PamStage::start;
    const int status =
        orvsrv::pam_check_password(settings.pam_service, login, password, &why, &stage);
    using Result = orvsrv::FailureLimit::Result;
    const bool wrong_password =
        stage == orvsrv::PamStage::authenticate &&
        (status == PAM_AUTH_ERR || status == PAM_USER_UNKNOWN || status == PAM_CRED_INSUFFICIENT ||
         status == PAM_MAXTRIES);
    g_os_failures.finish(login, now,
                         status == PAM_SUCCESS ? Result::succeeded
                         : wrong_password      ? Result::failed
                                               : Result::inconclusive);
    if (status == PAM_SUCCESS) {
        log_message(SLAPI_LOG_PLUGIN, "PAM service %s accepted %s for %s",
                    settings.pam_service.c_str(), login.c_str(), requestor.c_str());
        return success(std::string());
    }
    if (wrong_password) {
        return refuse(op, requestor, LDAP_INVALID_CREDENTIALS,
                      "PAM service " + settings.pam_service + " refused the password of \"" +
                          login + "\": " + why);
    }
    if (stage == orvsrv::PamStage::account) {
        // Right password, but the account is expired, locked or not allowed.
        return refuse(op, requestor, LDAP_INVALID_CREDENTIALS,
                      "PAM service " + settings.pam_service + " refused the account \"" + login +
                          "\": " + why);
    }
    // The PAM stack itself is broken (missing service, module error).
    log_message(SLAPI_LOG_ERR, "PAM service %s failed: %s", settings.pam_service.c_str(),
                why.c_str());
    return failure(LDAP_OTHER, "operating-system authentication unavailable: " + why);
}

Reply radius_authenticate(const Settings& settings, const std::string& requestor,
                          const std::string& value) {
    static const char op[] = "RADIUS check";
    orvsrv::RadiusRequest request;
    RadiusServer server;
    Refusal r;
    if (!authorize_radius(settings, requestor, value, &request, &server, &r)) {
        return refuse(op, requestor, r.code, r.why);
    }
    request.secret = server.secret;
    std::string why;
    const orvsrv::RadiusOutcome outcome = orvsrv::radius_authenticate(
        request, static_cast<int>(settings.radius_timeout_ms),
        static_cast<int>(settings.radius_attempts), &why);
    if (outcome == orvsrv::radius_accept) {
        log_message(SLAPI_LOG_PLUGIN, "RADIUS %s:%u accepted %s for %s", request.host.c_str(),
                    static_cast<unsigned>(request.port), request.user.c_str(), requestor.c_str());
        return success(std::string());
    }
    log_message(SLAPI_LOG_WARNING, "RADIUS %s:%u for user \"%s\" asked by \"%s\": result %d, %s",
                request.host.c_str(), static_cast<unsigned>(request.port), request.user.c_str(),
                requestor.c_str(), outcome, why.c_str());
    return failure(outcome, why);
}

Reply issue_token(const Settings& settings, const std::string& requestor,
                  const std::string& value) {
    static const char op[] = "navigation token";
    EntryHolder holder;
    Refusal r;
    if (!authorize_token_issue(settings, requestor, value, &holder, &r)) {
        return refuse(op, requestor, r.code, r.why + " (" + value.substr(0, value.find('\0')) + ")");
    }
    const std::string dn = slapi_entry_get_dn_const(holder.entry);
    const std::string token = orvsrv::token_issue(settings.token_secret, dn,
                                                  static_cast<std::int64_t>(std::time(nullptr)),
                                                  settings.token_lifetime);
    if (token.empty()) return failure(LDAP_OPERATIONS_ERROR, "could not make a token");
    log_message(SLAPI_LOG_PLUGIN, "navigation token for %s issued to %s", dn.c_str(),
                requestor.c_str());
    return success(token);
}

Reply validate_token(const Settings& settings, const std::string& requestor,
                     const std::string& value) {
    static const char op[] = "navigation token validation";
    Refusal r;
    if (!authorize_token_validate(settings, &r)) return refuse(op, requestor, r.code, r.why);
    std::string dn;
    switch (orvsrv::token_check(settings.token_secret, value,
                                static_cast<std::int64_t>(std::time(nullptr)), &dn)) {
    case orvsrv::TokenState::invalid:
        return refuse(op, requestor, LDAP_INVALID_CREDENTIALS, "invalid navigation token");
    case orvsrv::TokenState::expired:
        return refuse(op, requestor, kTokenExpiredResult, "navigation token expired");
    case orvsrv::TokenState::valid:
        break;
    }
    // The token names exactly one person; nothing else is ever returned.
    EntryHolder holder;
    if (!find_user_entry(dn, &holder)) {
        return refuse(op, requestor, LDAP_NO_SUCH_OBJECT,
                      "the token names an entry that no longer exists");
    }
    if (!is_person(holder.entry)) {
        return refuse(op, requestor, LDAP_UNWILLING_TO_PERFORM, "the token names no person");
    }
    return success(slapi_entry_get_dn_const(holder.entry));
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
        if (std::strcmp(oid, kOidOsAuth) != 0 && std::strcmp(oid, kOidRadius) != 0 &&
            std::strcmp(oid, kOidTokenIssue) != 0 && std::strcmp(oid, kOidTokenValidate) != 0) {
            return SLAPI_PLUGIN_EXTENDED_NOT_HANDLED;
        }
        if (requestor.empty()) {
            reply = refuse(oid, "(anonymous)", LDAP_INSUFFICIENT_ACCESS, "bind first");
        } else if (std::strcmp(oid, kOidOsAuth) == 0) {
            reply = os_authenticate(settings, requestor, value);
        } else if (std::strcmp(oid, kOidRadius) == 0) {
            reply = radius_authenticate(settings, requestor, value);
        } else if (std::strcmp(oid, kOidTokenIssue) == 0) {
            reply = issue_token(settings, requestor, value);
        } else {
            reply = validate_token(settings, requestor, value);
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
        std::string address_text;
        const std::vector<std::uint8_t> address = client_address(pb, &address_text);
        const std::string who = dn + "\" from \"" + address_text;
        Refusal r;
        if (!authorize_sasl_bind(current_settings(), normalized_dn(dn), address, &r)) {
            const Reply reply = refuse(kMechanism, who, r.code, r.why);
            send_result(pb, reply.code, std::string());
            return 1;
        }
        const bool credential_ok =
            credentials != nullptr && credentials->bv_val != nullptr &&
            credentials->bv_len == kSaslCredentialLen &&
            CRYPTO_memcmp(credentials->bv_val, kSaslCredential, kSaslCredentialLen) == 0;
        EntryHolder holder;
        if (!credential_ok || !find_user_entry(dn, &holder)) {
            refuse(kMechanism, who, LDAP_INVALID_CREDENTIALS,
                   credential_ok ? "no such entry" : "wrong credential");
            send_result(pb, LDAP_INVALID_CREDENTIALS, std::string());
            return 1;
        }
        // An inactivated account may not bind this way either (result sent there).
        if (slapi_check_account_lock(pb, holder.entry, 0, 0, 1) == 1) {
            refuse(kMechanism, who, LDAP_UNWILLING_TO_PERFORM, "account is inactivated");
            return 1;
        }

        // Order matters: setting the DN keeps the authentication method already set.
        if (slapi_pblock_set(pb, SLAPI_CONN_AUTHMETHOD, kAuthMethod) != 0 ||
            slapi_pblock_set(pb, SLAPI_CONN_DN,
                             slapi_ch_strdup(slapi_entry_get_ndn(holder.entry))) != 0) {
            send_result(pb, LDAP_OPERATIONS_ERROR, "cannot record the bind");
            return 1;
        }
        log_message(SLAPI_LOG_PLUGIN, "%s bind as %s from %s", kMechanism,
                    slapi_entry_get_dn_const(holder.entry), address_text.c_str());
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
