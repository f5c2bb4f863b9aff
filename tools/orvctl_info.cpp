// orvctl_info.cpp - `orvctl info` and `orvctl doctor`.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "orvctl.hpp"
#include "orvldap_session.h"
#include "orvplatforms.h"

namespace orvctl {
namespace {

std::string library_info(ORVLibInfo* info, int option) {
    char* out = nullptr;
    orvlib_get_orvlibinfo(info, option, &out);
    LibString owned(out);
    return owned ? owned.get() : "";
}

std::string operation_mode_name() {
    if (ORV_OS_AUTH == 1) return "os-authentication";
    if (ORV_OPERATION_MODE == 1) return "corporate";
    if (ORV_OPERATION_MODE == 0) return "standalone";
    return "unknown";
}

// The configuration value as stored on the server: 0, 1 or 2.
int operation_mode_value() { return ORV_OS_AUTH == 1 ? 2 : ORV_OPERATION_MODE; }

std::string mechanism_name(int m) {
    if (m == ORV_PAGING) return "paged results";
    if (m == ORV_VLV) return "virtual list view";
    return "none";
}

std::string str(const char* s) { return s ? s : ""; }

std::string json_or_null(const char* s) { return s ? json_string(s) : "null"; }

}  // namespace

// ---------------------------------------------------------------- info

int cmd_info(const Args& args) {
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    ORVLibInfo* info = session.info();
    const std::string library = library_info(info, ORV_INFO_CLIENT_LIBRARY_VERSION);
    const std::string server = library_info(info, ORV_INFO_SERVER_VERSION);
    const std::string compat = library_info(info, ORV_INFO_SERVER_COMPAT_VERSION);
    const std::string instance = library_info(info, ORV_INFO_INSTANCE_ID);
    const int trusted_os = orvlib_is_trusted_os_auth_supported(session.ld());
    const partition_info* part = ORV_OPERATION_MODE == 1 ? PARTITION_INFO : nullptr;
    const bool radius_configured = ORVLIB_IS_RADIUS_CONFIGURED == 1;
    const radius_info* radius = radius_configured ? RADIUS_INFO : nullptr;

    if (args.has("json")) {
        std::string j = "{";
        j += "\"server\":" + json_string(args.conn.describe());
        j += ",\"library_version\":" + json_string(library);
        j += ",\"server_version\":" + json_string(server);
        j += ",\"compatible_version\":" + json_string(compat);
        j += ",\"instance_id\":" + json_string(instance);
        j += ",\"operation_mode\":" + json_string(operation_mode_name());
        j += ",\"operation_mode_value\":" + std::to_string(operation_mode_value());
        j += ",\"default_domain\":" + json_or_null(ORVLIB_SYSTEM_DEFAULT_DOMAIN);
        j += ",\"trusted_os_auth\":" + std::string(trusted_os == 1 ? "true" : "false");
        j += ",\"search_mechanism\":" + json_string(mechanism_name(operatingMechanism));
        j += ",\"primary_cache_size\":" + std::to_string(ORVLIB_PRIMARY_CACHE_SIZE);
        j += ",\"secondary_cache_size\":" + std::to_string(ORVLIB_SECONDARY_CACHE_SIZE);
        if (part) {
            j += ",\"partition\":{";
            j += "\"description\":" + json_or_null(part->description);
            j += ",\"host\":" + json_or_null(part->hostname);
            j += ",\"port\":" + std::to_string(part->port_num);
            j += ",\"ssl\":" + std::string(part->orv_ssl_enabled == 1 ? "true" : "false");
            j += ",\"admin_dn\":" + json_or_null(part->admin_dn);
            j += ",\"admin_password_set\":" + std::string(part->admin_pwd ? "true" : "false");
            j += ",\"search_base\":" + json_or_null(part->search_base);
            j += ",\"people_search_base_suffix\":" + json_or_null(part->people_search_base_suffix);
            j += ",\"group_search_base_suffix\":" + json_or_null(part->group_search_base_suffix);
            j += ",\"logon_attribute\":" + json_or_null(part->user_logon_attribute_name);
            j += ",\"blank_password_allowed\":" +
                 std::string(part->partition_allows_blank_password ? "true" : "false");
            j += ",\"domain_controller\":" + std::to_string(part->partition_is_domain_controller);
            j += ",\"search_base_type\":" + std::to_string(part->partition_search_base_type);
            j += ",\"meta_group_for_users\":" + json_or_null(part->meta_group_for_users);
            j += ",\"meta_group_for_groups\":" + json_or_null(part->meta_group_for_groups);
            j += ",\"admin_connected\":" + std::string(corporate_admin_ld ? "true" : "false");
            j += "}";
        } else {
            j += ",\"partition\":null";
        }
        j += ",\"radius\":{\"configured\":" + std::string(radius_configured ? "true" : "false");
        if (radius) {
            j += ",\"host\":" + json_or_null(radius->radius_hostname);
            j += ",\"port\":" + std::to_string(radius->radius_port_number);
            j += ",\"secret_set\":" + std::string(radius->radius_secret ? "true" : "false");
        }
        j += "}}";
        std::printf("%s\n", j.c_str());
        return kExitOk;
    }

    auto row = [](const char* label, const std::string& value) {
        std::printf("%-28s %s\n", label, value.c_str());
    };
    row("server", args.conn.describe());
    row("library version", library);
    row("server version", server);
    row("compatible library version", compat);
    row("instance id", instance);
    row("operation mode", operation_mode_name() + " (" + std::to_string(operation_mode_value()) + ")");
    row("default domain", str(ORVLIB_SYSTEM_DEFAULT_DOMAIN));
    row("trusted OS authentication", trusted_os == 1 ? "yes" : "no");
    row("search mechanism", mechanism_name(operatingMechanism));
    row("cache sizes", std::to_string(ORVLIB_PRIMARY_CACHE_SIZE) + " / " +
                           std::to_string(ORVLIB_SECONDARY_CACHE_SIZE));
    if (part) {
        row("partition", str(part->description));
        row("  host", str(part->hostname) + ":" + std::to_string(part->port_num) +
                          (part->orv_ssl_enabled == 1 ? " (SSL)" : " (plain)"));
        row("  administrator", str(part->admin_dn));
        row("  administrator password", part->admin_pwd ? "set (not shown)" : "not set");
        row("  administrator connection", corporate_admin_ld ? "bound" : "not bound");
        row("  search base", str(part->search_base));
        row("  people base suffix", str(part->people_search_base_suffix));
        row("  group base suffix", str(part->group_search_base_suffix));
        row("  logon attribute", str(part->user_logon_attribute_name));
        row("  blank passwords", part->partition_allows_blank_password ? "allowed" : "refused");
        row("  domain controller", std::to_string(part->partition_is_domain_controller));
        row("  search base type", std::to_string(part->partition_search_base_type));
        row("  meta group for users", str(part->meta_group_for_users));
        row("  meta group for groups", str(part->meta_group_for_groups));
    } else {
        row("partition", "none");
    }
    if (!radius_configured) {
        row("RADIUS", "not configured");
    } else if (!radius) {
        row("RADIUS", "configured, but its entry could not be read");
    } else {
        row("RADIUS", str(radius->radius_hostname) + ":" + std::to_string(radius->radius_port_number));
        row("  RADIUS secret", radius->radius_secret ? "set (not shown)" : "not set");
    }
    return kExitOk;
}

// ---------------------------------------------------------------- doctor

namespace {

enum class Result { Ok, Fail, Skip };

struct Outcome {
    Result result = Result::Ok;
    std::string detail;
};

Outcome ok(std::string detail) { return {Result::Ok, std::move(detail)}; }
Outcome skip(std::string detail) { return {Result::Skip, std::move(detail)}; }
Outcome failed(int status, const std::string& detail = "") {
    return {Result::Fail, (detail.empty() ? "" : detail + ": ") + format_status(status)};
}
Outcome failed_text(std::string detail) { return {Result::Fail, std::move(detail)}; }

class Doctor {
public:
    // Runs one step, prints its line and remembers failures.
    void step(const std::string& name, const std::function<Outcome()>& body) {
        auto start = std::chrono::steady_clock::now();
        Outcome o = body();
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        const char* word = o.result == Result::Ok ? "ok" : o.result == Result::Fail ? "FAIL" : "skip";
        char time[32] = "";
        if (o.result != Result::Skip) std::snprintf(time, sizeof time, "%.1f ms", ms);
        std::printf("  %-5s %-30s %10s  %s\n", word, name.c_str(), time, o.detail.c_str());
        std::fflush(stdout);
        if (o.result == Result::Ok) ++passed_;
        if (o.result == Result::Skip) ++skipped_;
        if (o.result == Result::Fail) {
            ++failed_;
            if (first_failure_.empty()) first_failure_ = name + ": " + o.detail;
        }
    }
    int verdict() const {
        if (failed_ == 0) {
            std::printf("verdict: healthy (%d passed, %d skipped)\n", passed_, skipped_);
            return kExitOk;
        }
        std::printf("verdict: %d problem%s (%d passed, %d skipped); first: %s\n", failed_,
                    failed_ == 1 ? "" : "s", passed_, skipped_, first_failure_.c_str());
        return kExitFailed;
    }

private:
    int passed_ = 0, skipped_ = 0, failed_ = 0;
    std::string first_failure_;
};

// TCP connection to host:port within timeout_ms; 0 or an errno value.
int tcp_connect(const std::string& host, int port, int timeout_ms) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0 || !list)
        return EHOSTUNREACH;
    int result = ECONNREFUSED;
    for (addrinfo* a = list; a; a = a->ai_next) {
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            result = errno;
            continue;
        }
        int rc = connect(fd, a->ai_addr, a->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = poll(&p, 1, timeout_ms);
            if (rc == 1) {
                int err = 0;
                socklen_t len = sizeof err;
                getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                rc = err == 0 ? 0 : -1;
                errno = err;
            } else {
                errno = rc == 0 ? ETIMEDOUT : errno;
                rc = -1;
            }
        }
        result = rc == 0 ? 0 : errno;
        close(fd);
        if (result == 0) break;
    }
    freeaddrinfo(list);
    return result;
}

Outcome reach(const std::string& host, int port) {
    int err = tcp_connect(host, port, 3000);
    if (err != 0) return failed_text(host + ":" + std::to_string(port) + ": " + std::strerror(err));
    return ok(host + ":" + std::to_string(port) + " accepts connections");
}

// A handle to the ORV server opened as the library opens its own, for the
// steps before the session.
struct Probe {
    LDAP* ld = nullptr;
    ~Probe() {
        if (ld) ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
};

void set_timeouts(LDAP* ld) {
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    timeval tv{5, 0};
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &tv);
}

// First value of each attribute of the first entry below base.
std::vector<std::pair<std::string, std::string>> read_entry(LDAP* ld, const std::string& base, int scope,
                                                            const char* filter,
                                                            std::vector<const char*> attrs, int& rc) {
    std::vector<std::pair<std::string, std::string>> out;
    attrs.push_back(nullptr);
    LDAPMessage* res = nullptr;
    timeval tv{5, 0};
    rc = ldap_search_ext_s(ld, base.c_str(), scope, filter, const_cast<char**>(attrs.data()), 0,
                           nullptr, nullptr, &tv, 0, &res);
    if (rc == LDAP_SUCCESS) {
        LDAPMessage* e = ldap_first_entry(ld, res);
        if (!e) {
            rc = LDAP_NO_SUCH_OBJECT;
        } else {
            for (const char* a : attrs) {
                if (!a) break;
                berval** vals = ldap_get_values_len(ld, e, a);
                if (vals && vals[0]) out.emplace_back(a, std::string(vals[0]->bv_val, vals[0]->bv_len));
                ldap_value_free_len(vals);
            }
        }
    }
    ldap_msgfree(res);
    return out;
}

std::string value(const std::vector<std::pair<std::string, std::string>>& entry, const std::string& name) {
    for (const auto& kv : entry)
        if (kv.first == name) return kv.second;
    return "";
}

}  // namespace

int cmd_doctor(const Args& args) {
    const Connection& conn = args.conn;
    const std::string host = conn.host;
    const int session_port = conn.effective_port();
    const int plain_port = conn.ssl ? (args.has("plain-port") ? args.port_option("plain-port") : 0) : session_port;
    const int ssl_port = conn.ssl ? session_port : (args.has("ssl-port") ? args.port_option("ssl-port") : 0);

    std::printf("orvctl doctor: %s\n", conn.describe().c_str());
    Doctor doctor;
    orvlib_init();
    apply_certdb(conn);

    doctor.step("reachability (plain)", [&] {
        if (!plain_port) return skip("no plain port given (--plain-port)");
        Outcome tcp = reach(host, plain_port);
        if (tcp.result != Result::Ok) return tcp;
        int rc = orvlib_validate_server_details(host.c_str(), plain_port, 0);
        if (rc != ORV_LDAPLIB_CONNECTION_ACTIVE) return failed(ldapErrCode, "the server does not answer as an ORV server");
        return ok(host + ":" + std::to_string(plain_port) + " answers");
    });
    doctor.step("reachability (SSL)", [&] {
        if (!ssl_port) return skip("no LDAPS port given (--ssl-port)");
        return reach(host, ssl_port);
    });
    doctor.step("certificate trust", [&] {
        if (!ssl_port) return skip("no LDAPS port given");
        const std::string keydb = key_database_path(conn);
        int reason = 0;
        int rc = ldap_ssl_client_init(keydb.c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, &reason);
        if (rc != 0) {
            const char* why = reason == ORV_SSL_REASON_NO_KEYDB    ? "missing or unreadable"
                              : reason == ORV_SSL_REASON_BAD_KEYDB ? "wrong password or not a key database"
                                                                   : "TLS set-up failed";
            return failed(rc, "key database " + keydb + " " + why);
        }
        rc = orvlib_validate_server_details(host.c_str(), ssl_port, 1);
        if (rc != ORV_LDAPLIB_CONNECTION_ACTIVE)
            return failed(ldapErrCode, "the server's certificate is not trusted by " + keydb + " or the handshake failed");
        return ok("certificate trusted by " + keydb);
    });

    Probe probe;
    bool bound = false;
    doctor.step("version compatibility", [&] {
        if (conn.ssl) {
            ldap_ssl_client_init(key_database_path(conn).c_str(), CLIENT_CERTIFICATE_PASSWORD, 0, nullptr);
            probe.ld = ldap_ssl_init(host.c_str(), session_port, nullptr);
        } else {
            probe.ld = ldap_init(host.c_str(), session_port);
        }
        if (!probe.ld) return failed(ORV_LDAPLIB_CONNECTION_ERROR, "no handle");
        set_timeouts(probe.ld);
        int read_rc = 0;
        auto version = read_entry(probe.ld, std::string("cn=Version Number,") + ORV_ROOT_SUFFIX, LDAP_SCOPE_BASE,
                                  "(objectclass=*)", {"orvversion", "kxslibrarycompatibleversion"}, read_rc);
        int rc = is_server_supported(probe.ld);
        std::string detail = "server " + value(version, "orvversion") + ", accepts libraries from " +
                             value(version, "kxslibrarycompatibleversion") + ", this library " +
                             ORVLIB_CLIENT_LIBRARY_VERSION;
        if (rc != 0) return failed(rc, read_rc == 0 ? detail : "version entry not readable");
        return ok(detail);
    });
    doctor.step("SASL bind", [&] {
        if (!probe.ld) return failed(ORV_LDAPLIB_CONNECTION_ERROR, "no handle");
        int rc = attempt_sasl_bind(probe.ld);
        if (rc != 0) return failed(rc, std::string("as ") + bindingUser);
        bound = true;
        return ok(std::string("bound as ") + bindingUser);
    });
    doctor.step("configuration entry", [&] {
        if (!bound) return skip("needs the SASL bind (only the administrator may read it)");
        int rc = 0;
        auto config = read_entry(probe.ld, ORV_ROOT_SUFFIX, LDAP_SCOPE_SUBTREE, "(cn=ORVConfigurationSettings)",
                                 {"orvoperationmode", "orvInstanceId", "orvIsRadiusServerConfigured"}, rc);
        if (rc != 0) return failed(rc, "cn=ORVConfigurationSettings");
        return ok("operation mode " + value(config, "orvoperationmode") + ", instance " +
                  value(config, "orvInstanceId"));
    });

    Session session;
    bool have_session = false;
    doctor.step("session", [&] {
        have_session = session.open(conn, true);
        if (!have_session) return failed(session.status(), "orvlib_getsession_context");
        return ok("operation mode " + operation_mode_name() + ", instance " + library_info(session.info(), ORV_INFO_INSTANCE_ID));
    });

    const bool corporate = have_session && ORV_OPERATION_MODE == 1;
    doctor.step("partition reachability", [&] {
        if (!have_session) return skip("no session");
        if (!corporate) return skip("not in corporate mode");
        if (!PARTITION_INFO || !PARTITION_INFO->hostname) return failed(ORV_LDAPLIB_INVALID_PARTITION_INFO);
        return reach(PARTITION_INFO->hostname, PARTITION_INFO->port_num);
    });
    doctor.step("partition administrator bind", [&] {
        if (!have_session) return skip("no session");
        if (!corporate) return skip("not in corporate mode");
        if (!corporate_admin_ld) return failed(ORV_LDAPLIB_INVALID_PARTITION_INFO, "no administrator connection");
        return ok(std::string("bound as ") + (PARTITION_INFO->admin_dn ? PARTITION_INFO->admin_dn : ""));
    });
    doctor.step("control detection", [&] {
        if (!have_session) return skip("no session");
        if (!corporate) return skip("not in corporate mode (" + mechanism_name(operatingMechanism) + " on the ORV server)");
        if (operatingMechanism != ORV_PAGING && operatingMechanism != ORV_VLV)
            return failed_text("the corporate server offers neither paged results nor virtual list view");
        return ok(mechanism_name(operatingMechanism) + " on the corporate server");
    });
    doctor.step("RADIUS configuration", [&] {
        if (!have_session) return skip("no session");
        if (ORVLIB_IS_RADIUS_CONFIGURED != 1) return skip("not configured");
        if (!RADIUS_INFO) return failed(ORV_LDAPLIB_RADIUS_NOT_CONFIGURED, "RADIUS entry");
        if (!RADIUS_INFO->radius_hostname || RADIUS_INFO->radius_port_number <= 0)
            return failed_text("the RADIUS entry names no host or port");
        if (!RADIUS_INFO->radius_secret) return failed_text("the RADIUS secret is missing or cannot be deciphered");
        return ok(std::string(RADIUS_INFO->radius_hostname) + ":" + std::to_string(RADIUS_INFO->radius_port_number) +
                  ", secret set");
    });
    return doctor.verdict();
}

}  // namespace orvctl
