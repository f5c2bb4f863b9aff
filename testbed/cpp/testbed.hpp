// Test fixture for the integration tests: throwaway 389 Directory Server
// instances on 127.0.0.1, managed by testbed/orvtestbed.
//
// A test binary normally runs against one instance started before its first
// test and removed after its last one:
//
//   ORV_TESTBED_ENVIRONMENT(orv::testbed::Options().with_scenario("standalone"));
//   TEST(Search, Something) {
//     auto& dir = orv::testbed::Environment::directory();
//     ... dir.host(), dir.port(), dir.admin_dn(), dir.reseed("osauth") ...
//   }
//
// Further instances (a corporate server, say) are Directory objects: up in
// the constructor, down in the destructor.  Every instance also goes down
// when the test process dies without tearing it down (a watcher started by
// orvtestbed follows the owning process).
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace orv::testbed {

// A parsed JSON value (enough for orvtestbed's output).
struct Json {
  enum class Type { Null, Bool, Number, String, Array, Object };
  Type type = Type::Null;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;

  static Json parse(const std::string& text);  // throws std::runtime_error
  const Json* find(const std::string& key) const;
  // The value of key as text: strings as they are, numbers without a
  // fraction as integers, true/false, "" for null or a missing key.
  std::string str(const std::string& key) const;
};

struct Options {
  std::string scenario = "standalone";
  std::string suffix;                         // empty: the build's root suffix
  std::map<std::string, std::string> params;  // scenario parameters (--set)
  bool load_plugin = true;                    // load the ORV plugin when it is built
  int radius_port = 0;                        // 0: none
  bool follow_owner = true;                   // go down when this process dies
  bool tls = false;                           // also serve LDAPS (tls_port())

  Options& with_scenario(std::string s) { scenario = std::move(s); return *this; }
  Options& with_suffix(std::string s) { suffix = std::move(s); return *this; }
  Options& with_param(const std::string& k, std::string v) { params[k] = std::move(v); return *this; }
  Options& without_plugin() { load_plugin = false; return *this; }
  Options& with_radius_port(int p) { radius_port = p; return *this; }
  Options& with_tls() { tls = true; return *this; }
};

class TestbedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One running instance.
class Directory {
 public:
  explicit Directory(const Options& options = Options());
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  const std::string& host() const { return host_; }
  int port() const { return port_; }
  std::string uri() const;
  std::string suffix() const { return info_.str("suffix"); }
  std::string root_dn() const { return info_.str("root_dn"); }
  std::string root_pw() const { return info_.str("root_pw"); }
  std::string admin_dn() const { return info_.str("admin_dn"); }
  std::string admin_pw() const { return info_.str("admin_pw"); }
  std::string user_pw() const { return info_.str("user_pw"); }
  std::string workdir() const { return info_.str("workdir"); }
  std::string pam_dir() const { return info_.str("pam_dir"); }
  std::string pam_passdb() const { return info_.str("pam_passdb"); }
  std::string scenario() const { return info_.str("scenario"); }
  std::string name() const { return info_.str("name"); }
  int pid() const;
  // LDAPS (with Options::with_tls()): the port, 0 without TLS, and client key
  // databases: <tls_dir()>/p12/certdb/orvclientkey.kdb (PKCS#12, the client
  // library's key database password) and <tls_dir()>/pem/certdb/orvclientkey.kdb
  // (PEM) trust the server's CA; the same under tls_untrusted_dir() trust an
  // unrelated CA.  tls_ca() is the CA certificate (PEM).
  int tls_port() const;
  std::string tls_dir() const { return info_.str("tls_dir"); }
  std::string tls_untrusted_dir() const { return info_.str("tls_untrusted_dir"); }
  std::string tls_ca() const { return info_.str("tls_ca"); }
  // A port on 127.0.0.1 with nothing listening at the time of the call.
  static int free_port();
  // DN of a seeded user of the ORV or corporate tree.
  std::string user_dn(const std::string& uid) const;
  // A scenario parameter as seeded (see `orvtestbed scenarios`).
  std::string param(const std::string& key) const;
  // The whole description printed by orvtestbed.
  const Json& info() const { return info_; }
  bool is_up() const { return up_; }

  // Wipe the data and load a scenario (the server keeps running).
  void reseed(const std::string& scenario, const std::map<std::string, std::string>& params = {});
  // Apply LDIF as the root DN (ldapmodify syntax; add "changetype: add"
  // for new entries).  Throws with the tool's output on failure.
  void apply_ldif(const std::string& ldif);
  // Same, returning ldapmodify's exit status and output.
  int try_apply_ldif(const std::string& ldif, std::string* output = nullptr);
  // Restart the server (e.g. after cn=config changes); the PID changes.
  void restart();
  // Stop the server, keeping data and port; start it again.
  void stop_server();
  void start_server();
  // Stop the server and remove everything; idempotent.
  void down();

 private:
  void load(const std::string& json);
  std::string workdir_;
  std::string host_;
  int port_ = 0;
  Json info_;
  bool up_ = false;
};

// A throwaway FreeRADIUS server on 127.0.0.1 (testbed/orvradius), up in the
// constructor, down in the destructor.  users_file holds "user:password"
// lines; the radius scenario writes one (Directory::info() field
// "radius_users_file").  Every reply carries a Message-Authenticator; the
// users in challenged_users get an Access-Challenge instead of an
// Access-Accept for their right password.  Throws TestbedError when it
// cannot start.
class Radius {
 public:
  Radius(const std::string& secret, const std::string& users_file,
         const std::vector<std::string>& challenged_users = {});
  ~Radius();
  Radius(const Radius&) = delete;
  Radius& operator=(const Radius&) = delete;
  int port() const { return port_; }
  int pid() const { return pid_; }
  const std::string& workdir() const { return workdir_; }
  void down();

 private:
  std::string workdir_;
  int port_ = 0;
  int pid_ = 0;
  bool up_ = false;
};

// A throwaway Samba Active Directory domain controller (testbed/orvsamba)
// on a loopback address of its own (127.0.0.<n>, ports 389 and 636), up in
// the constructor, down in the destructor.  The domain CORP.TEST
// (DC=corp,DC=test) is restored from a template provisioned once per build
// directory; see testbed/README.md for its users and groups.  Throws
// TestbedError when it cannot start.
class Samba {
 public:
  explicit Samba(int bulk_users = -1);  // -1: the template's default
  ~Samba();
  Samba(const Samba&) = delete;
  Samba& operator=(const Samba&) = delete;
  const std::string& host() const { return host_; }
  int port() const { return 389; }
  int tls_port() const { return 636; }
  int pid() const;
  std::string base() const { return info_.str("base"); }
  std::string admin_dn() const { return info_.str("admin_dn"); }
  std::string admin_pw() const { return info_.str("admin_pw"); }
  std::string user_pw() const { return info_.str("user_pw"); }
  std::string people_base() const { return info_.str("people_base"); }
  std::string group_base() const { return info_.str("group_base"); }
  std::string bulk_base() const { return info_.str("bulk_base"); }
  int bulk_users() const;
  // <tls_dir()>/certdb/orvclientkey.kdb (PEM) trusts the server's CA.
  std::string tls_dir() const { return info_.str("tls_dir"); }
  // The same trusting an unrelated CA.
  std::string tls_untrusted_dir() const { return info_.str("tls_untrusted_dir"); }
  std::string workdir() const { return info_.str("workdir"); }
  const Json& info() const { return info_; }
  // Stop the server (data and address kept); start it again.
  void stop_server();
  void start_server();
  void down();

 private:
  std::string workdir_;
  std::string host_;
  Json info_;
  bool up_ = false;
};

std::string samba_script();  // testbed/orvsamba
// Where the Samba template lives (one per build directory).
std::string samba_cache_dir();

// The instance of a test binary.
class Environment : public ::testing::Environment {
 public:
  explicit Environment(Options options = Options());
  void SetUp() override;
  void TearDown() override;
  // The running instance; throws when it could not be started.
  static Directory& directory();

 private:
  Options options_;
};

// Result of running a program.
struct RunResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Run a program (argv[0] is a path) with stdin_text as its input.
RunResult run_program(const std::vector<std::string>& argv, const std::string& stdin_text = "");
// Run testbed/orvtestbed with the given arguments.
RunResult run_testbed(const std::vector<std::string>& args, const std::string& stdin_text = "");

// Paths and settings compiled in by tests/integration/CMakeLists.txt.
std::string testbed_script();
std::string radius_script();  // testbed/orvradius
std::string orvctl_path();  // "" when the tool is not built
std::string plugin_path();  // "" when the plugin is not built
std::string default_suffix();

// True while pid names a live (non-zombie) process.
bool process_running(int pid);

// Multi-supplier replication of the main suffix between two running
// instances of the same suffix (orvtestbed replicate): the first one's data
// is copied to the second, then changes flow both ways.
void replicate(Directory& first, Directory& second);

}  // namespace orv::testbed

#define ORV_TESTBED_CONCAT2(a, b) a##b
#define ORV_TESTBED_CONCAT(a, b) ORV_TESTBED_CONCAT2(a, b)
// Registers the instance of this test binary.
#define ORV_TESTBED_ENVIRONMENT(options)                                   \
  static ::testing::Environment* const ORV_TESTBED_CONCAT(orv_testbed_env_, \
                                                          __LINE__) =      \
      ::testing::AddGlobalTestEnvironment(new ::orv::testbed::Environment(options))
