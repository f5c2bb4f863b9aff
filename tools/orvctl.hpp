// orvctl.hpp - pieces shared by the commands of orvctl: the parsed command
// line, the library session, status reporting, secrets read from files or
// from the terminal, and entries turned into text or JSON.
//
// orvctl is a client of the public API of liborvlib: orvldap.h and the other
// headers that declare ORV_API functions.  Only the stored-credential
// notation (encipher, decipher), which the library keeps to itself, is
// compiled into the tool from the library's own unit.
#ifndef ORVCTL_HPP
#define ORVCTL_HPP

#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvldap.h"

namespace orvctl {

// Exit statuses (documented in orvctl.1 and by --help).
constexpr int kExitOk = 0;         // the operation succeeded
constexpr int kExitFailed = 1;     // the library or the server refused or failed it
constexpr int kExitUsage = 2;      // the command line is wrong
constexpr int kExitNoSession = 3;  // no session with the directory could be opened

// Where the directory is: -H, --host, --port, --ssl, --certdb and their
// environment variables.
struct Connection {
    std::string host = "localhost";
    int port = 0;          // 0: 389, or 636 over SSL
    bool ssl = false;
    std::string certdb;    // folder that holds certdb/orvclientkey.kdb
    int effective_port() const { return port ? port : (ssl ? 636 : 389); }
    std::string describe() const;  // "host:port (plain)" / "(SSL)"
};

// A wrong command line; the message is printed with the command's usage.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One command's parsed arguments.
struct Args {
    Connection conn;
    std::map<std::string, std::string> options;  // long name -> value ("" for flags)
    std::vector<std::string> positional;
    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback = "") const;
    // The value of an option that must be a port number (1..65535).
    int port_option(const std::string& name) const;
};

// ---- statuses ----

// The library's text and message identifier for a status.
struct StatusText {
    int status = 0;
    std::string text;
    std::string id;  // "" when the status has none
};
StatusText describe_status(int status);
// "status 49 (Invalid credentials) [ZVKTR0049E]"
std::string format_status(int status);
// Prints "orvctl: <what>: status ..." on stderr and returns exit_code.
int report_failure(const std::string& what, int status, int exit_code = kExitFailed);
// Prints "orvctl: <message>" on stderr.
void print_error(const std::string& message);

// ---- owners of what the library hands out ----

struct MemFree {
    void operator()(char* p) const { orvlib_memfree(p); }
};
using LibString = std::unique_ptr<char, MemFree>;
struct ValuesFree {
    void operator()(char** v) const { orvlib_free_values(v); }
};
using LibValues = std::unique_ptr<char*, ValuesFree>;
struct EntryFree {
    void operator()(ORVLibEntry* e) const { orvlib_orvlibentry_free(e); }
};
using LibEntry = std::unique_ptr<ORVLibEntry, EntryFree>;

// ---- the library session ----

// orvlib_init, the session context and, at the end, unbind and
// orvlib_uninitialize_lib.
class Session {
public:
    Session() = default;
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Opens the session; on failure prints why (unless quiet) and returns false.
    bool open(const Connection& conn, bool quiet = false);
    LDAP* ld() const { return ld_; }
    ORVLibInfo* info() const { return info_; }
    int status() const { return status_; }

private:
    bool initialised_ = false;
    LDAP* ld_ = nullptr;
    ORVLibInfo* info_ = nullptr;
    int status_ = 0;
};

// Sets the certificate folder for the library (with the trailing '/' that
// the library's key database path needs).
void apply_certdb(const Connection& conn);
// The key database the library reads for SSL: <certdb>/certdb//orvclientkey.kdb.
std::string key_database_path(const Connection& conn);

// ---- secrets ----

// The first line of a file ("-": standard input), without its line end.
bool read_secret_file(const std::string& path, std::string& out, std::string& error);
// Asks on the controlling terminal with echo switched off.
bool prompt_secret(const std::string& prompt, std::string& out, std::string& error);
// The secret from the file named by --<option> when given, else from the
// terminal.  Prints the error and returns false when neither works.
bool obtain_secret(const Args& args, const std::string& option, const std::string& prompt,
                   std::string& out);

// ---- entries ----

struct Attribute {
    int id = 0;
    std::string name;
    std::vector<std::string> values;
};
std::vector<Attribute> attributes_of(const ORVLibEntry* entry);
// First value of the DN attribute (id 0), "" when none.
std::string dn_of(const std::vector<Attribute>& attributes);
// {"dn":"...","attributes":[{"id":1,"name":"cn","values":["..."]},...]}
std::string entry_json(const std::vector<Attribute>& attributes);
// "dn: ..." then one "  name (id): value" line per value.
void print_entry(std::FILE* out, const std::vector<Attribute>& attributes);
std::string json_string(const std::string& text);
// A user given as a DN (contains '=') stays; a login name becomes the DN of
// the library's own directory.
std::string user_dn(const std::string& user);

// ---- commands ----

int cmd_info(const Args& args);
int cmd_doctor(const Args& args);
int cmd_search(const Args& args);
int cmd_auth(const Args& args);
int cmd_passwd(const Args& args);
int cmd_policy(const Args& args);
int cmd_token(const Args& args);
int cmd_validate(const Args& args);
int cmd_guid(const Args& args);
int cmd_encipher(const Args& args);
int cmd_decipher(const Args& args);
int cmd_check_password(const Args& args);
int cmd_registry(const Args& args);
int cmd_db(const Args& args);
int cmd_rel(const Args& args);

}  // namespace orvctl

#endif  // ORVCTL_HPP
