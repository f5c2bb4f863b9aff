// orvctl - command-line tool for the ORV directory over liborvlib.
//
//   orvctl [connection options] COMMAND [options] [arguments]
//
// Connection options (every command that talks to a directory):
//   -H host[:port] | ldap://host:port | ldaps://host:port
//   --host HOST, -p/--port PORT, --ssl, --certdb DIR
//   and the environment variables ORVCTL_HOST (as -H), ORVCTL_PORT,
//   ORVCTL_SSL (1/yes/true/on), ORVCTL_CERTDB.  The command line wins.
//
// Exit status: 0 success, 1 the operation failed, 2 usage error, 3 no
// session with the directory.  See orvctl(1).
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orvctl.hpp"

#ifndef ORVCTL_VERSION
#define ORVCTL_VERSION "unknown"
#endif

namespace orvctl {
namespace {

struct OptionInfo {
    const char* name;        // long name without "--"
    char short_name;         // 0 when none
    const char* value_name;  // nullptr for a flag
    const char* help;
};

struct Command {
    const char* name;
    const char* synopsis;  // arguments after the name
    const char* summary;
    const char* description;
    std::vector<OptionInfo> options;
    int min_args;
    int max_args;
    bool connects;  // uses the connection options
    int (*run)(const Args&);
};

const std::vector<OptionInfo> kConnectionOptions = {
    {"host", 'H', "HOST[:PORT]", "directory server: host[:port], ldap://host:port or ldaps://host:port"},
    {"port", 'p', "PORT", "port (default 389, or 636 with --ssl)"},
    {"ssl", 0, nullptr, "connect over SSL (LDAPS)"},
    {"certdb", 0, "DIR", "folder holding certdb/orvclientkey.kdb, the key database for SSL"},
};

const OptionInfo kHelpOption = {"help", 'h', nullptr, "show this help"};

const char kSearchTypes[] =
    "TYPE is one of: people (5001), groups (5002), user-groups (5003),\n"
    "membership (5004), members (5005), servers (5006), facilities (5007).\n"
    "FILTER is what the library accepts for that type: a bare name, a partial\n"
    "or full LDAP filter, or a DN; membership takes '(uid=USER)(groupCN=GROUP)'.\n"
    "Results come page by page from the server; orvctl reads them all.";

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {"info", "", "show library, server and configuration details",
         "Opens a session and prints the library version, the server version and the\n"
         "oldest library version the server accepts, the instance id, the operation\n"
         "mode, the corporate partition and the RADIUS server.  Secrets (the partition\n"
         "administrator's password, the RADIUS secret) are never printed.",
         {{"json", 0, nullptr, "print one JSON object"}}, 0, 0, true, cmd_info},
        {"doctor", "", "check each step of a session and give a verdict",
         "Runs the steps of a session one by one and prints each with its round trip\n"
         "and status: reachability plain and over SSL, certificate trust, version\n"
         "compatibility, SASL bind, configuration entry, the session itself, partition\n"
         "reachability and administrator bind, control detection on the corporate\n"
         "server, RADIUS configuration.  Ends with a one-line verdict.\n"
         "Without --ssl the session port is the plain one and --ssl-port names the\n"
         "LDAPS port to check; with --ssl the session port is the LDAPS one and\n"
         "--plain-port names the plain port.  A port not given is not checked.",
         {{"ssl-port", 0, "PORT", "LDAPS port to check beside a plain session"},
          {"plain-port", 0, "PORT", "plain port to check beside an SSL session"}},
         0, 0, true, cmd_doctor},
        {"search", "TYPE FILTER", "search people, groups, members, servers, facilities",
         kSearchTypes,
         {{"json", 0, nullptr, "print one JSON object per entry (attribute names, ids, values)"},
          {"attrs", 0, "LIST", "comma-separated attribute names or ids to show"}},
         2, 2, true, cmd_search},
        {"auth", "USER", "check a user's password",
         "Authenticates USER (a login name) with the password typed at the prompt (no\n"
         "echo) or read from --password-file.  With --repository the user is checked\n"
         "as a user of that database, with its second factors: when the RADIUS factor\n"
         "is due, the passcode is asked for (or read from --otp-file).",
         {{"password-file", 0, "FILE", "read the password from the first line of FILE (- for stdin)"},
          {"repository", 0, "ID", "authenticate as a user of this database repository"},
          {"otp-file", 0, "FILE", "read the RADIUS passcode from FILE"}},
         1, 1, true, cmd_auth},
        {"passwd", "USER", "change a user's password",
         "Changes USER's password: the current password and the new one (twice) are\n"
         "asked for without echo, or read from files.  The library checks the current\n"
         "password, the user's right to change it and the password rules.",
         {{"password-file", 0, "FILE", "read the current password from FILE"},
          {"new-password-file", 0, "FILE", "read the new password from FILE"}},
         1, 1, true, cmd_passwd},
        {"policy", "", "show the password rules",
         "Prints the password rules of the library's directory and of the server.",
         {{"json", 0, nullptr, "print one JSON object"}}, 0, 0, true, cmd_policy},
        {"token", "USER", "issue a navigation token for a user",
         "Prints a single sign-on navigation token for USER (a login name of the\n"
         "library's directory or a DN).",
         {}, 1, 1, true, cmd_token},
        {"validate", "TOKEN", "validate a navigation token",
         "Asks the server to validate TOKEN (- reads it from standard input) and\n"
         "prints the entry of the user it names.",
         {{"json", 0, nullptr, "print the entry as one JSON object"}}, 1, 1, true, cmd_validate},
        {"registry", "SUBCOMMAND ...", "register servers and facilities, build URLs",
         "  registry register TOOL [SERVER_ID] [--extended ID,...]\n"
         "      registers a server of tool TOOL (2..8); without SERVER_ID it gets a new UUID\n"
         "  registry facility SERVER_ID [--url URL] [--type TYPE] [--status on|off]\n"
         "      adds a facility to the server; TYPE is rich-client, web-client (default),\n"
         "      web-service or internal\n"
         "  registry remove SERVER_ID [FACILITY_ID]\n"
         "      removes one facility, or the server after all its facilities\n"
         "  registry urls SERVER_ID [URN]\n"
         "      prints the URL of each facility of the server, the URN appended; the list\n"
         "      stops at the first facility without a base URL\n"
         "  registry list [SERVER_ID]\n"
         "      lists the registered servers, or the facilities of one server",
         {{"json", 0, nullptr, "print one JSON object per entry"},
          {"extended", 0, "LIST", "comma-separated extended ids of the server (at most 9)"},
          {"url", 0, "URL", "base URL of the facility"},
          {"type", 0, "TYPE", "facility type"},
          {"status", 0, "STATE", "facility status: on or off"}},
         1, 3, true, cmd_registry},
        {"db", "SUBCOMMAND ...", "register a database and its access role, show one",
         "  db create NAME HOST PORT [--id ID]\n"
         "      registers the database NAME on HOST:PORT (without --id it gets a new\n"
         "      UUID) and an access role for it\n"
         "  db show REPOSITORY_ID\n"
         "      prints the database settings of a registered repository",
         {{"json", 0, nullptr, "print the entry as one JSON object"},
          {"id", 0, "ID", "the database id"}},
         1, 4, true, cmd_db},
        {"rel", "SUBCOMMAND ...", "end types, relationship types and relationships",
         "  rel endtype add RULE_TYPE [VALUE...] --description TEXT [--id ID]\n"
         "      creates an end type; RULE_TYPE is any, repository or tool, the values\n"
         "      repository ids or tool OIDs (at most 19)\n"
         "  rel endtype show|remove END_ID\n"
         "  rel type add NAME END_A END_B [--id ID]\n"
         "      creates a relationship type from end type END_A to END_B\n"
         "  rel type list [URN_A URN_B]\n"
         "      every relationship type, or those valid from object URN_A to URN_B\n"
         "  rel type remove TYPE_ID\n"
         "  rel create TYPE_ID URN_A URN_B --description-a TEXT --context-a C\n"
         "             --description-b TEXT --context-b C [--description TEXT]\n"
         "      relates two external objects (created or updated on the way)\n"
         "  rel search [--repository ID [--context C]] | rel search URN...\n"
         "      relationships of a repository, of objects, or all\n"
         "  rel remove RELATIONSHIP_URN [--mark]\n"
         "      deletes the relationship named by the last ':' field, or marks it\n"
         "  rel notify --repository ID [--context C] | rel notify URN...\n"
         "      marks the relationships of a repository or of objects for deletion",
         {{"json", 0, nullptr, "print one JSON object per entry"},
          {"id", 0, "ID", "id of the new end type or relationship type"},
          {"description", 0, "TEXT", "description of the end type or relationship"},
          {"description-a", 0, "TEXT", "description of object A"},
          {"description-b", 0, "TEXT", "description of object B"},
          {"context-a", 0, "C", "context of object A"},
          {"context-b", 0, "C", "context of object B"},
          {"repository", 0, "ID", "repository id"},
          {"context", 0, "C", "object context"},
          {"mark", 0, nullptr, "mark for deletion instead of deleting"}},
         1, 3 + PEXLIB_MAX_RULE_VALUES, true, cmd_rel},
        {"guid", "", "print a new version-1 GUID", "Prints a new version-1 GUID.", {}, 0, 0, false,
         cmd_guid},
        {"encipher", "PLAINTEXT", "print the stored form of a credential",
         "Prints the stored (enciphered) form of a credential such as the partition\n"
         "administrator's password or the RADIUS secret; see docs/stored-credentials.md.",
         {}, 1, 1, false, cmd_encipher},
        {"decipher", "STORED", "print the plain text of a stored credential",
         "Prints the plain text of a stored credential.", {}, 1, 1, false, cmd_decipher},
        {"check-password", "TEXT", "print the character counts of the password checks",
         "Prints the counts that the library's password character checks compare\n"
         "with the policy's limits.", {}, 1, 1, false, cmd_check_password},
    };
    return table;
}

void print_option(std::FILE* out, const OptionInfo& o) {
    std::string head = o.short_name ? std::string("-") + o.short_name + ", " : "    ";
    head += std::string("--") + o.name;
    if (o.value_name) head += std::string(" ") + o.value_name;
    std::fprintf(out, "  %-28s %s\n", head.c_str(), o.help);
}

const char kExitText[] =
    "exit status: 0 success, 1 the operation failed (status, text and message id\n"
    "are printed), 2 usage error, 3 no session with the directory\n";

const char kEnvironmentText[] =
    "environment: ORVCTL_HOST (as -H), ORVCTL_PORT, ORVCTL_SSL (1, yes, true, on),\n"
    "ORVCTL_CERTDB; options on the command line win\n";

void usage(std::FILE* out) {
    std::fprintf(out, "usage: orvctl [connection options] COMMAND [options] [arguments]\n\ncommands:\n");
    for (const Command& c : commands()) {
        std::string head = std::string(c.name) + (c.synopsis[0] ? " " : "") + c.synopsis;
        std::fprintf(out, "  %-28s %s\n", head.c_str(), c.summary);
    }
    std::fprintf(out, "\nconnection options:\n");
    for (const OptionInfo& o : kConnectionOptions) print_option(out, o);
    std::fprintf(out, "\nother options:\n");
    print_option(out, kHelpOption);
    std::fprintf(out, "  %-28s %s\n", "    --version", "show the versions of orvctl and the library");
    std::fprintf(out, "\n%s%s\norvctl COMMAND --help describes a command; see also orvctl(1).\n",
                 kEnvironmentText, kExitText);
}

void command_usage(std::FILE* out, const Command& c) {
    std::fprintf(out, "usage: orvctl %s%s%s%s\n\n%s\n", c.name, c.connects ? " [connection options]" : "",
                 c.options.empty() ? "" : " [options]",
                 (std::string(c.synopsis[0] ? " " : "") + c.synopsis).c_str(), c.description);
    if (!c.options.empty()) {
        std::fprintf(out, "\noptions:\n");
        for (const OptionInfo& o : c.options) print_option(out, o);
    }
    if (c.connects) {
        std::fprintf(out, "\nconnection options:\n");
        for (const OptionInfo& o : kConnectionOptions) print_option(out, o);
        std::fprintf(out, "\n%s", kEnvironmentText);
    }
    std::fprintf(out, "\n%s", kExitText);
}

const Command* find_command(const std::string& name) {
    for (const Command& c : commands())
        if (name == c.name) return &c;
    return nullptr;
}

int parse_port(const std::string& text, const char* what) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < 1 || v > 65535)
        throw UsageError(std::string(what) + " needs a port number (1-65535), not '" + text + "'");
    return static_cast<int>(v);
}

bool truthy(const std::string& v) {
    return v == "1" || strcasecmp(v.c_str(), "yes") == 0 || strcasecmp(v.c_str(), "true") == 0 ||
           strcasecmp(v.c_str(), "on") == 0;
}

// host, host:port, ldap://host[:port][/], ldaps://host[:port][/]; IPv6
// addresses in brackets.
void apply_host(Connection& conn, std::string text, const char* what) {
    if (text.rfind("ldaps://", 0) == 0) {
        conn.ssl = true;
        text = text.substr(8);
    } else if (text.rfind("ldap://", 0) == 0) {
        text = text.substr(7);
    }
    if (!text.empty() && text.back() == '/') text.pop_back();
    std::string host = text, port;
    if (!text.empty() && text[0] == '[') {
        std::size_t close = text.find(']');
        if (close == std::string::npos) throw UsageError(std::string(what) + ": unbalanced '[' in '" + text + "'");
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':') throw UsageError(std::string(what) + ": bad address '" + text + "'");
            port = text.substr(close + 2);
        }
    } else {
        std::size_t colon = text.find(':');
        if (colon != std::string::npos && text.find(':', colon + 1) == std::string::npos) {
            host = text.substr(0, colon);
            port = text.substr(colon + 1);
        }
    }
    if (host.empty()) throw UsageError(std::string(what) + " needs a host name");
    conn.host = host;
    if (!port.empty()) conn.port = parse_port(port, what);
}

Connection connection_from_environment() {
    Connection conn;
    if (const char* v = std::getenv("ORVCTL_HOST"); v && *v) apply_host(conn, v, "ORVCTL_HOST");
    if (const char* v = std::getenv("ORVCTL_PORT"); v && *v) conn.port = parse_port(v, "ORVCTL_PORT");
    if (const char* v = std::getenv("ORVCTL_SSL"); v && *v) conn.ssl = truthy(v);
    if (const char* v = std::getenv("ORVCTL_CERTDB"); v && *v) conn.certdb = v;
    return conn;
}

const OptionInfo* match_option(const std::vector<const std::vector<OptionInfo>*>& sets,
                               const std::string& arg, std::string& value, bool& has_value) {
    has_value = false;
    for (const auto* set : sets) {
        for (const OptionInfo& o : *set) {
            if (arg.rfind("--", 0) == 0) {
                std::string body = arg.substr(2);
                std::size_t eq = body.find('=');
                std::string name = body.substr(0, eq);
                if (name != o.name) continue;
                if (eq != std::string::npos) {
                    value = body.substr(eq + 1);
                    has_value = true;
                }
                return &o;
            }
            if (o.short_name && arg.size() >= 2 && arg[0] == '-' && arg[1] == o.short_name) {
                if (arg.size() > 2) {
                    value = arg.substr(2);
                    has_value = true;
                }
                return &o;
            }
        }
    }
    return nullptr;
}

struct Parsed {
    const Command* command = nullptr;
    Args args;
    bool help = false;
    bool version = false;
};

Parsed parse(int argc, char** argv) {
    Parsed p;
    Connection& conn = p.args.conn;
    conn = connection_from_environment();
    // Command-line connection options are applied after the environment;
    // --host/-H first, so that --port and --ssl given beside it win.
    std::string host_arg;
    std::string port_arg;
    bool ssl_flag = false;
    std::vector<const std::vector<OptionInfo>*> sets;
    const std::vector<OptionInfo> help_set = {kHelpOption, {"version", 0, nullptr, ""}};
    sets.push_back(&kConnectionOptions);
    sets.push_back(&help_set);

    bool only_positional = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (!only_positional && arg == "--") {
            only_positional = true;
            continue;
        }
        if (only_positional || arg.size() < 2 || arg[0] != '-') {
            if (!p.command) {
                p.command = find_command(arg);
                if (!p.command) {
                    if (arg == "help") {
                        p.help = true;
                        continue;
                    }
                    throw UsageError("unknown command '" + arg + "'");
                }
                sets.push_back(&p.command->options);
                continue;
            }
            p.args.positional.push_back(arg);
            continue;
        }
        std::string value;
        bool has_value = false;
        const OptionInfo* o = match_option(sets, arg, value, has_value);
        if (!o) throw UsageError("unknown option '" + arg + "'" +
                                 (p.command ? std::string(" for ") + p.command->name : std::string()));
        const std::string name = o->name;
        if (o->value_name) {
            if (!has_value) {
                if (i + 1 >= argc) throw UsageError("--" + name + " needs a value");
                value = argv[++i];
            }
        } else if (has_value) {
            throw UsageError("--" + name + " takes no value");
        }
        if (name == "help") p.help = true;
        else if (name == "version") p.version = true;
        else if (name == "host") host_arg = value;
        else if (name == "port") port_arg = value;
        else if (name == "ssl") ssl_flag = true;
        else if (name == "certdb") conn.certdb = value;
        else p.args.options[name] = value;
    }
    if (!host_arg.empty()) {
        // A host given on the command line does not inherit the environment's port.
        conn.port = 0;
        apply_host(conn, host_arg, "-H");
    }
    if (!port_arg.empty()) conn.port = parse_port(port_arg, "--port");
    if (ssl_flag) conn.ssl = true;
    if (p.help && p.command == nullptr && !p.args.positional.empty()) {
        p.command = find_command(p.args.positional.front());
        if (!p.command) throw UsageError("unknown command '" + p.args.positional.front() + "'");
    }
    return p;
}

}  // namespace
}  // namespace orvctl

int main(int argc, char** argv) {
    using namespace orvctl;
    Parsed parsed;
    try {
        parsed = parse(argc, argv);
    } catch (const UsageError& e) {
        print_error(e.what());
        std::fprintf(stderr, "try 'orvctl --help'\n");
        return kExitUsage;
    }
    if (parsed.version) {
        std::printf("orvctl %s (liborvlib %s)\n", ORVCTL_VERSION, ORVLIB_CLIENT_LIBRARY_VERSION);
        return kExitOk;
    }
    if (parsed.help) {
        if (parsed.command) command_usage(stdout, *parsed.command);
        else usage(stdout);
        return kExitOk;
    }
    if (!parsed.command) {
        usage(stderr);
        return kExitUsage;
    }
    const Command& c = *parsed.command;
    const int count = static_cast<int>(parsed.args.positional.size());
    if (count < c.min_args || count > c.max_args) {
        print_error(std::string(c.name) + ": " +
                    (count < c.min_args ? "missing arguments" : "too many arguments"));
        std::fprintf(stderr, "usage: orvctl %s%s%s\n", c.name, c.synopsis[0] ? " " : "", c.synopsis);
        return kExitUsage;
    }
    try {
        return c.run(parsed.args);
    } catch (const UsageError& e) {
        print_error(std::string(c.name) + ": " + e.what());
        return kExitUsage;
    }
}
