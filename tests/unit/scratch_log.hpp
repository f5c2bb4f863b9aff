// Runs a whole test program in a scratch directory with a logger
// configuration of its own, so that tests can read what the library logs.
#pragma once

#include <gtest/gtest.h>
#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace orvtest {

class ScratchLog : public ::testing::Environment {
public:
    ScratchLog(std::string prefix, std::string config)
        : prefix_(std::move(prefix)), config_(std::move(config)) {}
    void SetUp() override {
        std::string pattern = "/tmp/" + prefix_ + "_XXXXXX";
        ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
        dir() = pattern;
        ASSERT_NE(getcwd(previous_, sizeof previous_), nullptr);
        ASSERT_EQ(chdir(dir().c_str()), 0);
        std::ofstream("PEX_Log_Config.txt") << config_;
    }
    void TearDown() override {
        if (DIR* d = opendir(dir().c_str())) {
            while (dirent* e = readdir(d)) {
                if (e->d_name[0] != '.') unlink((dir() + "/" + e->d_name).c_str());
            }
            closedir(d);
        }
        if (chdir(previous_) == 0) rmdir(dir().c_str());
    }
    static std::string& dir() {
        static std::string d;
        return d;
    }

private:
    std::string prefix_;
    std::string config_;
    char previous_[4096] = {};
};

// Everything written to the log files of the scratch directory so far.
inline std::string log_text() {
    std::string all;
    if (DIR* d = opendir(ScratchLog::dir().c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strncmp(e->d_name, "PEX_API_Log_", 12) != 0) continue;
            std::ifstream in(ScratchLog::dir() + "/" + e->d_name);
            std::stringstream buffer;
            buffer << in.rdbuf();
            all += buffer.str();
        }
        closedir(d);
    }
    return all;
}

}  // namespace orvtest
