// orvctl_common.cpp - session, statuses, secrets and entry output shared by
// the commands.
#include "orvctl.hpp"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "orvplatforms.h"

namespace orvctl {

std::string Connection::describe() const {
    return host + ":" + std::to_string(effective_port()) + (ssl ? " (SSL)" : " (plain)");
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
    auto it = options.find(name);
    return it == options.end() ? fallback : it->second;
}

int Args::port_option(const std::string& name) const {
    const std::string text = get(name);
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < 1 || v > 65535)
        throw UsageError("--" + name + " needs a port number (1-65535), not '" + text + "'");
    return static_cast<int>(v);
}

// ---------------------------------------------------------------- statuses

namespace {

// The message identifier tables cover 0..116 and 3002..3044 only.
bool has_message_id(int status) {
    return (status >= 0 && status <= 116) || (status >= 3002 && status <= 3044);
}

}  // namespace

StatusText describe_status(int status) {
    StatusText out;
    out.status = status;
    // orvlib_get_last_error describes ldapErrCode; point it at the status to
    // describe and put the library's own value back afterwards.
    const int saved = ldapErrCode;
    ldapErrCode = status;
    char* text = nullptr;
    orvlib_get_last_error(nullptr, &text);
    ldapErrCode = saved;
    out.text = text ? text : "";
    orvlib_memfree(text);
    if (has_message_id(status)) {
        char id[16] = {0};
        ldap_err2Logstring(id, status);
        out.id = id;
    }
    return out;
}

std::string format_status(int status) {
    StatusText t = describe_status(status);
    std::string s = "status " + std::to_string(status);
    if (!t.text.empty()) s += " (" + t.text + ")";
    if (!t.id.empty()) s += " [" + t.id + "]";
    return s;
}

int report_failure(const std::string& what, int status, int exit_code) {
    std::fprintf(stderr, "orvctl: %s: %s\n", what.c_str(), format_status(status).c_str());
    return exit_code;
}

void print_error(const std::string& message) {
    std::fprintf(stderr, "orvctl: %s\n", message.c_str());
}

// ---------------------------------------------------------------- session

void apply_certdb(const Connection& conn) {
    if (conn.certdb.empty()) return;
    std::string path = conn.certdb;
    if (path.back() != '/') path += '/';
    orvlib_setcertdb_path(path.c_str());
}

std::string key_database_path(const Connection& conn) {
    std::string path = conn.certdb;
    if (!path.empty() && path.back() != '/') path += '/';
    return path + CERTDB_PATH;
}

Session::~Session() {
    if (info_) {
        orvlib_memfree(const_cast<char*>(info_->orv_server_version));
        orvlib_memfree(const_cast<char*>(info_->orv_server_lib_compatibility_version));
        orvlib_orvlibinfo_free(info_);
    }
    if (ld_) orvlib_unbind(ld_);
    if (initialised_) orvlib_uninitialize_lib();
}

bool Session::open(const Connection& conn, bool quiet) {
    orvlib_init();
    initialised_ = true;
    apply_certdb(conn);
    ld_ = orvlib_getsession_context(conn.host.c_str(), conn.effective_port(), &info_,
                                    conn.ssl ? 1 : 0);
    status_ = ldapErrCode;
    if (!ld_) {
        // A failed session may leave status 0 behind (nothing stored).
        if (status_ == 0) status_ = ORV_LDAPLIB_CONNECTION_ERROR;
        if (!quiet)
            report_failure("cannot open a session with " + conn.describe(),
                           status_);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- secrets

bool read_secret_file(const std::string& path, std::string& out, std::string& error) {
    std::string line;
    if (path == "-") {
        if (!std::getline(std::cin, line) && line.empty()) {
            error = "nothing to read on standard input";
            return false;
        }
    } else {
        std::ifstream in(path);
        if (!in) {
            error = "cannot read " + path + ": " + std::strerror(errno);
            return false;
        }
        std::getline(in, line);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out = line;
    return true;
}

namespace {

// The terminal whose echo is off while a secret is typed, so that a signal
// can put it back before the process ends.
int g_tty = -1;
termios g_saved_tty;

void restore_tty_and_reraise(int sig) {
    if (g_tty >= 0) tcsetattr(g_tty, TCSAFLUSH, &g_saved_tty);
    signal(sig, SIG_DFL);
    raise(sig);
}

void write_all(int fd, const std::string& text) {
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

}  // namespace

bool prompt_secret(const std::string& prompt, std::string& out, std::string& error) {
    int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        error = "no terminal to ask for the password on (use --password-file)";
        return false;
    }
    termios saved;
    if (tcgetattr(fd, &saved) != 0) {
        close(fd);
        error = "cannot switch off the terminal's echo (use --password-file)";
        return false;
    }
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
    quiet.c_lflag |= ICANON;

    g_saved_tty = saved;
    g_tty = fd;
    const int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    struct sigaction restore_action {}, old_actions[5];
    restore_action.sa_handler = restore_tty_and_reraise;
    sigemptyset(&restore_action.sa_mask);
    for (int i = 0; i < 5; ++i) sigaction(signals[i], &restore_action, &old_actions[i]);

    write_all(fd, prompt);
    bool ok = tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
    std::string line;
    bool got_line = false;
    if (ok) {
        char c;
        for (;;) {
            ssize_t n = read(fd, &c, 1);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            if (c == '\n') {
                got_line = true;
                break;
            }
            line += c;
        }
    }
    tcsetattr(fd, TCSAFLUSH, &saved);
    write_all(fd, "\n");
    for (int i = 0; i < 5; ++i) sigaction(signals[i], &old_actions[i], nullptr);
    g_tty = -1;
    close(fd);
    if (!ok) {
        error = "cannot switch off the terminal's echo (use --password-file)";
        return false;
    }
    if (!got_line && line.empty()) {
        error = "no password was typed";
        return false;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out = line;
    return true;
}

bool obtain_secret(const Args& args, const std::string& option, const std::string& prompt,
                   std::string& out) {
    std::string error;
    bool ok = args.has(option) ? read_secret_file(args.get(option), out, error)
                               : prompt_secret(prompt, out, error);
    if (!ok) print_error(error);
    return ok;
}

// ---------------------------------------------------------------- entries

std::vector<Attribute> attributes_of(const ORVLibEntry* entry) {
    std::vector<Attribute> out;
    if (!entry || !entry->orvlibEntryAttrData) return out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a; ++a) {
        Attribute attr;
        attr.id = (*a)->attrId;
        attr.name = (*a)->attrName ? (*a)->attrName : "";
        if ((*a)->attrVals)
            for (char** v = (*a)->attrVals; *v; ++v) attr.values.emplace_back(*v);
        out.push_back(std::move(attr));
    }
    return out;
}

std::string dn_of(const std::vector<Attribute>& attributes) {
    for (const Attribute& a : attributes)
        if (a.id == 0 && !a.values.empty()) return a.values.front();
    return "";
}

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

std::string entry_json(const std::vector<Attribute>& attributes) {
    std::string out = "{\"dn\":" + json_string(dn_of(attributes)) + ",\"attributes\":[";
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        const Attribute& a = attributes[i];
        if (i) out += ",";
        out += "{\"id\":" + std::to_string(a.id) + ",\"name\":" + json_string(a.name) +
               ",\"values\":[";
        for (std::size_t j = 0; j < a.values.size(); ++j) {
            if (j) out += ",";
            out += json_string(a.values[j]);
        }
        out += "]}";
    }
    return out + "]}";
}

void print_entry(std::FILE* out, const std::vector<Attribute>& attributes) {
    std::fprintf(out, "dn: %s\n", dn_of(attributes).c_str());
    for (const Attribute& a : attributes)
        for (const std::string& v : a.values)
            std::fprintf(out, "  %s (%d): %s\n", a.name.c_str(), a.id, v.c_str());
}

std::string user_dn(const std::string& user) {
    if (user.find('=') != std::string::npos) return user;
    LibString dn(orvlib_get_user_dn(user.c_str()));
    return dn ? dn.get() : user;
}

}  // namespace orvctl
