// Test fixture: throwaway 389 DS instances through testbed/orvtestbed.
#include "testbed.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#ifndef ORV_TESTBED_SCRIPT
#error "ORV_TESTBED_SCRIPT must name testbed/orvtestbed"
#endif
#ifndef ORV_TESTBED_SUFFIX
#define ORV_TESTBED_SUFFIX "dc=orv,dc=test"
#endif

namespace orv::testbed {

// ------------------------------------------------------------------ JSON

namespace {

class JsonParser {
 public:
  explicit JsonParser(const std::string& s) : s_(s) {}

  Json document() {
    Json v = value();
    skip_ws();
    if (pos_ != s_.size()) fail("trailing characters");
    return v;
  }

 private:
  [[noreturn]] void fail(const char* what) const {
    throw std::runtime_error(std::string("JSON: ") + what + " at offset " + std::to_string(pos_));
  }
  void skip_ws() {
    while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r'))
      ++pos_;
  }
  bool consume(const char* word) {
    size_t n = std::strlen(word);
    if (s_.compare(pos_, n, word) == 0) {
      pos_ += n;
      return true;
    }
    return false;
  }
  Json value() {
    skip_ws();
    if (pos_ >= s_.size()) fail("unexpected end");
    Json v;
    char c = s_[pos_];
    if (c == '{') {
      v.type = Json::Type::Object;
      ++pos_;
      skip_ws();
      if (pos_ < s_.size() && s_[pos_] == '}') {
        ++pos_;
        return v;
      }
      for (;;) {
        skip_ws();
        if (pos_ >= s_.size() || s_[pos_] != '"') fail("object key expected");
        std::string key = string();
        skip_ws();
        if (pos_ >= s_.size() || s_[pos_] != ':') fail("':' expected");
        ++pos_;
        v.members[key] = value();
        skip_ws();
        if (pos_ < s_.size() && s_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (pos_ < s_.size() && s_[pos_] == '}') {
          ++pos_;
          return v;
        }
        fail("',' or '}' expected");
      }
    }
    if (c == '[') {
      v.type = Json::Type::Array;
      ++pos_;
      skip_ws();
      if (pos_ < s_.size() && s_[pos_] == ']') {
        ++pos_;
        return v;
      }
      for (;;) {
        v.items.push_back(value());
        skip_ws();
        if (pos_ < s_.size() && s_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (pos_ < s_.size() && s_[pos_] == ']') {
          ++pos_;
          return v;
        }
        fail("',' or ']' expected");
      }
    }
    if (c == '"') {
      v.type = Json::Type::String;
      v.text = string();
      return v;
    }
    if (consume("true")) {
      v.type = Json::Type::Bool;
      v.boolean = true;
      return v;
    }
    if (consume("false")) {
      v.type = Json::Type::Bool;
      return v;
    }
    if (consume("null")) return v;
    if (c == '-' || (c >= '0' && c <= '9')) {
      size_t start = pos_;
      while (pos_ < s_.size() && std::strchr("+-.eE0123456789", s_[pos_]) != nullptr) ++pos_;
      v.type = Json::Type::Number;
      v.text = s_.substr(start, pos_ - start);
      char* end = nullptr;
      v.number = std::strtod(v.text.c_str(), &end);
      if (end == nullptr || *end != '\0') fail("bad number");
      return v;
    }
    fail("unexpected character");
  }
  static void put_utf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  unsigned hex4() {
    if (pos_ + 4 > s_.size()) fail("short \\u escape");
    unsigned v = 0;
    for (int i = 0; i < 4; ++i) {
      char h = s_[pos_++];
      v <<= 4;
      if (h >= '0' && h <= '9') v |= static_cast<unsigned>(h - '0');
      else if (h >= 'a' && h <= 'f') v |= static_cast<unsigned>(h - 'a' + 10);
      else if (h >= 'A' && h <= 'F') v |= static_cast<unsigned>(h - 'A' + 10);
      else fail("bad \\u escape");
    }
    return v;
  }
  std::string string() {
    ++pos_;  // opening quote
    std::string out;
    while (pos_ < s_.size()) {
      char c = s_[pos_++];
      if (c == '"') return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= s_.size()) break;
      char e = s_[pos_++];
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          unsigned cp = hex4();
          if (cp >= 0xD800 && cp < 0xDC00 && s_.compare(pos_, 2, "\\u") == 0) {
            pos_ += 2;
            unsigned lo = hex4();
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
          }
          put_utf8(out, cp);
          break;
        }
        default: fail("bad escape");
      }
    }
    fail("unterminated string");
  }

  const std::string& s_;
  size_t pos_ = 0;
};

}  // namespace

Json Json::parse(const std::string& text) { return JsonParser(text).document(); }

const Json* Json::find(const std::string& key) const {
  auto it = members.find(key);
  return it == members.end() ? nullptr : &it->second;
}

std::string Json::str(const std::string& key) const {
  const Json* v = find(key);
  if (v == nullptr) return "";
  switch (v->type) {
    case Type::String: return v->text;
    case Type::Number:
      if (std::floor(v->number) == v->number && std::fabs(v->number) < 1e15)
        return std::to_string(static_cast<long long>(v->number));
      return v->text;
    case Type::Bool: return v->boolean ? "true" : "false";
    default: return "";
  }
}

// ------------------------------------------------------------------ processes

namespace {

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// A temporary file removed when the object goes.
struct TempFile {
  std::string path;
  int fd = -1;
  TempFile() {
    char tmpl[] = "/tmp/orvtb-io-XXXXXX";
    fd = mkstemp(tmpl);
    if (fd < 0) throw TestbedError(std::string("mkstemp: ") + std::strerror(errno));
    path = tmpl;
  }
  ~TempFile() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
};

// Instances to bring down when the process is told to stop.  Fixed storage:
// the signal handler must not allocate.
constexpr int kMaxInstances = 16;
constexpr size_t kPathMax = 1024;
struct SignalSlot {
  volatile sig_atomic_t used = 0;
  char workdir[kPathMax] = {};
};
SignalSlot g_slots[kMaxInstances];
char g_script[kPathMax] = {};
bool g_handlers_installed = false;

void bring_down_all_and_reraise(int sig) {
  for (auto& slot : g_slots) {
    if (!slot.used) continue;
    pid_t child = fork();
    if (child == 0) {
      char down[] = "down";
      char opt[] = "--workdir";
      char* argv[] = {g_script, down, opt, slot.workdir, nullptr};
      execv(g_script, argv);
      _exit(127);
    }
    if (child > 0) {
      int st = 0;
      while (waitpid(child, &st, 0) < 0 && errno == EINTR) {
      }
    }
    slot.used = 0;
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

void install_handlers() {
  if (g_handlers_installed) return;
  g_handlers_installed = true;
  std::snprintf(g_script, sizeof g_script, "%s", testbed_script().c_str());
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = bring_down_all_and_reraise;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESETHAND;
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT}) sigaction(sig, &sa, nullptr);
}

void register_instance(const std::string& workdir) {
  install_handlers();
  if (workdir.size() >= kPathMax) return;  // the owner watcher still covers it
  for (auto& slot : g_slots) {
    if (slot.used) continue;
    std::memcpy(slot.workdir, workdir.c_str(), workdir.size() + 1);
    slot.used = 1;
    return;
  }
}

void unregister_instance(const std::string& workdir) {
  for (auto& slot : g_slots) {
    if (slot.used && workdir == slot.workdir) slot.used = 0;
  }
}

}  // namespace

RunResult run_program(const std::vector<std::string>& argv, const std::string& stdin_text) {
  if (argv.empty()) throw TestbedError("run_program: empty argv");
  TempFile in, out, err;
  if (!stdin_text.empty() &&
      write(in.fd, stdin_text.data(), stdin_text.size()) != static_cast<ssize_t>(stdin_text.size()))
    throw TestbedError("run_program: cannot write the input file");
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::fflush(nullptr);
  pid_t child = fork();
  if (child < 0) throw TestbedError(std::string("fork: ") + std::strerror(errno));
  if (child == 0) {
    int i = open(in.path.c_str(), O_RDONLY);
    if (i < 0 || dup2(i, 0) < 0 || dup2(out.fd, 1) < 0 || dup2(err.fd, 2) < 0) _exit(126);
    execv(args[0], args.data());
    _exit(127);
  }
  int st = 0;
  while (waitpid(child, &st, 0) < 0) {
    if (errno != EINTR) throw TestbedError(std::string("waitpid: ") + std::strerror(errno));
  }
  RunResult r;
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  r.out = read_file(out.path);
  r.err = read_file(err.path);
  return r;
}

RunResult run_testbed(const std::vector<std::string>& args, const std::string& stdin_text) {
  std::vector<std::string> argv{testbed_script()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(argv, stdin_text);
}

std::string testbed_script() { return ORV_TESTBED_SCRIPT; }

std::string radius_script() {
  std::string s = testbed_script();
  size_t slash = s.rfind('/');
  return (slash == std::string::npos ? std::string() : s.substr(0, slash + 1)) + "orvradius";
}

std::string orvctl_path() {
#ifdef ORV_TESTBED_ORVCTL
  if (access(ORV_TESTBED_ORVCTL, X_OK) == 0) return ORV_TESTBED_ORVCTL;
#endif
  return "";
}

std::string plugin_path() {
#ifdef ORV_TESTBED_PLUGIN
  if (access(ORV_TESTBED_PLUGIN, R_OK) == 0) return ORV_TESTBED_PLUGIN;
#endif
  return "";
}

std::string default_suffix() { return ORV_TESTBED_SUFFIX; }

bool process_running(int pid) {
  if (pid <= 0) return false;
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  if (!std::getline(f, stat)) return false;
  size_t close_paren = stat.rfind(')');
  if (close_paren == std::string::npos || close_paren + 2 >= stat.size()) return false;
  char state = stat[close_paren + 2];
  return state != 'Z' && state != 'X';
}

// ------------------------------------------------------------------ Directory

namespace {

std::string last_line(const std::string& text) {
  size_t end = text.find_last_not_of("\r\n");
  if (end == std::string::npos) return "";
  size_t start = text.rfind('\n', end);
  return text.substr(start == std::string::npos ? 0 : start + 1, end + 1 - (start == std::string::npos ? 0 : start + 1));
}

}  // namespace

Directory::Directory(const Options& options) {
  std::vector<std::string> args{"up", "--scenario", options.scenario, "--suffix",
                                options.suffix.empty() ? default_suffix() : options.suffix};
  if (options.load_plugin && !plugin_path().empty()) {
    args.push_back("--plugin");
    args.push_back(plugin_path());
  }
  if (options.radius_port > 0) {
    args.push_back("--radius-port");
    args.push_back(std::to_string(options.radius_port));
  }
  if (!orvctl_path().empty()) {
    args.push_back("--orvctl");
    args.push_back(orvctl_path());
  }
  if (options.tls) args.push_back("--tls");
  if (options.follow_owner) {
    args.push_back("--owner-pid");
    args.push_back(std::to_string(getpid()));
  }
  for (const auto& [k, v] : options.params) {
    args.push_back("--set");
    args.push_back(k + "=" + v);
  }
  RunResult r = run_testbed(args);
  if (r.status != 0)
    throw TestbedError("orvtestbed up --scenario " + options.scenario + " failed (" + std::to_string(r.status) +
                       "):\n" + r.err + r.out);
  load(last_line(r.out));
  workdir_ = workdir();
  up_ = true;
  register_instance(workdir_);
  if (!r.err.empty()) std::cerr << r.err;
  const Json* timing = info_.find("timing");
  std::cout << "[ testbed  ] " << name() << " (" << scenario() << ") on " << uri();
  if (timing != nullptr) {
    std::cout << " up in " << timing->str("total") << " s (dscreate " << timing->str("dscreate") << " s, seed "
              << timing->str("seed") << " s, start " << timing->str("start") << " s)";
  }
  std::cout << std::endl;
}

Directory::~Directory() {
  try {
    down();
  } catch (const std::exception& e) {
    std::cerr << "[ testbed  ] down failed: " << e.what() << std::endl;
  }
}

void Directory::load(const std::string& json) {
  info_ = Json::parse(json);
  host_ = info_.str("host");
  port_ = std::atoi(info_.str("port").c_str());
  if (host_.empty() || port_ <= 0) throw TestbedError("orvtestbed gave no host and port: " + json);
}

std::string Directory::uri() const { return "ldap://" + host_ + ":" + std::to_string(port_); }

int Directory::pid() const { return std::atoi(info_.str("pid").c_str()); }

int Directory::tls_port() const { return std::atoi(info_.str("tls_port").c_str()); }

int Directory::free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw TestbedError(std::string("socket: ") + std::strerror(errno));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  if (port == 0) throw TestbedError("no free port on 127.0.0.1");
  return port;
}

std::string Directory::user_dn(const std::string& uid) const { return "uid=" + uid + ",ou=People," + suffix(); }

std::string Directory::param(const std::string& key) const {
  const Json* p = info_.find("params");
  return p == nullptr ? "" : p->str(key);
}

void Directory::reseed(const std::string& scenario, const std::map<std::string, std::string>& params) {
  std::vector<std::string> args{"seed", "--workdir", workdir_, "--scenario", scenario};
  for (const auto& [k, v] : params) {
    args.push_back("--set");
    args.push_back(k + "=" + v);
  }
  RunResult r = run_testbed(args);
  if (r.status != 0) throw TestbedError("orvtestbed seed --scenario " + scenario + " failed:\n" + r.err + r.out);
  load(last_line(r.out));
}

int Directory::try_apply_ldif(const std::string& ldif, std::string* output) {
  RunResult r = run_testbed({"ldapmodify", "--workdir", workdir_}, ldif);
  if (output != nullptr) *output = r.out + r.err;
  return r.status;
}

void Directory::apply_ldif(const std::string& ldif) {
  std::string out;
  int st = try_apply_ldif(ldif, &out);
  if (st != 0) throw TestbedError("ldapmodify failed (" + std::to_string(st) + "):\n" + out + "\nLDIF:\n" + ldif);
}

void Directory::restart() {
  RunResult r = run_testbed({"restart", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvtestbed restart failed:\n" + r.err + r.out);
  load(last_line(r.out));
}

void Directory::stop_server() {
  RunResult r = run_testbed({"stop", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvtestbed stop failed:\n" + r.err + r.out);
  load(last_line(r.out));
}

void Directory::start_server() {
  RunResult r = run_testbed({"start", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvtestbed start failed:\n" + r.err + r.out);
  load(last_line(r.out));
}

void Directory::down() {
  if (!up_) return;
  up_ = false;
  RunResult r = run_testbed({"down", "--workdir", workdir_});
  unregister_instance(workdir_);
  if (r.status != 0) throw TestbedError("orvtestbed down failed:\n" + r.err + r.out);
}

void replicate(Directory& first, Directory& second) {
  RunResult r = run_testbed({"replicate", "--workdir", first.workdir(), "--peer", second.workdir()});
  if (r.status != 0) throw TestbedError("orvtestbed replicate failed:\n" + r.err + r.out);
  std::cout << "[ testbed  ] " << first.name() << " and " << second.name() << " replicate each other: "
            << last_line(r.out) << std::endl;
}

// ------------------------------------------------------------------ Radius

Radius::Radius(const std::string& secret, const std::string& users_file,
               const std::vector<std::string>& challenged_users) {
  char tmpl[] = "/tmp/orvtb-radius-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw TestbedError(std::string("mkdtemp: ") + std::strerror(errno));
  workdir_ = tmpl;
  std::vector<std::string> argv{radius_script(), "up", "--workdir", workdir_, "--secret", secret, "--users", users_file,
                                "--owner-pid", std::to_string(getpid())};
  for (const std::string& user : challenged_users) {
    argv.push_back("--challenge");
    argv.push_back(user);
  }
  RunResult r = run_program(argv);
  if (r.status != 0) {
    run_program({radius_script(), "down", "--workdir", workdir_});
    rmdir(workdir_.c_str());
    throw TestbedError("orvradius up failed (" + std::to_string(r.status) + "):\n" + r.err + r.out);
  }
  Json info = Json::parse(last_line(r.out));
  port_ = std::atoi(info.str("port").c_str());
  pid_ = std::atoi(info.str("pid").c_str());
  up_ = true;
  std::cout << "[ testbed  ] RADIUS server on 127.0.0.1:" << port_ << " (udp)" << std::endl;
}

Radius::~Radius() {
  try {
    down();
  } catch (const std::exception& e) {
    std::cerr << "[ testbed  ] RADIUS down failed: " << e.what() << std::endl;
  }
}

void Radius::down() {
  if (!up_) return;
  up_ = false;
  RunResult r = run_program({radius_script(), "down", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvradius down failed:\n" + r.err + r.out);
}

// ------------------------------------------------------------------ Samba

std::string samba_script() {
  std::string s = testbed_script();
  size_t slash = s.rfind('/');
  return (slash == std::string::npos ? std::string() : s.substr(0, slash + 1)) + "orvsamba";
}

std::string samba_cache_dir() {
#ifdef ORV_TESTBED_SAMBA_CACHE
  return ORV_TESTBED_SAMBA_CACHE;
#else
  return "/tmp/orvsamba-cache";
#endif
}

Samba::Samba(int bulk_users) {
  std::vector<std::string> argv{samba_script(), "up", "--cache", samba_cache_dir(), "--owner-pid",
                                std::to_string(getpid())};
  if (bulk_users >= 0) {
    argv.push_back("--users");
    argv.push_back(std::to_string(bulk_users));
  }
  RunResult r = run_program(argv);
  if (r.status != 0) throw TestbedError("orvsamba up failed (" + std::to_string(r.status) + "):\n" + r.err + r.out);
  info_ = Json::parse(last_line(r.out));
  workdir_ = info_.str("workdir");
  host_ = info_.str("host");
  up_ = true;
  const Json* timing = info_.find("timing");
  std::cout << "[ testbed  ] Samba AD DC on " << host_ << ":389/636 (pid " << info_.str("pid") << ", up in "
            << (timing ? timing->str("total") : std::string("?")) << " s)" << std::endl;
}

Samba::~Samba() {
  try {
    down();
  } catch (const std::exception& e) {
    std::cerr << "[ testbed  ] Samba down failed: " << e.what() << std::endl;
  }
}

int Samba::pid() const { return std::atoi(info_.str("pid").c_str()); }
int Samba::bulk_users() const { return std::atoi(info_.str("users").c_str()); }

void Samba::stop_server() {
  RunResult r = run_program({samba_script(), "stop", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvsamba stop failed:\n" + r.err + r.out);
  info_ = Json::parse(last_line(r.out));
}

void Samba::start_server() {
  RunResult r = run_program({samba_script(), "start", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvsamba start failed:\n" + r.err + r.out);
  info_ = Json::parse(last_line(r.out));
}

void Samba::down() {
  if (!up_) return;
  up_ = false;
  RunResult r = run_program({samba_script(), "down", "--workdir", workdir_});
  if (r.status != 0) throw TestbedError("orvsamba down failed:\n" + r.err + r.out);
}

// ------------------------------------------------------------------ Environment

namespace {
std::unique_ptr<Directory> g_directory;
std::string g_startup_error;
}  // namespace

Environment::Environment(Options options) : options_(std::move(options)) {}

void Environment::SetUp() {
  try {
    g_directory = std::make_unique<Directory>(options_);
  } catch (const std::exception& e) {
    g_startup_error = e.what();
    FAIL() << "the test directory did not start: " << e.what();
  }
}

void Environment::TearDown() {
  if (g_directory) {
    g_directory->down();
    g_directory.reset();
  }
}

Directory& Environment::directory() {
  if (!g_directory) throw TestbedError("no test directory: " + g_startup_error);
  return *g_directory;
}

}  // namespace orv::testbed
