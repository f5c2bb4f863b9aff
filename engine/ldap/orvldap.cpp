// orvldap.cpp - the library frame's public API: initialisation, the session
// context (local connection, version check, configuration, corporate
// administrative connection), library information, unbind and
// uninitialisation, connection status and recovery.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"
#include "orv_search_internal.hpp"
#include "orvldap.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "orvplatforms.h"

namespace {

const char kSaslMechanism[] = "orv_sasl_V41";
const char kSaslCredential[] = "qwmzt";

// Key database path: the certificate directory (at most 500 characters)
// followed by the key database's relative name.
std::string key_database_path() {
    std::string dir(_sslPath, strnlen(_sslPath, 500));
    std::string path = dir + std::string(CERTDB_PATH).substr(0, 500);
    return path;
}

}  // namespace

namespace orv {

// Version numbers are compared digit by digit at the even positions of the
// server's text, as single-digit dotted components ("6.0.0.1" is 6001).
// Positions past the end of the client's text count as digit 0.
bool client_version_too_old(const char* serverText) {
    const char* client = ORVLIB_CLIENT_LIBRARY_VERSION;
    size_t clientLen = strlen(client);
    size_t serverLen = strlen(serverText);
    unsigned long long c = 0, s = 0;  // wraps on absurdly long texts
    for (size_t pos = 0; pos < serverLen; pos += 2) {
        int cd = pos < clientLen ? client[pos] - '0' : 0;
        int sd = serverText[pos] - '0';
        c = c * 10 + static_cast<unsigned long long>(static_cast<long long>(cd));
        s = s * 10 + static_cast<unsigned long long>(static_cast<long long>(sd));
    }
    return static_cast<long long>(c) < static_cast<long long>(s);
}

}  // namespace orv

namespace {

void replace_owned(char*& target, const std::string& value) {
    orvlib_memfree(target);
    target = _orvlib_dupString(value.c_str());
}

// Steps shared by the session context and the re-opening of the local
// connection: open (plain or SSL), protocol version 3, version check, the
// library's own SASL bind.  `checkSslInit` decides whether a failing SSL
// client initialisation stops the call.
LDAP* open_one_server(const char* host, int port, int ssl, bool checkSslInit) {
    LDAP* ld = nullptr;
    if (ssl == 1) {
        _orvSSLEnabled = 1;
        std::string path = key_database_path();
        ORV_DEBUG("CERTDB Path", CERTDB_PATH);
        ORV_DEBUG("SSL Path", _sslPath);
        ORV_DEBUG("Complete Path", path);
        ORV_DEBUG("LDAP SSL Client init", "");
        int reason = 0;
        int rc = ldap_ssl_client_init(path.c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, &reason);
        if (rc != 0) {
            ldapErrCode = rc;
            if (checkSslInit) {
                orvlib_get_last_error(nullptr, nullptr);
                return nullptr;
            }
        }
        ORV_DEBUG("LDAP SSL init", "");
        ld = ldap_ssl_init(host, port, nullptr);
        if (ld == reinterpret_cast<LDAP*>(-1)) {
            orv::report(ORV_LDAPLIB_SESSION_INVALID);
            return nullptr;
        }
        ORV_DEBUG("LDAP Handle obtained in SSL mode", "");
    } else if (ssl == 0) {
        _orvSSLEnabled = 0;
        ld = orv::open_plain(host, port);
        if (!ld) {
            perror("ldap_init");
            return nullptr;
        }
        ORV_DEBUG("LDAP Handle obtained in non-SSL mode", "");
    }

    // Neither plain nor SSL: nothing was opened to go on with.
    if (!ld) {
        orv::report(ORV_LDAPLIB_SESSION_INVALID);
        return nullptr;
    }
    int rc = orv::prepare_handle(ld);
    if (rc != 0) {
        orv::report(rc);
        orv::unbind(ld);
        return nullptr;
    }
    rc = is_server_supported(ld);
    if (rc != 0) {
        orv::report(rc);
        orv::unbind(ld);
        return nullptr;
    }
    ORV_DEBUG("reached ldap_sasl_bind_s", "");
    rc = attempt_sasl_bind(ld);
    ORV_DEBUG("completed ldap_sasl_bind_s", "");
    if (rc != 0) {
        orv::report(rc);
        orv::unbind(ld);
        return nullptr;
    }
    return ld;
}

// The host argument may list several servers separated by blanks
// ("host1:port1 host2:port2", each with its own port or the port argument),
// as ldap_init takes it: a fail-over list.  The servers are tried one after
// the other, each through the whole opening sequence, so that a server that
// refuses or drops the connection, or accepts it and then does not answer
// within the time-out (hung or stopped), gives way to the next one.  Any
// other refusal (version not supported, bind refused) is final.
LDAP* open_local_connection(const char* host, int port, int ssl, bool checkSslInit) {
    std::vector<std::string> hosts;
    std::istringstream in(host ? host : "");
    for (std::string h; in >> h;) hosts.push_back(h);
    if (hosts.size() < 2) return open_one_server(host, port, ssl, checkSslInit);
    LDAP* ld = nullptr;
    for (const std::string& h : hosts) {
        ORV_DEBUG("Opening the connection to", h);
        ld = open_one_server(h.c_str(), port, ssl, checkSslInit);
        if (ld || !(orv::is_connection_drop(ldapErrCode) || ldapErrCode == orv::kTimeout)) break;
    }
    return ld;
}

}  // namespace

extern "C" {

int orvlib_init(void) {
    ORV_TRACE();
    ldapErrCode = 0;
    return 0;
}

void orvlib_setcertdb_path(const char* path) {
    ORV_TRACE();
    // At most 500 characters are kept; the buffer always stays terminated.
    size_t len = path ? strnlen(path, 500) : 0;
    if (len) memcpy(_sslPath, path, len);
    _sslPath[len] = '\0';
    ORV_DEBUG("SSL Path", _sslPath);
}

LDAP* orvlib_getsession_context(const char* host, int port, ORVLibInfo** info, int ssl) {
    ORV_TRACE();
    ORV_DEBUG("Initialize LDAP Handle", "");
    ORV_DEBUG("Hostname", host ? host : "");
    ORV_DEBUG("Port Number", port);
    if (!host || !*host || port <= 0 || port > 65535) {
        orv::report(ORV_LDAPLIB_INVALID_INPUT);
        return nullptr;
    }

    LDAP* ld = open_local_connection(host, port, ssl, true);
    if (!ld) return nullptr;

    // A second session context replaces the first: its search state and
    // connections go, the user connection included.
    orv::release_search_state();
    orv::unbind(orv_ld);
    if (corporate_user_ld == corporate_admin_ld) corporate_user_ld = nullptr;
    orv::unbind(corporate_user_ld);
    orv::unbind(corporate_admin_ld);
    user_authenticated = 0;
    orv_ld = ld;
    int mode = _setOperationModeFromServer(ld);
    ORV_DEBUG("Operation mode is: ", mode);
    isServerInStandaloneMode = ORV_OPERATION_MODE == 0 ? 1 : 0;

    if (ORV_OPERATION_MODE == 1) {
        int rc = populate_partition_info(ld);
        if (rc != 0) {
            orv::report(rc);
            return nullptr;
        }
        populate_search_base();
        corporate_admin_ld = create_ldap_connection(PARTITION_INFO->hostname, PARTITION_INFO->port_num,
                                                    PARTITION_INFO->admin_dn, PARTITION_INFO->admin_pwd);
        if (!corporate_admin_ld) {
            free_partition_info();
            return nullptr;
        }
    }

    if (ORVLIB_IS_RADIUS_CONFIGURED == 1) {
        ldapErrCode = populate_radius_info(ld);
        orvlib_get_last_error(nullptr, nullptr);
    }

    replace_owned(orv_Srv, host);
    orv_Port = port;

    populate_libinfo(ld, info);

    if (mechanism == -1) {
        if (ORV_OPERATION_MODE != 1)
            mechanism = ORV_VLV;
        else
            determine_control(corporate_admin_ld);
    }
    operatingMechanism = mechanism;
    // The session stands: its status is success, not whatever a step
    // before left behind (no search mechanism is status 1).
    ldapErrCode = operatingMechanism == -1 ? 1 : 0;
    return ld;
}

int orvlib_get_orvlibinfo(ORVLibInfo* info, int option, char** out) {
    ORV_TRACE();
    int status = 0;
    if (!out) {
        return orv::report(ORV_LDAPLIB_INVALID_INPUT);
    }
    *out = nullptr;
    if (!info) {
        status = ORV_LDAPLIB_INVALID_INPUT;
    } else {
        const char* value = nullptr;
        switch (option) {
        case ORV_INFO_CLIENT_LIBRARY_VERSION: value = ORVLIB_CLIENT_LIBRARY_VERSION; break;
        case ORV_INFO_SERVER_VERSION: value = info->orv_server_version; break;
        case ORV_INFO_SERVER_COMPAT_VERSION: value = info->orv_server_lib_compatibility_version; break;
        case ORV_INFO_INSTANCE_ID: value = instanceID; break;
        default: status = ORV_LDAPLIB_UNKNOWN_OPTION; break;
        }
        if (status == 0) *out = _orvlib_dupString(value);
    }
    return orv::report(status);
}

int orvlib_is_trusted_os_auth_supported(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    std::string dn = std::string("cn=ORVConfigurationSettings,") + ORV_ROOT_SUFFIX;
    const char* attrs[] = {"orvTrustedOSAuth", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(orv_ld, dn.c_str(), LDAP_SCOPE_BASE, "objectclass=*", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return orv::report(rc);
    LDAPMessage* entry = ldap_first_entry(orv_ld, res.get());
    if (!entry) return orv::report(ldap_get_lderrno(orv_ld, nullptr, nullptr));
    BerElement* ber = nullptr;
    char* attr = ldap_first_attribute(orv_ld, entry, &ber);
    orv::BerPtr berOwner(ber);
    int answer = 0;
    if (attr) {
        orv::LdapString attrOwner(attr);
        ORV_DEBUG("Attibute: ", attr);
        std::string value = orv::first_value(orv_ld, entry, attr);
        ORV_DEBUG("Attibute Value: ", value);
        if (value == "1") answer = 1;
    }
    ldapErrCode = 0;
    return answer;
}

void orvlib_enable_paging(short flag) {
    ORV_TRACE();
    enable_paging = flag;
}

void orvlib_flush_cache(void) {
    ORV_TRACE();
}

void initialize_cache(void) {
    ORV_TRACE();
}

int orvlib_unbind(LDAP* ld) {
    ORV_TRACE();
    // Nothing the library holds outlives the connections: the search state
    // (pages, cursors, fallback results) goes first.
    if (ld) orv::release_search_state();
    if (ORV_OPERATION_MODE == 1) {
        // After a local fallback the user connection is the administrative
        // one; it is closed once.
        if (corporate_user_ld == corporate_admin_ld) corporate_user_ld = nullptr;
        orv::unbind(corporate_admin_ld);
        if (user_authenticated) orv::unbind(corporate_user_ld);
    }
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);
    // The session's credentials go with it.
    free_authentication_details();
    return orv::report(orv::unbind(orv_ld));
}

int orvlib_uninitialize_lib(void) {
    ORV_TRACE();
    orvlib_memfree(orv_Srv);
    orv_Srv = nullptr;
    orvlib_memfree(instanceID);
    instanceID = nullptr;
    orvlib_memfree(ORVLIB_SYSTEM_DEFAULT_DOMAIN);
    ORVLIB_SYSTEM_DEFAULT_DOMAIN = nullptr;
    free_partition_info();
    orvlib_orvlibentry_free(AUTH_USER_ORVLIBENTRY);
    AUTH_USER_ORVLIBENTRY = nullptr;
    free_radius_config_info();
    free_authentication_details();
    orv::release_search_state();
    orvlib_memfree(CORP_PEOPLE_SEARCH_BASE);
    CORP_PEOPLE_SEARCH_BASE = nullptr;
    orvlib_memfree(CORP_GROUP_SEARCH_BASE);
    CORP_GROUP_SEARCH_BASE = nullptr;
    // Connections left open by a caller that skipped the unbind.
    if (corporate_user_ld == corporate_admin_ld) corporate_user_ld = nullptr;
    orv::unbind(corporate_user_ld);
    orv::unbind(corporate_admin_ld);
    orv::unbind(orv_ld);
    // Back to the state of a freshly loaded library.
    ORV_OPERATION_MODE = 0;
    ORV_OP_MODE_SEARCH = 0;
    ORV_OS_AUTH = 0;
    ORVLIB_IS_RADIUS_CONFIGURED = 0;
    isServerInStandaloneMode = 1;
    mechanism = -1;
    operatingMechanism = -1;
    user_authenticated = 0;
    ORV_DEBUG_AT(PEX_TRACE_MAX, "Memory Count", _memCnt);
    return 0;
}

void free_authentication_details(void) {
    ORV_TRACE();
    orvlib_memfree(_user_id);
    _user_id = nullptr;
    orv::free_secret(_pwd);  // the password is wiped before it goes
    _pwd = nullptr;
}

LDAP* create_ldap_connection(const char* host, int port, const char* bindDn, const char* password) {
    ORV_TRACE();
    ORV_DEBUG("Host Name: ", host ? host : "");
    ORV_DEBUG("Port Number: ", port);
    LDAP* ld = nullptr;
    if (ORV_OPERATION_MODE == 1 && PARTITION_INFO && PARTITION_INFO->orv_ssl_enabled == 1) {
        ld = create_ssl_connection(host, port);
        if (!ld) return nullptr;
    } else {
        ld = orv::open_plain(host, port);
        if (!ld) {
            ldapErrCode = 1;
            return nullptr;
        }
    }
    orv::prepare_handle(ld);
    int deref = LDAP_DEREF_NEVER;
    if (ldap_set_option(ld, LDAP_OPT_DEREF, &deref) != LDAP_OPT_SUCCESS) {
        ORV_DEBUG("Unable to set option", "");
        orv::unbind(ld);
        return nullptr;
    }
    ORV_DEBUG("User DN: ", bindDn ? bindDn : "");
    ORV_DEBUG("Password", password ? password : "");
    int rc = orv::simple_bind(ld, bindDn, password);
    ldapErrCode = rc;
    if (rc != LDAP_SUCCESS) orv::unbind(ld);
    orvlib_get_last_error(nullptr, nullptr);
    return ld;
}

LDAP* create_ssl_connection(const char* host, int port) {
    ORV_TRACE();
    std::string path = key_database_path();
    ORV_DEBUG("CertDB Path: ", path);
    int reason = 0;
    int rc = ldap_ssl_client_init(path.c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, &reason);
    ORV_DEBUG("ldap_ssl_client_init", rc);
    return ldap_ssl_init(host, port, nullptr);
}

int attempt_sasl_bind(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::kParamError;
    berval cred{sizeof kSaslCredential - 1, const_cast<char*>(kSaslCredential)};
    berval* serverCred = nullptr;
    int rc = ldap_sasl_bind_s(ld, bindingUser, kSaslMechanism, &cred, nullptr, nullptr, &serverCred);
    if (serverCred) ber_bvfree(serverCred);
    return orv::status_from_ldap(rc);
}

int is_server_supported(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return ORV_LDAPLIB_SESSION_INVALID;
    std::string base = std::string("cn=Version Number,") + ORV_ROOT_SUFFIX;
    const char* attrs[] = {"kxslibrarycompatibleversion", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, base.c_str(), LDAP_SCOPE_BASE, "(objectclass=morvaneDirectoryVersion)",
                         attrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* entry = ldap_first_entry(ld, res.get());
    if (!entry) return ORV_LDAPLIB_VERSION_NOT_SUPPORTED;
    orv::LdapBerValues vals(ldap_get_values_len(ld, entry, "kxslibrarycompatibleversion"));
    if (!vals || !vals.get()[0]) return ORV_LDAPLIB_VERSION_NOT_SUPPORTED;
    std::string server(vals.get()[0]->bv_val, vals.get()[0]->bv_len);
    ORV_DEBUG("Server compatible version", server);
    return orv::client_version_too_old(server.c_str()) ? ORV_LDAPLIB_VERSION_NOT_SUPPORTED : 0;
}

int populate_libinfo(LDAP* ld, ORVLibInfo** info) {
    ORV_TRACE();
    if (!info) return ORV_LDAPLIB_INVALID_INPUT;
    *info = nullptr;
    const char* attrs[] = {"morvaneversion", "orvversion", "kxslibrarycompatibleversion", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_ROOT_SUFFIX, LDAP_SCOPE_SUBTREE, "(cn=Version Number)", attrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* entry = ldap_first_entry(ld, res.get());
    if (!entry) return ldap_get_lderrno(ld, nullptr, nullptr);
    ORVClient_Info* record = orvlib_orvlibinfo_malloc();
    if (!record) return orv::kNoMemory;
    record->orv_client_library_version = ORVLIB_CLIENT_LIBRARY_VERSION;
    record->orv_server_version = nullptr;
    record->orv_server_lib_compatibility_version = nullptr;
    char* serverVersion = nullptr;
    char* compatVersion = nullptr;
    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &ber); attr;
         attr = ldap_next_attribute(ld, entry, ber)) {
        orv::LdapString attrOwner(attr);
        std::string value = orv::first_value(ld, entry, attr);
        if (!strcasecmp(attr, "orvversion") || !strcasecmp(attr, "morvaneversion")) {
            replace_owned(serverVersion, value);  // the later one wins
        } else if (!strcasecmp(attr, "kxslibrarycompatibleversion")) {
            replace_owned(compatVersion, value);
        }
    }
    orv::BerPtr berOwner(ber);
    record->orv_server_version = serverVersion;
    record->orv_server_lib_compatibility_version = compatVersion;
    *info = record;
    return 0;
}

int _setOperationModeFromServer(LDAP* ld) {
    ORV_TRACE();
    const char* attrs[] = {"orvoperationmode", "orvInstanceId", "orvPrimaryCacheSize",
                           "orvSecondayCacheSize", "orvIsRadiusServerConfigured",
                           "orvSystemDefaultDomainName", nullptr};
    orv::LdapMsg res;
    int rc = orv::search(ld, ORV_ROOT_SUFFIX, LDAP_SCOPE_SUBTREE, "(cn=ORVConfigurationSettings)",
                         attrs, 0, res);
    if (rc != LDAP_SUCCESS) return rc;
    LDAPMessage* entry = ldap_first_entry(ld, res.get());
    if (!entry) return ldap_get_lderrno(ld, nullptr, nullptr);
    BerElement* ber = nullptr;
    for (char* attr = ldap_first_attribute(ld, entry, &ber); attr;
         attr = ldap_next_attribute(ld, entry, ber)) {
        orv::LdapString attrOwner(attr);
        std::string value = orv::first_value(ld, entry, attr);
        if (!strcasecmp(attr, "orvInstanceId")) {
            replace_owned(instanceID, value);
        } else if (!strcasecmp(attr, "orvoperationmode")) {
            if (value == "0") {
                ORV_OPERATION_MODE = 0;
                ORV_OP_MODE_SEARCH = 0;
            } else if (value == "1") {
                ORV_OPERATION_MODE = 1;
                ORV_OP_MODE_SEARCH = 1;
            } else if (value == "2") {
                ORV_OPERATION_MODE = 0;
                ORV_OS_AUTH = 1;
            }
        } else if (!strcasecmp(attr, "orvPrimaryCacheSize")) {
            ORVLIB_PRIMARY_CACHE_SIZE = atoi(value.c_str());
        } else if (!strcasecmp(attr, "orvSecondayCacheSize")) {
            ORVLIB_SECONDARY_CACHE_SIZE = atoi(value.c_str());
        } else if (!strcasecmp(attr, "orvIsRadiusServerConfigured")) {
            ORVLIB_IS_RADIUS_CONFIGURED = atoi(value.c_str());
        } else if (!strcasecmp(attr, "orvSystemDefaultDomainName")) {
            replace_owned(ORVLIB_SYSTEM_DEFAULT_DOMAIN, value);
        }
    }
    orv::BerPtr berOwner(ber);
    return ORV_OPERATION_MODE;
}

// ------------------------------------------------------------ connection status

int orvlib_get_connection_status(LDAP* ld) {
    ORV_TRACE();
    if (!ld) return orv::report(ORV_LDAPLIB_SESSION_INVALID);

    if (ORV_OPERATION_MODE == 1 && PARTITION_INFO) {
        const char* dn = PARTITION_INFO->admin_dn;
        const char* pw = PARTITION_INFO->admin_pwd;
        int first = 0, second = 0;
        // A corporate connection that is already gone counts as a server
        // that went down, so that it is opened again.
        auto probe = [&](LDAP* corp) {
            return corp ? orv::simple_bind(corp, dn, pw) : orv::kServerDown;
        };
        if (corporate_user_ld) {
            ORV_DEBUG("Testing corporate connection status with corporate_user_ld", "");
            first = probe(corporate_user_ld);
            ORV_DEBUG("Testing corporate connection status with corporate_admin_ld", "");
            second = probe(corporate_admin_ld);
        } else {
            ORV_DEBUG("corporate_user_ld is NULL", "");
            ORV_DEBUG("Testing corporate connection status with corporate_admin_ld", "");
            first = second = probe(corporate_admin_ld);
        }
        ldapErrCode = first;
        if (orv::is_connection_drop(first) || orv::is_connection_drop(second)) {
            ORV_DEBUG("Connection timed out. Server down", "");
            // Both corporate connections must stand again: searches and user
            // look-ups run on the administrative one.
            if (!reconnect_to_corporate_server() || !corporate_admin_ld) {
                ORV_DEBUG("temp_corp_ld is null", "");
                ORV_DEBUG("could not reestablish the corporate connection", "");
                return ORV_LDAPLIB_CONNECTION_INACTIVE;
            }
        }
    }

    std::string probe = std::string("uid=orvadmin,ou=people,") + ORV_ROOT_SUFFIX;
    const char* noAttrs[] = {LDAP_NO_ATTRS, nullptr};
    orv::LdapMsg res;
    int rc = orv::search(orv_ld, probe.c_str(), LDAP_SCOPE_BASE, "objectclass=morvaneperson", noAttrs, 1, res);
    orv::report(rc);
    if (rc == LDAP_SUCCESS) {
        ORV_DEBUG("Connection Active!", "");
        return ORV_LDAPLIB_CONNECTION_ACTIVE;
    }
    ORV_DEBUG("Connection InActive!", "");
    ORV_DEBUG("PEX Connection timed out. Server down !", "");
    ORV_DEBUG("Trying to establish PEX connection again", "");
    orv_ld = recreate_local_connection();
    if (!orv_ld) return ORV_LDAPLIB_CONNECTION_INACTIVE;
    orv::report(LDAP_SUCCESS);
    return ORV_LDAPLIB_CONNECTION_ACTIVE;
}

LDAP* recreate_local_connection(void) {
    ORV_TRACE();
    // Results read on the old connection end with it.
    orv::release_search_state();
    orv::unbind(orv_ld);
    if (!orv_Srv) return nullptr;
    LDAP* ld = open_local_connection(orv_Srv, orv_Port, _orvSSLEnabled, false);
    if (!ld) {
        ORV_DEBUG("recreating the local pex connection failed", "");
        return nullptr;
    }
    orv_ld = ld;
    return ld;
}

LDAP* reconnect_to_corporate_server(void) {
    ORV_TRACE();
    if (!PARTITION_INFO) return nullptr;
    const partition_info* p = PARTITION_INFO;
    if (corporate_user_ld == corporate_admin_ld) corporate_user_ld = nullptr;
    if (user_authenticated) {
        ORV_DEBUG("user authenticated", "");
        orv::unbind(corporate_user_ld);
        orv::unbind(corporate_admin_ld);
        corporate_admin_ld = create_ldap_connection(p->hostname, p->port_num, p->admin_dn, p->admin_pwd);
        corporate_user_ld = create_ldap_connection(p->hostname, p->port_num, _user_id, _pwd);
        return corporate_user_ld;
    }
    ORV_DEBUG("user NOT authenticated", "");
    orv::unbind(corporate_user_ld);
    orv::unbind(corporate_admin_ld);
    corporate_admin_ld = create_ldap_connection(p->hostname, p->port_num, p->admin_dn, p->admin_pwd);
    corporate_user_ld = corporate_admin_ld;
    return corporate_user_ld;
}

int orvlib_validate_server_details(const char* server, int port, int ssl) {
    ORV_TRACE();
    ORV_DEBUG("Server Name: ", server ? server : "");
    ORV_DEBUG("Port Number: ", port);
    LDAP* ld = nullptr;
    if (ssl) {
        ORV_DEBUG("SSL Enabled", "");
        std::string path = key_database_path();
        ORV_DEBUG("SSL complete Path: ", path);
        int reason = 0;
        ldap_ssl_client_init(path.c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, &reason);
        ld = ldap_ssl_init(server, port, nullptr);
    } else {
        ORV_DEBUG("SSL Disabled", "");
        ld = orv::open_plain(server, port);
    }
    if (ld) orv::prepare_handle(ld);
    int rc = is_server_supported(ld);
    if (rc != 0) {
        orv::unbind(ld);
        orv::report(rc);
        return ORV_LDAPLIB_CONNECTION_INACTIVE;
    }
    rc = orv::simple_bind(ld, "", "");
    orv::unbind(ld);
    orv::report(rc);
    return rc == LDAP_SUCCESS ? ORV_LDAPLIB_CONNECTION_ACTIVE : ORV_LDAPLIB_CONNECTION_INACTIVE;
}

}  // extern "C"
