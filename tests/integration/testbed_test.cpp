// The test bed itself: instances go away completely, also when their owner
// dies or their server crashes, the server's PAM stack is pam_wrapper's,
// and the fixture reads orvtestbed's output.
#include <ldap.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "orv_ldap.hpp"
#include "testbed.hpp"

using orv::testbed::Directory;
using orv::testbed::Json;
using orv::testbed::Options;
using orv::testbed::process_running;
using orv::testbed::run_testbed;

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::string registry_record(const std::string& name) {
  const char* dir = std::getenv("ORV_TESTBED_REGISTRY");
  return std::string(dir != nullptr ? dir : "/tmp/orvtestbed-registry") + "/" + name + ".json";
}

// Waits up to `seconds` for cond to hold.
template <typename F>
bool eventually(F cond, int seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return cond();
}

// pam_wrapper folders whose recorded owner is pid.
int pam_dirs_of(int pid) {
  int n = 0;
  for (char c : std::string("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ")) {
    std::ifstream f(std::string("/tmp/pam.") + c + "/pid");
    int owner = 0;
    if (f >> owner && owner == pid) ++n;
  }
  return n;
}

int simple_bind(const std::string& uri, const std::string& dn, const std::string& pw) {
  LDAP* ld = nullptr;
  int init = ldap_initialize(&ld, uri.c_str());
  if (init != LDAP_SUCCESS) return orv::status_from_ldap(init);
  int version = LDAP_VERSION3;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
  int rc = ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
  ldap_unbind_ext_s(ld, nullptr, nullptr);
  // Statuses as the library's callers number them (81 server down).
  return orv::status_from_ldap(rc);
}

struct Gone {
  std::string workdir, name, sem;
  int pid;
  bool operator()() const {
    return !process_running(pid) && !exists(workdir) && !exists(registry_record(name)) && !exists(sem) &&
           pam_dirs_of(pid) == 0;
  }
};

Gone traces_of(const Directory& d) {
  return Gone{d.workdir(), d.name(), "/dev/shm/sem.slapd-" + d.name() + ".stats", d.pid()};
}

TEST(Testbed, DownRemovesServerAndEveryPrivateFile) {
  Directory d(Options().without_plugin());
  Gone gone = traces_of(d);
  EXPECT_TRUE(process_running(d.pid()));
  EXPECT_TRUE(exists(d.workdir()));
  EXPECT_TRUE(exists(registry_record(d.name())));
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(d.uri(), d.admin_dn(), d.admin_pw()));
  EXPECT_EQ(0u, d.workdir().find("/tmp/")) << "private folders live under the temporary directory";
  d.down();
  EXPECT_TRUE(gone()) << "server, work directory, registry record, semaphore or PAM folder left behind";
  d.down();  // a second down is harmless
}

TEST(Testbed, InstancesRunSideBySide) {
  Directory a(Options().without_plugin());
  Directory b(Options().without_plugin().with_scenario("corporate-directory").with_suffix("dc=corp,dc=test"));
  EXPECT_NE(a.port(), b.port());
  EXPECT_NE(a.name(), b.name());
  EXPECT_NE(a.workdir(), b.workdir());
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(a.uri(), a.admin_dn(), a.admin_pw()));
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(b.uri(), b.admin_dn(), b.admin_pw()));
  // Each holds its own data: b's administrator does not exist on a.
  EXPECT_EQ(LDAP_INVALID_CREDENTIALS, simple_bind(a.uri(), b.admin_dn(), b.admin_pw()));
  Gone ga = traces_of(a);
  a.down();
  EXPECT_TRUE(ga());
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(b.uri(), b.admin_dn(), b.admin_pw())) << "b survives a's teardown";
}

TEST(Testbed, InstanceGoesDownWhenItsOwnerDies) {
  pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    pause();
    _exit(0);
  }
  auto r = run_testbed({"up", "--scenario", "standalone", "--suffix", orv::testbed::default_suffix(), "--owner-pid",
                        std::to_string(owner)});
  ASSERT_EQ(0, r.status) << r.err;
  Json info = Json::parse(r.out.substr(r.out.find('{')));
  Gone gone{info.str("workdir"), info.str("name"), "/dev/shm/sem.slapd-" + info.str("name") + ".stats",
            std::atoi(info.str("pid").c_str())};
  EXPECT_TRUE(process_running(gone.pid));
  kill(owner, SIGKILL);
  waitpid(owner, nullptr, 0);
  EXPECT_TRUE(eventually(gone, 60)) << "the watcher did not remove " << gone.workdir;
  if (!gone()) run_testbed({"down", "--workdir", gone.workdir});
}

TEST(Testbed, ReapRemovesInstanceWhoseServerCrashed) {
  // No owner: the instance stays until its server dies.
  auto r = run_testbed({"up", "--scenario", "standalone", "--suffix", orv::testbed::default_suffix()});
  ASSERT_EQ(0, r.status) << r.err;
  Json info = Json::parse(r.out.substr(r.out.find('{')));
  Gone gone{info.str("workdir"), info.str("name"), "/dev/shm/sem.slapd-" + info.str("name") + ".stats",
            std::atoi(info.str("pid").c_str())};
  ASSERT_TRUE(process_running(gone.pid));
  auto reaped = run_testbed({"reap"});
  EXPECT_EQ(std::string::npos, reaped.out.find(gone.name)) << "a live instance must not be reaped";
  EXPECT_TRUE(exists(gone.workdir));

  // Crash the server (the process started for this instance).
  kill(gone.pid, SIGKILL);
  ASSERT_TRUE(eventually([&] { return !process_running(gone.pid); }, 30));
  reaped = run_testbed({"reap"});
  EXPECT_NE(std::string::npos, reaped.out.find(gone.name)) << reaped.out << reaped.err;
  EXPECT_TRUE(gone());
  if (!gone()) run_testbed({"down", "--workdir", gone.workdir});
}

TEST(Testbed, ServerAuthenticatesThroughPamWrapper) {
  Directory d(Options().without_plugin());
  // 389 DS's own PAM pass-through plugin, on the test bed's "orv" service,
  // shows that the server's PAM calls reach pam_matrix and its passdb.
  d.apply_ldif("dn: cn=PAM Pass Through Auth,cn=plugins,cn=config\nchangetype: modify\n"
               "replace: nsslapd-pluginenabled\nnsslapd-pluginenabled: on\n-\n"
               "replace: pamService\npamService: orv\n-\nreplace: pamSecure\npamSecure: FALSE\n-\n"
               "add: pamIncludeSuffix\npamIncludeSuffix: ou=People," +
               d.suffix() + "\n");
  {
    std::ofstream passdb(d.pam_passdb(), std::ios::app);
    passdb << "pamonly:OnlyInPam9:orv\n";
  }
  d.apply_ldif("dn: " + d.user_dn("pamonly") + "\nchangetype: add\nobjectClass: inetOrgPerson\nuid: pamonly\n"
               "cn: PAM Only\nsn: Only\nuserPassword: NotThisOne1\n");
  int old_pid = d.pid();
  d.restart();
  EXPECT_NE(old_pid, d.pid());
  EXPECT_EQ(0, pam_dirs_of(old_pid));
  EXPECT_EQ(1, pam_dirs_of(d.pid())) << "pam_wrapper keeps one folder for the running server";
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(d.uri(), d.user_dn("pamonly"), "OnlyInPam9"));
  EXPECT_EQ(LDAP_INVALID_CREDENTIALS, simple_bind(d.uri(), d.user_dn("pamonly"), "NotThisOne1"));
  Gone gone = traces_of(d);
  d.down();
  EXPECT_TRUE(gone());
}

int tls_bind(const Directory& d, const std::string& ca_file) {
  LDAP* ld = nullptr;
  std::string uri = "ldaps://" + d.host() + ":" + std::to_string(d.tls_port());
  int init = ldap_initialize(&ld, uri.c_str());
  if (init != LDAP_SUCCESS) return orv::status_from_ldap(init);
  int version = LDAP_VERSION3, demand = LDAP_OPT_X_TLS_DEMAND, zero = 0;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, ca_file.c_str());
  ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
  ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &zero);
  std::string pw = d.admin_pw();
  berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
  int rc = ldap_sasl_bind_s(ld, d.admin_dn().c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
  ldap_unbind_ext_s(ld, nullptr, nullptr);
  // Statuses as the library's callers number them (81 server down).
  return orv::status_from_ldap(rc);
}

TEST(Testbed, TlsStoresAndServerStopStart) {
  Directory d(Options().without_plugin().with_tls());
  ASSERT_GT(d.tls_port(), 0);
  EXPECT_NE(d.port(), d.tls_port());
  EXPECT_EQ(LDAP_SUCCESS, tls_bind(d, d.tls_ca()));
  // The PEM store is the CA certificate; the untrusted one names another CA.
  EXPECT_EQ(LDAP_SUCCESS, tls_bind(d, d.tls_dir() + "/pem/certdb/orvclientkey.kdb"));
  EXPECT_EQ(orv::kServerDown, tls_bind(d, d.tls_untrusted_dir() + "/pem/certdb/orvclientkey.kdb"));
  EXPECT_TRUE(exists(d.tls_dir() + "/p12/certdb/orvclientkey.kdb"));
  EXPECT_TRUE(exists(d.tls_untrusted_dir() + "/p12/certdb/orvclientkey.kdb"));

  int port = d.port(), old_pid = d.pid();
  d.stop_server();
  EXPECT_FALSE(process_running(old_pid));
  EXPECT_EQ(orv::kServerDown, simple_bind(d.uri(), d.admin_dn(), d.admin_pw()));
  d.start_server();
  EXPECT_EQ(port, d.port());
  EXPECT_TRUE(process_running(d.pid()));
  EXPECT_EQ(LDAP_SUCCESS, simple_bind(d.uri(), d.admin_dn(), d.admin_pw()));
  EXPECT_EQ(LDAP_SUCCESS, tls_bind(d, d.tls_ca()));
  int free = Directory::free_port();
  EXPECT_GT(free, 0);
  EXPECT_EQ(orv::kServerDown, simple_bind("ldap://127.0.0.1:" + std::to_string(free), d.admin_dn(), d.admin_pw()));
}

TEST(Testbed, FixtureParsesTestbedJson) {
  Json j = Json::parse(
      R"({"name": "orvtb-1-abc", "port": 38901, "pid": null, "ok": true, "params": {"x": "a\"b\\c\u00e9"},)"
      R"( "timing": {"total": 7.85}, "notes": ["one", "two"]})");
  EXPECT_EQ("orvtb-1-abc", j.str("name"));
  EXPECT_EQ("38901", j.str("port"));
  EXPECT_EQ("", j.str("pid"));
  EXPECT_EQ("true", j.str("ok"));
  EXPECT_EQ("", j.str("missing"));
  ASSERT_NE(nullptr, j.find("params"));
  EXPECT_EQ("a\"b\\c\xc3\xa9", j.find("params")->str("x"));
  EXPECT_EQ("7.85", j.find("timing")->str("total"));
  ASSERT_EQ(2u, j.find("notes")->items.size());
  EXPECT_EQ("two", j.find("notes")->items[1].text);
  EXPECT_THROW(Json::parse(R"({"a": 1,})"), std::runtime_error);
  EXPECT_THROW(Json::parse(R"({"a": "open)"), std::runtime_error);
  EXPECT_THROW(Json::parse("{} x"), std::runtime_error);
}

TEST(Testbed, UnknownScenarioFailsCleanly) {
  auto r = run_testbed({"up", "--scenario", "no-such-scenario"});
  EXPECT_NE(0, r.status);
  EXPECT_NE(std::string::npos, r.err.find("unknown scenario")) << r.err;
}

}  // namespace
