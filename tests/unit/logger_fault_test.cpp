// The logger on a full disk and in a working directory it cannot write to:
// logging stops, the library goes on answering with its usual statuses.
//
// Each case runs in a child process (a file-size limit, another user), which
// reports what the library answered on a pipe; the parent checks it.
#include <gtest/gtest.h>
#include <dirent.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>

#include "../api_sweep.hpp"
#include "orvldap.h"
#include "pex_logger_internal.hpp"

namespace {

using orvtest::closed_port;

constexpr long kFileLimit = 4096;

const char kConfig[] =
    "EnableLogging=1\nEnableTracing=1\nLogLevel=4\nTraceLevel=6\nProduct=FaultProduct\nVersion=1.0\n";

std::string make_dir(const char* tag) {
    std::string pattern = std::string("/tmp/orv_logfault_") + tag + "_XXXXXX";
    if (!mkdtemp(&pattern[0])) return "";
    std::ofstream(pattern + "/PEX_Log_Config.txt") << kConfig;
    return pattern;
}

void remove_dir(const std::string& dir) {
    chmod(dir.c_str(), 0755);
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir.c_str());
}

// Log files in dir and their total size.
std::pair<int, long> log_files(const std::string& dir) {
    int files = 0;
    long bytes = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strncmp(e->d_name, "PEX_API_Log_", 12) != 0) continue;
            struct stat st;
            if (stat((dir + "/" + e->d_name).c_str(), &st) == 0) bytes += st.st_size;
            ++files;
        }
        closedir(d);
    }
    return {files, bytes};
}

// Library calls that log at every step, many times over; each answer goes
// into the report as "name=value".
std::string exercise_library(int port) {
    std::ostringstream out;
    const int start = _memCnt;
    int guids = 0;
    for (int round = 0; round < 50; ++round) {
        orvlib_init();
        ORVLibInfo* info = nullptr;
        LDAP* ld = orvlib_getsession_context("127.0.0.1", port, &info, 0);
        if (round == 0) out << "session=" << (ld ? "open" : "none") << " status=" << ldapErrCode << "\n";
        int validate = orvlib_validate_server_details("127.0.0.1", port, 0);
        if (round == 0) out << "validate=" << validate << "\n";
        int probe = orvlib_get_connection_status(nullptr);
        if (round == 0) out << "probe=" << probe << "\n";
        char* guid = orvlib_create_guid();
        if (guid && std::strlen(guid) == 36) ++guids;
        orvlib_memfree(guid);
        orvlib_uninitialize_lib();
    }
    out << "guids=" << guids << "\n";
    out << "leaked=" << (_memCnt - start) << "\n";
    return out.str();
}

std::map<std::string, std::string> parse(const std::string& text) {
    std::map<std::string, std::string> m;
    std::istringstream in(text);
    std::string word;
    while (in >> word) {
        size_t eq = word.find('=');
        if (eq != std::string::npos) m[word.substr(0, eq)] = word.substr(eq + 1);
    }
    return m;
}

// Runs body in a child in directory dir; returns what it wrote and its exit
// status (128 + signal when a signal ended it).
std::string in_child(const std::string& dir, const std::function<bool()>& prepare, int* exit_status) {
    int fds[2];
    if (pipe(fds) != 0) return "";
    const int port = closed_port();
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (chdir(dir.c_str()) != 0 || !prepare()) _exit(3);
        orv::logger_reset_for_tests();  // starts again from this directory
        std::string report = exercise_library(port);
        if (write(fds[1], report.data(), report.size()) != static_cast<ssize_t>(report.size())) _exit(4);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    *exit_status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return text;
}

// What the library answers without a server, whatever became of its log.
void expect_library_answers(const std::map<std::string, std::string>& r) {
    EXPECT_EQ(r.at("session"), "none");
    EXPECT_EQ(r.at("status"), "81") << "a refused connection";
    EXPECT_EQ(r.at("validate"), "3041");
    EXPECT_EQ(r.at("probe"), "3007");
    EXPECT_EQ(r.at("guids"), "50");
    EXPECT_EQ(r.at("leaked"), "0");
}

}  // namespace

// A full disk (the file-size limit stands in for it; the signal that would
// end the process is ignored, as daemons do): the log grows to the limit and
// no further, and every call still answers.
TEST(LoggerFaults, FullDiskStopsLoggingNotTheLibrary) {
    std::string dir = make_dir("full");
    ASSERT_FALSE(dir.empty());
    int status = -1;
    std::string report = in_child(dir, [] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{static_cast<rlim_t>(kFileLimit), static_cast<rlim_t>(kFileLimit)};
        return setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }, &status);
    EXPECT_EQ(status, 0) << report;
    auto r = parse(report);
    ASSERT_EQ(r.count("leaked"), 1u) << report;
    expect_library_answers(r);
    auto [files, bytes] = log_files(dir);
    EXPECT_EQ(files, 1);
    EXPECT_EQ(bytes, kFileLimit) << "the log stops at the limit";
    remove_dir(dir);
}

// A working directory the process may not write to: the configuration is
// read, no log file can be made, and every call still answers.  Run as
// root, the child gives up root first (root writes anywhere).
TEST(LoggerFaults, UnwritableDirectoryStopsLoggingNotTheLibrary) {
    std::string dir = make_dir("readonly");
    ASSERT_FALSE(dir.empty());
    ASSERT_EQ(chmod((dir + "/PEX_Log_Config.txt").c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0555), 0);
    int status = -1;
    std::string report = in_child(dir, [] {
        if (geteuid() != 0) return true;
        const passwd* nobody = getpwnam("nobody");
        return nobody && setgid(nobody->pw_gid) == 0 && setuid(nobody->pw_uid) == 0 &&
               access(".", W_OK) != 0 && access("PEX_Log_Config.txt", R_OK) == 0;
    }, &status);
    EXPECT_EQ(status, 0) << report;
    auto r = parse(report);
    ASSERT_EQ(r.count("leaked"), 1u) << report;
    expect_library_answers(r);
    EXPECT_EQ(log_files(dir).first, 0);
    remove_dir(dir);
}
