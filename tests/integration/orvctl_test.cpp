// orvctl driven as a user drives it, against the test bed: exit statuses,
// the status texts it prints, its --json compared with what the library
// returns in this process, paging, SSL, the environment, and a terminal
// session that checks the password prompt does not echo.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "orvldap.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace {

using orv::testbed::Json;
using orv::testbed::RunResult;

constexpr int kLargeUsers = 1100;  // more than one page of 1000

ORV_TESTBED_ENVIRONMENT(orv::testbed::Options()
                            .with_scenario("standalone-large")
                            .with_param("large_users", std::to_string(kLargeUsers))
                            .with_param("relationships", "1")
                            .with_tls());

orv::testbed::Directory& dir() { return orv::testbed::Environment::directory(); }

std::string address() { return dir().host() + ":" + std::to_string(dir().port()); }
std::string ssl_address() { return dir().host() + ":" + std::to_string(dir().tls_port()); }
std::string trusted_certdb() { return dir().tls_dir() + "/p12"; }
std::string untrusted_certdb() { return dir().tls_untrusted_dir() + "/p12"; }

RunResult orvctl(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), orv::testbed::orvctl_path());
    return orv::testbed::run_program(args, input);
}

// orvctl against the test directory (plain).
RunResult on_dir(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {"-H", address()});
    return orvctl(args, input);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string last_line(const std::string& text) {
    std::vector<std::string> all = lines(text);
    return all.empty() ? "" : all.back();
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string write_file(const std::string& name, const std::string& content) {
    std::string path = ::testing::TempDir() + "orvctl_test_" + name;
    std::ofstream(path) << content << "\n";
    return path;
}

// What the library says about a status: "status N (text) [id]".
std::string library_status_line(int status) {
    const int saved = ldapErrCode;
    ldapErrCode = status;
    char* text = nullptr;
    orvlib_get_last_error(nullptr, &text);
    ldapErrCode = saved;
    char id[16] = {0};
    if ((status >= 0 && status <= 116) || (status >= 3002 && status <= 3044)) ldap_err2Logstring(id, status);
    std::string line = "status " + std::to_string(status) + " (" + (text ? text : "") + ")";
    if (id[0]) line += std::string(" [") + id + "]";
    orvlib_memfree(text);
    return line;
}

// ---- one entry as the library hands it out, and as orvctl prints it

struct Attr {
    int id;
    std::string name;
    std::vector<std::string> values;
    bool operator==(const Attr& o) const { return id == o.id && name == o.name && values == o.values; }
};
using Entry = std::vector<Attr>;

std::ostream& operator<<(std::ostream& os, const Attr& a) {
    os << a.id << ":" << a.name << "=[";
    for (const auto& v : a.values) os << v << ";";
    return os << "]";
}

struct Search {
    int status = -1;
    std::vector<Entry> entries;
};

Entry entry_of(const ORVLibEntry* e) {
    Entry entry;
    for (ORVLibAttribute** a = e->orvlibEntryAttrData; a && *a; ++a) {
        Attr attr{(*a)->attrId, (*a)->attrName ? (*a)->attrName : "", {}};
        for (char** v = (*a)->attrVals; v && *v; ++v) attr.values.emplace_back(*v);
        entry.push_back(attr);
    }
    return entry;
}

Search library_search(LDAP* ld, const std::string& filter, int type) {
    Search out;
    LDAPMessage* res = nullptr;
    out.status = orvlib_search_ext_s(ld, filter.c_str(), type, &res);
    ORVLibEntry* e = nullptr;
    if (out.status == 0) {
        for (LDAPMessage* cur = orvlib_first_entry(ld, &e, res); cur; cur = orvlib_next_entry(ld, &e, cur)) {
            out.entries.push_back(entry_of(e));
            orvlib_orvlibentry_free(e);
            e = nullptr;
        }
    }
    orvlib_orvmessage_free(res);
    return out;
}

Entry entry_from_json(const Json& object) {
    Entry entry;
    const Json* attrs = object.find("attributes");
    if (!attrs) return entry;
    for (const Json& a : attrs->items) {
        Attr attr{static_cast<int>(a.find("id")->number), a.str("name"), {}};
        for (const Json& v : a.find("values")->items) attr.values.push_back(v.text);
        entry.push_back(attr);
    }
    return entry;
}

std::vector<Entry> entries_from_json_lines(const std::string& out) {
    std::vector<Entry> entries;
    for (const std::string& line : lines(out)) entries.push_back(entry_from_json(Json::parse(line)));
    return entries;
}

class OrvctlTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(orv::testbed::orvctl_path().empty()) << "orvctl is not built";
    }
};

// ------------------------------------------------------------ command line

TEST_F(OrvctlTest, UsageErrorsExitTwoWithoutTouchingTheDirectory) {
    EXPECT_EQ(orvctl({}).status, 2);
    RunResult unknown = orvctl({"frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("unknown command 'frobnicate'"), std::string::npos) << unknown.err;
    EXPECT_EQ(on_dir({"search", "people"}).status, 2);                      // missing filter
    EXPECT_EQ(on_dir({"search", "people", "a", "b"}).status, 2);            // one too many
    EXPECT_EQ(on_dir({"search", "persons", "alice"}).status, 2);            // no such type
    EXPECT_EQ(on_dir({"search", "people", "alice", "--attrs", ","}).status, 2);
    EXPECT_EQ(on_dir({"info", "--attrs", "cn"}).status, 2);                 // option of another command
    EXPECT_EQ(orvctl({"-H", "127.0.0.1:99999", "info"}).status, 2);        // port out of range
    EXPECT_EQ(orvctl({"--port", "x", "info"}).status, 2);
    EXPECT_EQ(orvctl({"doctor", "--ssl-port", "0"}).status, 2);
    EXPECT_EQ(orvctl({"guid", "--json"}).status, 2);
}

TEST_F(OrvctlTest, VersionAndHelp) {
    RunResult v = orvctl({"--version"});
    EXPECT_EQ(v.status, 0);
    EXPECT_EQ(v.out, std::string("orvctl 6.0.0.1 (liborvlib ") + ORVLIB_CLIENT_LIBRARY_VERSION + ")\n");

    RunResult help = orvctl({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* c : {"info", "doctor", "search", "auth", "passwd", "policy", "token", "validate", "guid",
                          "encipher"})
        EXPECT_NE(help.out.find(std::string("\n  ") + c + " "), std::string::npos) << c;
    RunResult search_help = orvctl({"search", "--help"});
    EXPECT_EQ(search_help.status, 0);
    EXPECT_NE(search_help.out.find("user-groups (5003)"), std::string::npos);
    EXPECT_EQ(orvctl({"help", "auth"}).out, orvctl({"auth", "-h"}).out);
}

TEST_F(OrvctlTest, OfflineCommands) {
    RunResult guid = orvctl({"guid"});
    EXPECT_EQ(guid.status, 0);
    ASSERT_EQ(guid.out.size(), 37u) << guid.out;
    EXPECT_EQ(guid.out[14], '1') << "version-1 GUID: " << guid.out;

    RunResult stored = orvctl({"encipher", "Corp Admin#1"});
    ASSERT_EQ(stored.status, 0);
    std::string text = stored.out.substr(0, stored.out.size() - 1);
    EXPECT_EQ(text.find("Corp"), std::string::npos);
    RunResult plain = orvctl({"decipher", text});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.out, "Corp Admin#1\n");
    EXPECT_EQ(orvctl({"decipher", "(413,3233):2790"}).out, "A\n");
    EXPECT_EQ(orvctl({"decipher", "(413,3233):2790-"}).status, 1);

    // The counts are the limits at which the library's checks turn.
    RunResult counts = orvctl({"check-password", "abcaa1!"});
    EXPECT_EQ(counts.status, 0);
    EXPECT_EQ(counts.out,
              "length                7\n"
              "numeric characters    1\n"
              "symbol characters     1\n"
              "non-alpha characters  2\n"
              "max repeated          3\n"
              "different characters  5\n");
    EXPECT_NE(orvctl({"check-password", "aaaa"}).out.find("different characters  0\n"), std::string::npos);
}

// ------------------------------------------------------------ sessions

TEST_F(OrvctlTest, InfoMatchesTheLibrary) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    char* server = nullptr;
    char* compat = nullptr;
    orvlib_get_orvlibinfo(session.info(), ORV_INFO_SERVER_VERSION, &server);
    orvlib_get_orvlibinfo(session.info(), ORV_INFO_SERVER_COMPAT_VERSION, &compat);
    const std::string server_version = server ? server : "", compat_version = compat ? compat : "";
    orvlib_memfree(server);
    orvlib_memfree(compat);

    RunResult r = on_dir({"info", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json info = Json::parse(r.out);
    EXPECT_EQ(info.str("library_version"), ORVLIB_CLIENT_LIBRARY_VERSION);
    EXPECT_EQ(info.str("server_version"), server_version);
    EXPECT_EQ(info.str("compatible_version"), compat_version);
    EXPECT_EQ(info.str("instance_id"), dir().param("instance_id"));
    EXPECT_EQ(info.str("operation_mode"), "standalone");
    EXPECT_EQ(info.str("operation_mode_value"), "0");
    EXPECT_EQ(info.str("default_domain"), dir().param("default_domain"));
    EXPECT_EQ(info.str("search_mechanism"), "virtual list view");
    EXPECT_EQ(info.find("partition")->type, Json::Type::Null);
    EXPECT_EQ(info.find("radius")->str("configured"), "false");

    RunResult text = on_dir({"info"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("instance id                  " + dir().param("instance_id") + "\n"), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("operation mode               standalone (0)\n"), std::string::npos);
}

TEST_F(OrvctlTest, NoSessionExitsThreeWithTheLibrarysStatus) {
    const int port = orv::testbed::Directory::free_port();
    orvtest::Session session("127.0.0.1", port);
    ASSERT_EQ(session.ld(), nullptr);
    const int status = session.status();
    ASSERT_NE(status, 0);

    RunResult r = orvctl({"-H", "127.0.0.1:" + std::to_string(port), "info"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "orvctl: cannot open a session with 127.0.0.1:" + std::to_string(port) + " (plain): " +
                         library_status_line(status) + "\n");
    EXPECT_EQ(r.out, "");
}

TEST_F(OrvctlTest, EnvironmentAndCommandLine) {
    const std::string closed = "127.0.0.1:" + std::to_string(orv::testbed::Directory::free_port());
    setenv("ORVCTL_HOST", address().c_str(), 1);
    RunResult from_env = orvctl({"info", "--json"});
    setenv("ORVCTL_HOST", closed.c_str(), 1);
    RunResult line_wins = orvctl({"-H", address(), "info", "--json"});
    RunResult env_closed = orvctl({"info"});
    // SSL entirely from the environment.
    setenv("ORVCTL_HOST", ssl_address().c_str(), 1);
    setenv("ORVCTL_SSL", "yes", 1);
    setenv("ORVCTL_CERTDB", trusted_certdb().c_str(), 1);
    RunResult ssl_env = orvctl({"info", "--json"});
    unsetenv("ORVCTL_HOST");
    unsetenv("ORVCTL_SSL");
    unsetenv("ORVCTL_CERTDB");

    EXPECT_EQ(from_env.status, 0) << from_env.err;
    EXPECT_EQ(Json::parse(from_env.out).str("server"), address() + " (plain)");
    EXPECT_EQ(line_wins.status, 0) << line_wins.err;
    EXPECT_EQ(Json::parse(line_wins.out).str("server"), address() + " (plain)");
    EXPECT_EQ(env_closed.status, 3);
    ASSERT_EQ(ssl_env.status, 0) << ssl_env.err;
    EXPECT_EQ(Json::parse(ssl_env.out).str("server"), ssl_address() + " (SSL)");
}

TEST_F(OrvctlTest, SslTrustedAndUntrusted) {
    RunResult trusted = orvctl({"-H", "ldaps://" + ssl_address(), "--certdb", trusted_certdb(), "info"});
    EXPECT_EQ(trusted.status, 0) << trusted.err;
    EXPECT_NE(trusted.out.find(ssl_address() + " (SSL)"), std::string::npos);

    orvtest::Session session;
    orvlib_setcertdb_path((untrusted_certdb() + "/").c_str());
    session.open(dir().host(), dir().tls_port(), 1);
    ASSERT_EQ(session.ld(), nullptr) << "an unrelated CA was trusted";
    const int status = session.status();
    session.close();
    orvlib_setcertdb_path("");

    RunResult untrusted = orvctl({"--ssl", "-H", ssl_address(), "--certdb", untrusted_certdb(), "info"});
    EXPECT_EQ(untrusted.status, 3);
    EXPECT_NE(untrusted.err.find(library_status_line(status)), std::string::npos) << untrusted.err;
}

TEST_F(OrvctlTest, DoctorHealthyAndBroken) {
    RunResult healthy = on_dir({"doctor", "--ssl-port", std::to_string(dir().tls_port()), "--certdb", trusted_certdb()});
    EXPECT_EQ(healthy.status, 0) << healthy.out;
    EXPECT_EQ(last_line(healthy.out), "verdict: healthy (7 passed, 4 skipped)");
    for (const char* step : {"reachability (plain)", "reachability (SSL)", "certificate trust",
                             "version compatibility", "SASL bind", "configuration entry", "session"})
        EXPECT_NE(healthy.out.find(std::string("  ok    ") + step), std::string::npos) << step << "\n" << healthy.out;
    EXPECT_NE(healthy.out.find("  skip  partition reachability"), std::string::npos);

    RunResult untrusted = on_dir({"doctor", "--ssl-port", std::to_string(dir().tls_port()), "--certdb", untrusted_certdb()});
    EXPECT_EQ(untrusted.status, 1);
    EXPECT_NE(untrusted.out.find("  FAIL  certificate trust"), std::string::npos) << untrusted.out;
    EXPECT_NE(untrusted.out.find("  ok    session"), std::string::npos) << "plain session is still fine";
    EXPECT_NE(last_line(untrusted.out).find("verdict: 1 problem (6 passed, 4 skipped); first: certificate trust:"),
              std::string::npos) << untrusted.out;

    const std::string closed = std::to_string(orv::testbed::Directory::free_port());
    RunResult down = orvctl({"-H", "127.0.0.1:" + closed, "doctor"});
    EXPECT_EQ(down.status, 1);
    EXPECT_NE(down.out.find("  FAIL  reachability (plain)"), std::string::npos) << down.out;
    EXPECT_NE(down.out.find("  FAIL  session"), std::string::npos) << down.out;
    EXPECT_NE(down.out.find("  skip  RADIUS configuration"), std::string::npos) << down.out;
}

// ------------------------------------------------------------ searches

TEST_F(OrvctlTest, SearchJsonIsWhatTheLibraryReturnsForEveryType) {
    struct Case {
        const char* type;
        int code;
        const char* filter;
        std::size_t at_least;
    };
    const Case cases[] = {
        {"people", ORV_SEARCH_PEOPLE, "(uid=*a*)", 3},
        {"groups", ORV_SEARCH_GROUPS, "*", 4},
        {"user-groups", ORV_SEARCH_USER_GROUPS, "alice", 2},
        {"membership", ORV_SEARCH_USER_GROUP_MEMBERSHIP, "(uid=alice)(groupCN=Admins)", 1},
        {"members", ORV_SEARCH_GROUP_MEMBERS, "Developers", 2},
        {"servers", ORV_SEARCH_APPLICATION_SERVERS, "", 1},
        {"facilities", ORV_SEARCH_APPLICATION_FACILITY, "", 1},
    };
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        Search lib = library_search(session.ld(), c.filter, c.code);
        ASSERT_EQ(lib.status, 0);
        ASSERT_GE(lib.entries.size(), c.at_least);
        RunResult r = on_dir({"search", c.type, c.filter, "--json"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(entries_from_json_lines(r.out), lib.entries);
        // The same search by number.
        RunResult by_code = on_dir({"search", std::to_string(c.code), c.filter, "--json"});
        EXPECT_EQ(by_code.out, r.out);
    }
}

TEST_F(OrvctlTest, SearchReadsEveryPage) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    Search lib = library_search(session.ld(), "(uid=user*)", ORV_SEARCH_PEOPLE);
    ASSERT_EQ(lib.status, 0);
    ASSERT_EQ(lib.entries.size(), static_cast<std::size_t>(kLargeUsers));

    RunResult json = on_dir({"search", "people", "(uid=user*)", "--json", "--attrs", "uid"});
    ASSERT_EQ(json.status, 0) << json.err;
    std::vector<std::string> out = lines(json.out);
    ASSERT_EQ(out.size(), static_cast<std::size_t>(kLargeUsers));
    for (std::size_t i = 0; i < out.size(); ++i) {
        Entry uid_only;
        for (const Attr& a : lib.entries[i])
            if (a.name == "uid") uid_only.push_back(a);
        ASSERT_EQ(entry_from_json(Json::parse(out[i])), uid_only) << "entry " << i;
    }
    RunResult table = on_dir({"search", "people", "(uid=user*)"});
    EXPECT_EQ(table.status, 0);
    EXPECT_EQ(last_line(table.out), std::to_string(kLargeUsers) + " entries");
    EXPECT_EQ(lines(table.out).size(), static_cast<std::size_t>(kLargeUsers) + 3);
}

TEST_F(OrvctlTest, SearchTableAndAttributeSelection) {
    RunResult table = on_dir({"search", "people", "alice"});
    ASSERT_EQ(table.status, 0) << table.err;
    std::vector<std::string> out = lines(table.out);
    ASSERT_EQ(out.size(), 4u) << table.out;
    EXPECT_EQ(out[0].substr(0, 5), "uid  ");
    EXPECT_NE(out[0].find("mail"), std::string::npos);
    EXPECT_EQ(out[2].substr(0, 7), "alice  ");
    EXPECT_NE(out[2].find("alice@orv.test"), std::string::npos);
    EXPECT_EQ(out[3], "1 entry");

    // Names without regard to case, ids, and names through the attribute table.
    RunResult chosen = on_dir({"search", "people", "alice", "--json", "--attrs", "UID, 6,entrydn"});
    ASSERT_EQ(chosen.status, 0) << chosen.err;
    Json entry = Json::parse(chosen.out);
    EXPECT_EQ(lower(entry.str("dn")), lower(dir().user_dn("alice")));
    std::vector<std::string> names;
    for (const Json& a : entry.find("attributes")->items) names.push_back(a.str("name"));
    EXPECT_EQ(names, (std::vector<std::string>{"uid", "mail", "entrydn"}));

    RunResult columns = on_dir({"search", "groups", "Admins", "--attrs", "cn,10"});
    ASSERT_EQ(columns.status, 0);
    out = lines(columns.out);
    ASSERT_EQ(out.size(), 4u) << columns.out;
    EXPECT_EQ(out[0].substr(0, 4), "cn  ");
    EXPECT_NE(lower(out[2]).find(lower(dir().user_dn("alice"))), std::string::npos) << "member values under id 10";

    RunResult none = on_dir({"search", "members", "Empty Group"});
    EXPECT_EQ(none.status, 0) << none.err;
    EXPECT_EQ(lines(none.out), (std::vector<std::string>{"uid  cn  dn", "---  --  --", "0 entries"}));
}

TEST_F(OrvctlTest, SearchFailureCarriesTheLibrarysStatus) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    Search lib = library_search(session.ld(), "nobody-at-all", ORV_SEARCH_USER_GROUPS);
    ASSERT_NE(lib.status, 0);
    RunResult r = on_dir({"search", "user-groups", "nobody-at-all"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvctl: search user-groups 'nobody-at-all': " + library_status_line(lib.status) + "\n");
    Search lib2 = library_search(session.ld(), "(uid=alice)", ORV_SEARCH_USER_GROUP_MEMBERSHIP);
    RunResult r2 = on_dir({"search", "membership", "(uid=alice)"});
    EXPECT_EQ(r2.status, 1);
    EXPECT_NE(r2.err.find(library_status_line(lib2.status)), std::string::npos) << r2.err;
}

// ------------------------------------------------------------ registry and databases

TEST_F(OrvctlTest, RegistryCommandsAgreeWithTheLibrary) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    LDAP* ld = session.ld();
    auto servers = [&](const std::string& id) {
        return library_search(ld, "orvFullyQualifiedObjectId=" + id, ORV_SEARCH_APPLICATION_SERVERS);
    };

    RunResult reg = on_dir({"registry", "register", "3", "srv-ctl", "--extended", "db-x,db-y", "--json"});
    ASSERT_EQ(reg.status, 0) << reg.err;
    Search lib = servers("srv-ctl");
    ASSERT_EQ(lib.status, 0);
    ASSERT_EQ(lib.entries.size(), 1u);
    Entry printed = entry_from_json(Json::parse(reg.out));
    for (const Attr& a : lib.entries[0]) {
        if (a.id == 0) continue;  // the DN's spelling comes from the read-back
        EXPECT_NE(std::find(printed.begin(), printed.end(), a), printed.end()) << a;
    }

    // A tool the library refuses: its status, nothing registered.
    RunResult refused = on_dir({"registry", "register", "22", "srv-ctl-refused"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "orvctl: register server: " + library_status_line(ORV_LDAPLIB_INVALID_INPUT) + "\n");
    EXPECT_TRUE(servers("srv-ctl-refused").entries.empty());

    // Three facilities, the second without a base URL.
    ASSERT_EQ(on_dir({"registry", "facility", "srv-ctl", "--url", "http://one/app", "--type", "web-service"}).status, 0);
    ASSERT_EQ(on_dir({"registry", "facility", "srv-ctl", "--status", "off"}).status, 0);
    ASSERT_EQ(on_dir({"registry", "facility", "srv-ctl", "--url", "http://three/q?a=1&"}).status, 0);
    EXPECT_EQ(on_dir({"registry", "facility", "srv-ctl", "--type", "fax"}).status, 2);
    EXPECT_EQ(on_dir({"registry", "facility", "no-such-server"}).status, 1);

    RunResult listed = on_dir({"registry", "list", "srv-ctl", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    Search facilities = library_search(ld, "orvFullyQualifiedObjectId=srv-ctl", ORV_SEARCH_APPLICATION_FACILITY);
    ASSERT_EQ(facilities.entries.size(), 3u);
    EXPECT_EQ(entries_from_json_lines(listed.out), facilities.entries);

    // The URLs are the library's list, up to its first empty slot.
    RunResult urls = on_dir({"registry", "urls", "srv-ctl", "urn:x:1"});
    ASSERT_EQ(urls.status, 0) << urls.err;
    std::string expected;
    {
        LDAPMessage* res = nullptr;
        ASSERT_EQ(orvlib_search_ext_s(ld, "orvFullyQualifiedObjectId=srv-ctl", ORV_SEARCH_APPLICATION_SERVERS, &res), 0);
        ORVLibEntry* server = nullptr;
        orvlib_first_entry(ld, &server, res);
        orvlib_orvmessage_free(res);
        ASSERT_NE(server, nullptr);
        char** list = orvlib_generate_application_facility_urls(ld, server, "urn:x:1");
        ASSERT_NE(list, nullptr);
        for (char** u = list; *u; ++u) expected += std::string(*u) + "\n";
        orvlib_free_values(list);
        orvlib_orvlibentry_free(server);
    }
    EXPECT_EQ(urls.out, expected);

    // One facility, then the server with the rest.
    std::string first_facility;
    for (const Attr& a : facilities.entries[0])
        if (a.id == 22) first_facility = a.values.at(0);
    ASSERT_FALSE(first_facility.empty());
    EXPECT_EQ(on_dir({"registry", "remove", "srv-ctl", first_facility}).status, 0);
    EXPECT_EQ(library_search(ld, "orvFullyQualifiedObjectId=srv-ctl", ORV_SEARCH_APPLICATION_FACILITY).entries.size(), 2u);
    EXPECT_EQ(on_dir({"registry", "remove", "srv-ctl", first_facility}).status, 1);
    EXPECT_EQ(on_dir({"registry", "remove", "srv-ctl"}).status, 0);
    EXPECT_TRUE(servers("srv-ctl").entries.empty());
    EXPECT_EQ(on_dir({"registry", "remove", "srv-ctl"}).status, 1);
    EXPECT_EQ(on_dir({"registry", "rename", "srv-ctl"}).status, 2);
}

TEST_F(OrvctlTest, DatabaseCommands) {
    RunResult made = on_dir({"db", "create", "ctldb", "db.ctl.test", "5433", "--id", "ctl-db-id"});
    ASSERT_EQ(made.status, 0) << made.err;
    RunResult again = on_dir({"db", "create", "ctldb", "db.ctl.test", "5433", "--id", "ctl-db-id"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err,
              "orvctl: create database 'ctldb': " + library_status_line(ORV_LDAPLIB_UNABLE_TO_ADD_SERVER) + "\n");
    EXPECT_EQ(on_dir({"db", "create", "ctldb", "db.ctl.test", "port"}).status, 2);

    // The repository whose first extended id is the database.
    ASSERT_EQ(on_dir({"registry", "register", "4", "repo-ctl", "--extended", "ctl-db-id"}).status, 0);
    RunResult shown = on_dir({"db", "show", "repo-ctl", "--json"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    ORVLibEntry* details = orvlib_get_database_details(session.ld(), const_cast<char*>("repo-ctl"));
    ASSERT_NE(details, nullptr);
    const Entry lib = entry_of(details);
    orvlib_orvlibentry_free(details);
    EXPECT_EQ(entry_from_json(Json::parse(shown.out)), lib);

    RunResult unknown = on_dir({"db", "show", "no-such-repo"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "orvctl: database of 'no-such-repo': " + library_status_line(LDAP_NO_SUCH_OBJECT) + "\n");
    EXPECT_EQ(on_dir({"registry", "remove", "repo-ctl"}).status, 0);
}

TEST_F(OrvctlTest, RelationshipCommandsAgreeWithTheLibrary) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    LDAP* ld = session.ld();
    auto er_entries = [&](LDAPMessage* res) {
        std::vector<Entry> out;
        ORVLibEntry* e = nullptr;
        for (LDAPMessage* cur = orvlib_first_er_entry(ld, &e, res); cur; cur = orvlib_next_er_entry(ld, &e, cur)) {
            out.push_back(entry_of(e));
            orvlib_orvlibentry_free(e);
            e = nullptr;
        }
        orvlib_orvmessage_free(res);
        return out;
    };
    // orvctl adds the derived descriptions (127, 128) of relationships.
    auto stored_only = [](std::vector<Entry> entries) {
        for (Entry& e : entries)
            e.erase(std::remove_if(e.begin(), e.end(), [](const Attr& a) { return a.id == 127 || a.id == 128; }),
                    e.end());
        return entries;
    };

    // End types and a type between them; an existing end id is shown with a warning.
    RunResult end_a = on_dir({"rel", "endtype", "add", "repository", "REPO-R1", "--id", "CTL-END-A", "--description", "ctl a"});
    ASSERT_EQ(end_a.status, 0) << end_a.err;
    ASSERT_EQ(on_dir({"rel", "endtype", "add", "tool", "1.3.6.1.4.1.47391.4", "--id", "CTL-END-B", "--description", "ctl b"}).status, 0);
    RunResult again = on_dir({"rel", "endtype", "add", "any", "--id", "CTL-END-A", "--description", "x", "--json"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.err, "orvctl: end type 'CTL-END-A' exists already; it is shown unchanged\n");
    bool repository_rule = false;
    for (const Attr& a : entry_from_json(Json::parse(again.out)))
        if (a.id == 101) repository_rule = a.values == std::vector<std::string>{"repository"};
    EXPECT_TRUE(repository_rule) << again.out;
    EXPECT_EQ(on_dir({"rel", "endtype", "add", "sometimes", "--id", "CTL-END-C", "--description", "x"}).status, 1);
    ASSERT_EQ(on_dir({"rel", "type", "add", "ctl documents", "CTL-END-A", "CTL-END-B", "--id", "CTL-TYPE"}).status, 0);
    EXPECT_EQ(on_dir({"rel", "type", "add", "x", "CTL-END-A", "NO-SUCH-END"}).status, 1);

    // Valid types from an object of R1 to one of R2 (tool T2): the library's list.
    const char* urn_a = "urn:morvane:REPO-R1:doc:ctl-1";
    const char* urn_b = "urn:morvane:REPO-R2:item:ctl-2";
    LDAPMessage* res = nullptr;
    ASSERT_EQ(orvlib_search_relationship_types(ld, const_cast<char*>(urn_a), const_cast<char*>(urn_b), &res), 0);
    std::vector<Entry> valid = er_entries(res);
    RunResult types = on_dir({"rel", "type", "list", urn_a, urn_b, "--json"});
    ASSERT_EQ(types.status, 0) << types.err;
    EXPECT_EQ(entries_from_json_lines(types.out), valid);
    bool listed = false;
    for (const Entry& e : valid)
        for (const Attr& a : e)
            if (a.id == 104 && a.values == std::vector<std::string>{"CTL-TYPE"}) listed = true;
    EXPECT_TRUE(listed);

    // Relate, search both ways, compare with the library.
    RunResult made = on_dir({"rel", "create", "CTL-TYPE", urn_a, urn_b, "--description", "ctl relates",
                             "--description-a", "Doc one", "--context-a", "v1", "--description-b", "Item two",
                             "--context-b", "v2", "--json"});
    ASSERT_EQ(made.status, 0) << made.err;
    std::string relationship_id;
    bool described = false;
    for (const Attr& a : entry_from_json(Json::parse(made.out))) {
        if (a.id == 22) relationship_id = a.values.at(0);
        if (a.id == 127) described = a.values == std::vector<std::string>{"Doc one"};
    }
    ASSERT_FALSE(relationship_id.empty()) << made.out;
    EXPECT_TRUE(described) << made.out;

    char* by_urn[] = {const_cast<char*>(urn_b), nullptr};
    ASSERT_EQ(orvlib_search_external_relationship(ld, by_urn, nullptr, &res, PEXLIB_SEARCH_BY_OBJECT_URNS), 0);
    std::vector<Entry> of_b = er_entries(res);
    ASSERT_EQ(of_b.size(), 1u);
    RunResult searched = on_dir({"rel", "search", urn_b, "--json"});
    ASSERT_EQ(searched.status, 0) << searched.err;
    EXPECT_EQ(stored_only(entries_from_json_lines(searched.out)), of_b);
    char* repo[] = {const_cast<char*>("REPO-R1"), nullptr};
    ASSERT_EQ(orvlib_search_external_relationship(ld, repo, nullptr, &res, PEXLIB_SEARCH_BY_REPOSITORY_ID), 0);
    RunResult of_repo = on_dir({"rel", "search", "--repository", "REPO-R1", "--json"});
    ASSERT_EQ(of_repo.status, 0) << of_repo.err;
    EXPECT_EQ(stored_only(entries_from_json_lines(of_repo.out)), er_entries(res));

    // The type is in use; notify marks, remove deletes.
    RunResult in_use = on_dir({"rel", "type", "remove", "CTL-TYPE"});
    EXPECT_EQ(in_use.status, 1);
    EXPECT_EQ(in_use.err, "orvctl: remove relationship type 'CTL-TYPE': " + library_status_line(3008) + "\n");
    EXPECT_EQ(on_dir({"rel", "notify", urn_a}).status, 0);
    ASSERT_EQ(orvlib_search_external_relationship(ld, by_urn, nullptr, &res, PEXLIB_SEARCH_BY_OBJECT_URNS), 0);
    std::vector<Entry> marked = er_entries(res);
    ASSERT_EQ(marked.size(), 1u);
    bool flagged = false;
    for (const Attr& a : marked[0])
        if (a.id == 114) flagged = a.values == std::vector<std::string>{"1"};
    EXPECT_TRUE(flagged);
    const std::string urn = "urn:morvane:relation:" + relationship_id;
    EXPECT_EQ(on_dir({"rel", "remove", urn}).status, 0);
    RunResult gone = on_dir({"rel", "remove", urn});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "orvctl: remove relationship '" + urn + "': " + library_status_line(3009) + "\n");
    EXPECT_EQ(on_dir({"rel", "type", "remove", "CTL-TYPE"}).status, 0);
    EXPECT_EQ(on_dir({"rel", "endtype", "remove", "CTL-END-A"}).status, 0);
    EXPECT_EQ(on_dir({"rel", "endtype", "remove", "CTL-END-B"}).status, 0);
    EXPECT_EQ(on_dir({"rel", "endtype", "show", "CTL-END-A"}).status, 1);

    // Command lines refused before any connection.
    for (std::vector<std::string> bad : {std::vector<std::string>{"rel", "type", "add", "only-a-name"},
                                         std::vector<std::string>{"rel", "endtype", "rename", "X"},
                                         std::vector<std::string>{"rel", "endtype", "add", "any"},
                                         std::vector<std::string>{"rel", "notify"},
                                         std::vector<std::string>{"rel", "create", "T", "urn:a", "urn:b"},
                                         std::vector<std::string>{"rel", "link", "a", "b"}}) {
        bad.insert(bad.begin(), {"-H", "127.0.0.1:1"});
        EXPECT_EQ(orvctl(bad).status, 2) << bad[3];
    }
}

// ------------------------------------------------------------ authentication

TEST_F(OrvctlTest, AuthWithPasswordFiles) {
    const std::string good = write_file("good", dir().user_pw());
    const std::string bad = write_file("bad", "not-the-password");
    RunResult ok = on_dir({"auth", "alice", "--password-file", good});
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_EQ(ok.out, "alice: authenticated\n");
    RunResult from_stdin = on_dir({"auth", "--password-file", "-", "alice"}, dir().user_pw() + "\n");
    EXPECT_EQ(from_stdin.status, 0) << from_stdin.err;

    RunResult wrong = on_dir({"auth", "alice", "--password-file", bad});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err, "orvctl: authentication of alice failed: " + library_status_line(49) + "\n");
    RunResult inactive = on_dir({"auth", "dave", "--password-file", good});
    EXPECT_EQ(inactive.status, 1);
    EXPECT_EQ(inactive.err, "orvctl: authentication of dave failed: " + library_status_line(3012) + "\n");
    RunResult warned = on_dir({"auth", "ppwarning", "--password-file", good});
    EXPECT_EQ(warned.status, 0) << warned.err;
    EXPECT_NE(warned.out.find("password expires in "), std::string::npos) << warned.out;
    RunResult missing = on_dir({"auth", "alice", "--password-file", "/nonexistent/file"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("cannot read /nonexistent/file"), std::string::npos);
}

// Runs orvctl on a new pseudo-terminal, answers each prompt with the next
// reply, and returns everything the terminal showed.
struct TerminalRun {
    int status = -1;
    std::string screen;
    bool echo_restored = false;
};

TerminalRun run_on_terminal(std::vector<std::string> args, const std::vector<std::string>& replies) {
    TerminalRun out;
    args.insert(args.begin(), orv::testbed::orvctl_path());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) return out;
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    std::size_t next = 0;
    std::size_t answered_at = 0;
    for (;;) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 20000) <= 0) break;
        char buf[512];
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0) break;  // EIO once the child has closed the terminal
        out.screen.append(buf, static_cast<std::size_t>(n));
        // A prompt ends in ": "; answer it once echo is off.
        if (next < replies.size() && out.screen.size() >= 2 && out.screen.compare(out.screen.size() - 2, 2, ": ") == 0 &&
            out.screen.size() > answered_at) {
            termios t;
            for (int i = 0; i < 100 && tcgetattr(master, &t) == 0 && (t.c_lflag & ECHO); ++i) usleep(10000);
            std::string reply = replies[next++] + "\n";
            if (write(master, reply.data(), reply.size()) < 0) break;
            answered_at = out.screen.size();
        }
        if (next == replies.size()) {
            termios t;
            if (tcgetattr(master, &t) == 0 && (t.c_lflag & ECHO)) out.echo_restored = true;
        }
    }
    int st = 0;
    waitpid(pid, &st, 0);
    close(master);
    out.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return out;
}

TEST_F(OrvctlTest, PasswordPromptDoesNotEcho) {
    const std::string password = dir().user_pw();
    TerminalRun ok = run_on_terminal({"-H", address(), "auth", "alice"}, {password});
    EXPECT_EQ(ok.status, 0) << ok.screen;
    EXPECT_NE(ok.screen.find("Password for alice: "), std::string::npos) << ok.screen;
    EXPECT_NE(ok.screen.find("alice: authenticated"), std::string::npos) << ok.screen;
    EXPECT_EQ(ok.screen.find(password), std::string::npos) << "the password was echoed:\n" << ok.screen;
    EXPECT_TRUE(ok.echo_restored) << "echo stayed off after the prompt";

    TerminalRun wrong = run_on_terminal({"-H", address(), "auth", "bob"}, {"Typed-Wrong-9"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.screen.find("Typed-Wrong-9"), std::string::npos) << wrong.screen;
    EXPECT_NE(wrong.screen.find(library_status_line(49)), std::string::npos) << wrong.screen;

    // passwd asks three times; a retype that differs changes nothing.
    TerminalRun mismatch = run_on_terminal({"-H", address(), "passwd", "carol"}, {password, "NewPass-1a", "NewPass-1b"});
    EXPECT_EQ(mismatch.status, 1);
    EXPECT_NE(mismatch.screen.find("Retype new password: "), std::string::npos) << mismatch.screen;
    EXPECT_NE(mismatch.screen.find("do not match"), std::string::npos) << mismatch.screen;
    EXPECT_EQ(mismatch.screen.find("NewPass-1"), std::string::npos) << mismatch.screen;
    EXPECT_EQ(on_dir({"auth", "carol", "--password-file", write_file("carol", password)}).status, 0);
}

TEST_F(OrvctlTest, PasswordChange) {
    const std::string old_pw = write_file("old", dir().user_pw());
    const std::string new_pw = write_file("new", "Fresh-Secret-42");
    RunResult refused = on_dir({"passwd", "frank", "--password-file", old_pw, "--new-password-file", new_pw});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "orvctl: password of frank not changed: " + library_status_line(3022) + "\n");

    RunResult changed = on_dir({"passwd", "bob", "--password-file", old_pw, "--new-password-file", new_pw});
    ASSERT_EQ(changed.status, 0) << changed.err;
    EXPECT_EQ(changed.out, "bob: password changed\n");
    EXPECT_EQ(on_dir({"auth", "bob", "--password-file", new_pw}).status, 0);
    EXPECT_EQ(on_dir({"auth", "bob", "--password-file", old_pw}).status, 1);

    // The policy's rules: a password without a digit is refused by the library.
    RunResult weak = on_dir({"passwd", "bob", "--password-file", new_pw, "--new-password-file",
                             write_file("weak", "NoDigitsHere")});
    EXPECT_EQ(weak.status, 1);
    EXPECT_NE(weak.err.find(library_status_line(ORV_LDAPLIB_PASSWORD_MIN_NUM_CHARS)), std::string::npos) << weak.err;
}

TEST_F(OrvctlTest, PolicyIsTheLibrarysEntry) {
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    ORVLibEntry* policy = orvlib_get_password_policy(session.ld());
    ASSERT_NE(policy, nullptr);
    Entry lib;
    for (ORVLibAttribute** a = policy->orvlibEntryAttrData; a && *a; ++a) {
        Attr attr{(*a)->attrId, (*a)->attrName, {}};
        for (char** v = (*a)->attrVals; v && *v; ++v) attr.values.emplace_back(*v);
        lib.push_back(attr);
    }
    orvlib_orvlibentry_free(policy);

    RunResult r = on_dir({"policy", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(entry_from_json(Json::parse(r.out)), lib);
    RunResult text = on_dir({"policy"});
    EXPECT_NE(text.out.find("pwdMinLength (43)"), std::string::npos) << text.out;
}

TEST_F(OrvctlTest, TokenRoundTrip) {
    if (orv::testbed::plugin_path().empty()) GTEST_SKIP() << "the ORV plugin is not built";
    RunResult token = on_dir({"token", "alice"});
    ASSERT_EQ(token.status, 0) << token.err;
    ASSERT_EQ(lines(token.out).size(), 1u);
    const std::string value = lines(token.out)[0];

    RunResult valid = on_dir({"validate", value, "--json"});
    ASSERT_EQ(valid.status, 0) << valid.err;
    EXPECT_EQ(lower(Json::parse(valid.out).str("dn")), lower(dir().user_dn("alice")));
    RunResult from_stdin = on_dir({"validate", "-"}, value + "\n");
    EXPECT_EQ(from_stdin.status, 0) << from_stdin.err;
    EXPECT_EQ(lower(lines(from_stdin.out).at(0)), lower("valid: " + dir().user_dn("alice")));
    RunResult by_dn = on_dir({"token", dir().user_dn("bob")});
    EXPECT_EQ(by_dn.status, 0) << by_dn.err;

    // Refusals carry what the library answers for the same requests.
    orvtest::Session session(dir());
    ASSERT_NE(session.ld(), nullptr);
    ORVSSOToken* forged = orvlib_create_sso_token("ORV_SSO_TOKEN", (value + "x").c_str());
    ORVLibEntry* entry = nullptr;
    const int refused = static_cast<int>(
        orvlib_validate_sso_token(session.ld(), reinterpret_cast<const ORVSSOToken**>(forged), &entry));
    orvlib_orvssotoken_free(forged);
    orvlib_orvlibentry_free(entry);
    ASSERT_NE(refused, 0);
    RunResult bad = on_dir({"validate", value + "x"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "orvctl: token refused: " + library_status_line(refused) + "\n");

    const std::string nobody = "uid=nobody,ou=People," + dir().suffix();
    char** none = orvlib_get_sso_navigation_token(session.ld(), nobody.c_str());
    EXPECT_EQ(none, nullptr);
    const int unknown = ldapErrCode;
    orvlib_free_values(none);
    RunResult no_user = on_dir({"token", nobody});
    EXPECT_EQ(no_user.status, 1);
    EXPECT_EQ(no_user.err, "orvctl: no navigation token for " + nobody + ": " + library_status_line(unknown) + "\n");
}

// Last: reseeds the directory with a RADIUS configuration.
TEST_F(OrvctlTest, ZzInfoAndDoctorNeverPrintTheRadiusSecret) {
    const std::string secret = "Very-Secret-Radius-77";
    dir().reseed("radius", {{"radius_secret", secret}, {"radius_port", "18120"}});
    RunResult text = on_dir({"info"});
    RunResult json = on_dir({"info", "--json"});
    RunResult doctor = on_dir({"doctor"});
    ASSERT_EQ(text.status, 0) << text.err;
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    for (const RunResult* r : {&text, &json, &doctor}) {
        EXPECT_EQ(r->out.find(secret), std::string::npos) << r->out;
        EXPECT_EQ(r->err.find(secret), std::string::npos) << r->err;
    }
    EXPECT_NE(text.out.find("RADIUS                       127.0.0.1:18120\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("  RADIUS secret              set (not shown)\n"), std::string::npos) << text.out;
    const Json info = Json::parse(json.out);
    const Json* radius = info.find("radius");
    ASSERT_NE(radius, nullptr);
    EXPECT_EQ(radius->str("configured"), "true");
    EXPECT_EQ(radius->str("secret_set"), "true");
    EXPECT_EQ(radius->str("port"), "18120");
    EXPECT_NE(doctor.out.find("  ok    RADIUS configuration"), std::string::npos) << doctor.out;
    EXPECT_NE(doctor.out.find("127.0.0.1:18120, secret set"), std::string::npos) << doctor.out;
}

}  // namespace
