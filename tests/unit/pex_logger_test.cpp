// Tests of the diagnostic logger: file layout, naming and rotation, the
// configuration file rules, severity filtering and password masking.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "pex_logger.h"
#include "pex_logger_internal.hpp"

namespace fs = std::filesystem;

namespace {

const char* const kProperties = "/tmp/NUV/PEX/Logger/PEX_Log_Location.properties";

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// True when text[pos..pos+24) has the asctime form "Sun Nov 15 15:00:21 2026".
bool is_time_at(const std::string& text, size_t pos) {
    static const char kShape[] = "Aaa Aaa _9 99:99:99 9999";  // A upper, a lower, 9 digit
    const size_t n = sizeof kShape - 1;
    if (pos + n > text.size()) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(text[pos + i]);
        bool ok = false;
        switch (kShape[i]) {
            case 'A': ok = std::isupper(c); break;
            case 'a': ok = std::islower(c); break;
            case '9': ok = std::isdigit(c); break;
            case '_': ok = c == ' ' || (c >= '1' && c <= '3'); break;
            default: ok = c == static_cast<unsigned char>(kShape[i]); break;
        }
        if (!ok) return false;
    }
    return true;
}

// Replaces every asctime-form time stamp with "<T>".
std::string mask_times(const std::string& text) {
    std::string out;
    for (size_t pos = 0; pos < text.size();) {
        if (is_time_at(text, pos)) {
            out += "<T>";
            pos += 24;
        } else {
            out += text[pos++];
        }
    }
    return out;
}

std::string banner(const std::string& product, const std::string& version) {
    const std::string dashes(66, '-');
    return dashes + "\nPEX C Lib Debug object for : " + product + "\nVersion : " + version +
           "\nPEX C Lib Debug object Version: 6.0.0.1\nLog Start at: \n<T> |\n" + dashes + "\n\n";
}

std::string log_name(const std::string& product, const std::string& version, int seq) {
    return "PEX_API_Log_" + product + "_" + version + "_" + std::to_string(getpid()) + "_" +
           std::to_string(seq) + ".log";
}

bool has_line(const std::string& text, const std::string& line) {
    return text.compare(0, line.size() + 1, line + "\n") == 0 ||
           text.find("\n" + line + "\n") != std::string::npos;
}

size_t count_of(const std::string& text, const std::string& piece) {
    size_t n = 0;
    for (size_t pos = text.find(piece); pos != std::string::npos; pos = text.find(piece, pos + 1))
        ++n;
    return n;
}

// Each test works in fresh directories below the scratch directory and
// leaves the logger and the working directory as it found them.
class PexLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        original_ = fs::current_path();
        std::string templ = (original_ / "pexlog_XXXXXX").string();
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        base_ = templ;
    }
    void TearDown() override {
        orv::logger_reset_for_tests();
        fs::current_path(original_);
        std::error_code ec;
        fs::remove_all(base_, ec);
    }

    // Moves into a new empty directory holding the given configuration
    // lines (none: no configuration file) and resets the logger.
    std::string enter(const std::string& name, const std::vector<std::string>* config) {
        orv::logger_reset_for_tests();
        fs::path dir = base_ / name;
        fs::create_directories(dir);
        if (config) {
            std::ofstream out(dir / "PEX_Log_Config.txt", std::ios::binary);
            for (const auto& line : *config) out << line << "\n";
        }
        fs::current_path(dir);
        return fs::current_path().string();
    }
    std::string enter(const std::string& name, const std::vector<std::string>& config) {
        return enter(name, &config);
    }

    static std::vector<std::string> log_files(const std::string& dir) {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir)) {
            std::string n = e.path().filename().string();
            if (n.rfind("PEX_API_Log_", 0) == 0) names.push_back(n);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // The single log file of dir, time stamps masked.
    static std::string only_log(const std::string& dir) {
        auto files = log_files(dir);
        EXPECT_EQ(files.size(), 1u) << dir;
        return files.empty() ? std::string() : mask_times(read_text(dir + "/" + files[0]));
    }

    fs::path original_;
    fs::path base_;
};

void log_all_severities(const char* tag) {
    for (int sev = -2; sev <= 7; ++sev) {
        std::string label = std::string(tag) + std::to_string(sev);
        LogPEXMessage(__FILE__, __LINE__, "probe", "DEBUG", sev, label.c_str(), "v", nullptr);
    }
}

}  // namespace

TEST(PexLoggerTime, LocalTimeHasAsctimeForm) {
    char text[26];
    getlocaltime(text);
    EXPECT_EQ(std::strlen(text), 24u) << text;
    EXPECT_EQ(mask_times(text), "<T>") << text;
}

TEST_F(PexLoggerTest, NothingIsWrittenUnlessTheConfigurationSwitchesLoggingOn) {
    // No configuration file at all.
    std::string dir = enter("none", nullptr);
    InitializePEXLogger(L"ignored/location");
    log_all_severities("none");
    EXPECT_TRUE(fs::is_empty(dir));
    EXPECT_EQ(read_text(kProperties).find("=" + dir + "\n"), std::string::npos);

    // A configuration file with both switches off.
    dir = enter("off", {"EnableLogging=0", "EnableTracing=0", "Product=OffProduct"});
    log_all_severities("off");
    EXPECT_TRUE(log_files(dir).empty());
    EXPECT_EQ(read_text(kProperties).find("=" + dir + "\n"), std::string::npos);
}

TEST_F(PexLoggerTest, BannerAndLinesAreWrittenByteForByte) {
    std::string dir = enter("layout", {"EnableLogging=1", "EnableTracing=1", "LogLevel=4",
                                       "Product=My App 2", "Version=6.0"});
    LogPEXMessage("/src/engine/ldap/orvldap.cpp", 120, "orvlib_init", "TRACE_ENTRY", 5,
                  "Entering function", nullptr, nullptr);
    LogPEXMessage("orvldap.cpp", 7, "orvlib_init", "DEBUG", 4, "Host", "localhost", nullptr);
    LogPEXMessage("C:\\build/src\\ldap/orvsearch.cpp", 9, "f", "TRACE_EXIT", 5,
                  "Exiting function", nullptr, nullptr);
    LogPEXMessage("C:\\src\\pex.c", 3, "g", nullptr, 5, nullptr, "", nullptr);
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 2, "Bind failed", "49", "Check the password");
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, nullptr, nullptr, nullptr);
    std::string longName = "/x/" + std::string(80, 'a') + ".cpp";
    LogPEXMessage(longName.c_str(), 42, "e", nullptr, 5, nullptr, nullptr, nullptr);

    auto files = log_files(dir);
    ASSERT_EQ(files, std::vector<std::string>{log_name("My_App_2", "6_0", 1)});
    std::string expected =
        banner("My App 2", "6.0") + "\n<T> | PEX Client Version : 6.0.0.1 |" +
        "\n<T> | The PEX Log Configuration file was found : " + dir + "/PEX_Log_Config.txt |" +
        "\n<T> | ID: TRACE_ENTRY | Entering function : orvlib_init | Source:orvldap.cpp:120 |" +
        "\n<T> | ID: DEBUG | Host : localhost |" +
        "\n<T> | ID: TRACE_EXIT | Exiting function : f | Source: orvsearch.cpp:9 |" +
        "\n<T> |g | Source:pex.c:3 |" +  // without a text the event follows the bar directly
        "\n<T> | Bind failed : 49 | Action: Check the password |" +
        "\n<T> |" +
        "\n<T> |e | Source:" + std::string(55, 'a') + " |";  // location cut at 63 characters
    EXPECT_EQ(mask_times(read_text(dir + "/" + files[0])), expected);

    // The properties file notes the display name and the log directory.
    EXPECT_TRUE(has_line(read_text(kProperties), "My App 2=" + dir));
}

TEST_F(PexLoggerTest, ConfigurationFileRules) {
    // Out-of-range levels, comments, lines without "=", key case and blanks.
    std::string dir = enter("rules", {
        "# EnableLogging=0 as a comment line",
        "EnableLogging=1",
        "Enable Tracing = 1",
        "LogLevel=5",
        "TraceLevel=4",
        "LogLevel=4 # a trailing comment voids the whole line",
        "EnableLogging 0",
        "enabletracing=0",
        "EnableLogging=",
    });
    log_all_severities("sev");
    std::string text = only_log(dir);
    EXPECT_NE(text.find(" sev2 : "), std::string::npos);
    EXPECT_EQ(text.find(" sev3 : "), std::string::npos);  // log level stayed 2
    EXPECT_NE(text.find(" sev5 : "), std::string::npos);  // trace level stayed 5
    EXPECT_EQ(text.find(" sev6 : "), std::string::npos);

    // Product and Version: quotes dropped, other non-alphanumerics become "_";
    // the banner shows "_" as blank and dot.  Leading blanks of a value go
    // only when the character at index("=") / 2 + 1 is a blank.
    dir = enter("names", {"EnableLogging=1", "Product=\"Zorla-Client\"",
                          "Version          = 7.1"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Zorla_Client", "7_1", 1)});
    EXPECT_EQ(only_log(dir).rfind(banner("Zorla Client", "7.1"), 0), 0u);

    dir = enter("kept_blank", {"EnableLogging=1", "Product=", "Product=\"\"", "Version = 7.1"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Sample", "_7_1", 1)});
    EXPECT_EQ(only_log(dir).rfind(banner("Sample", ".7.1"), 0), 0u);

    // Defaults: Sample / 1_0, shown as 1.0.
    dir = enter("defaults", {"EnableTracing=1"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 5, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Sample", "1_0", 1)});
    EXPECT_EQ(only_log(dir).rfind(banner("Sample", "1.0"), 0), 0u);

    // Length limits: Version shorter than 16, Product shorter than 231.
    dir = enter("version15", {"EnableLogging=1", "Version=123456789012345"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Sample", "123456789012345", 1)});
    dir = enter("version16", {"EnableLogging=1", "Version=1234567890123456"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Sample", "1_0", 1)});

    // A 230-character product is kept (its file name is too long to open,
    // so the lines go nowhere); 231 characters fall back to the default.
    std::string product230(230, 'p');
    dir = enter("product230", {"EnableLogging=1", "Product=" + product230});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_TRUE(log_files(dir).empty());
    EXPECT_TRUE(has_line(read_text(kProperties), product230 + "=" + dir));
    dir = enter("product231", {"EnableLogging=1", "Product=" + product230 + "p"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_TRUE(has_line(read_text(kProperties), "Sample=" + dir));

    // Over-long lines are read in pieces without harm; later lines still count.
    dir = enter("long_line", {"Product=" + std::string(3000, 'L'), std::string(2000, '#'),
                              "EnableLogging=1", "Product=Tail"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "x", nullptr, nullptr);
    EXPECT_EQ(log_files(dir), std::vector<std::string>{log_name("Tail", "1_0", 1)});

    // The found flag of a direct configuration read.
    int found = -1;
    GetConfigurationOptions(L"/nonexistent/orv/logger/dir", &found);
    EXPECT_EQ(found, 0);
    std::wstring wdir(dir.begin(), dir.end());
    GetConfigurationOptions(wdir.c_str(), &found);
    EXPECT_EQ(found, 1);
}

TEST_F(PexLoggerTest, SeverityFiltering) {
    std::string dir = enter("logging", {"EnableLogging=1", "EnableTracing=0", "LogLevel=3"});
    log_all_severities("sev");
    std::string text = only_log(dir);
    for (int sev : {-1, 1, 2, 3})
        EXPECT_NE(text.find(" sev" + std::to_string(sev) + " : "), std::string::npos) << sev;
    for (int sev : {-2, 0, 4, 5, 6, 7})
        EXPECT_EQ(text.find(" sev" + std::to_string(sev) + " : "), std::string::npos) << sev;

    dir = enter("tracing", {"EnableLogging=0", "EnableTracing=1", "TraceLevel=6"});
    log_all_severities("sev");
    text = only_log(dir);
    for (int sev : {-1, 5, 6})
        EXPECT_NE(text.find(" sev" + std::to_string(sev) + " : "), std::string::npos) << sev;
    for (int sev : {-2, 0, 1, 2, 3, 4, 7})
        EXPECT_EQ(text.find(" sev" + std::to_string(sev) + " : "), std::string::npos) << sev;
}

TEST_F(PexLoggerTest, PasswordValuesAreMaskedUnlessEnabled) {
    auto log_labels = [] {
        LogPEXMessage(nullptr, 0, nullptr, "DEBUG", 4, "Password", "s3cret", nullptr);
        LogPEXMessage(nullptr, 0, nullptr, "DEBUG", 4, "password", "lower", nullptr);
        LogPEXMessage(nullptr, 0, nullptr, "DEBUG", 4, "UserPassword", "other", nullptr);
        LogPEXMessage(nullptr, 0, nullptr, "DEBUG", 4, "Password", "", nullptr);
    };
    std::string dir = enter("masked", {"EnableLogging=1", "LogLevel=4", "EnablePasswordLog=2"});
    log_labels();
    std::string text = only_log(dir);
    EXPECT_NE(text.find("| ID: DEBUG | Password : xxxxxxxx |\n"), std::string::npos);
    EXPECT_EQ(text.find("s3cret"), std::string::npos);
    EXPECT_NE(text.find("| password : lower |"), std::string::npos);
    EXPECT_NE(text.find("| UserPassword : other |"), std::string::npos);
    const std::string emptyValue = "| ID: DEBUG | Password : ";  // no value, no closing bar
    EXPECT_TRUE(text.size() >= emptyValue.size() &&
                text.compare(text.size() - emptyValue.size(), emptyValue.size(), emptyValue) == 0)
        << text;

    dir = enter("shown", {"EnableLogging=1", "LogLevel=4", "EnablePasswordLog=1"});
    log_labels();
    text = only_log(dir);
    EXPECT_NE(text.find("| ID: DEBUG | Password : s3cret |"), std::string::npos);
    EXPECT_EQ(text.find("xxxxxxxx"), std::string::npos);
}

TEST_F(PexLoggerTest, FilesRotateOverMaxFilesAndReuseTruncates) {
    std::string dir = enter("rotate", {"EnableLogging=1", "Size=1", "MaxFiles=2",
                                       "Product=Rot"});
    const std::string padding(200 * 1024, 'x');
    const std::string first = dir + "/" + log_name("Rot", "1_0", 1);
    const std::string second = dir + "/" + log_name("Rot", "1_0", 2);
    auto log_phase = [&](const char* phase) {
        std::string value = std::string(phase) + padding;
        LogPEXMessage(nullptr, 0, nullptr, nullptr, 2, "Phase", value.c_str(), nullptr);
    };

    // Phase A fills file 1 past 1 MB; the next message opens file 2.
    int guard = 0;
    while (!fs::exists(second) && ++guard < 50) log_phase("A");
    ASSERT_TRUE(fs::exists(second));
    EXPECT_GT(fs::file_size(first), 1024u * 1024u);
    EXPECT_EQ(count_of(read_text(second), " Phase : A"), 1u);

    // Phase B fills file 2; the next message reopens file 1 from empty.
    guard = 0;
    while (fs::file_size(first) > 1024u * 1024u && ++guard < 50) log_phase("B");
    ASSERT_LT(fs::file_size(first), 1024u * 1024u);

    EXPECT_EQ(log_files(dir), (std::vector<std::string>{log_name("Rot", "1_0", 1),
                                                        log_name("Rot", "1_0", 2)}));
    std::string text1 = mask_times(read_text(first));
    EXPECT_EQ(text1.rfind(banner("Rot", "1.0") + "\n<T> | Phase : B", 0), 0u);
    EXPECT_EQ(count_of(text1, " Phase : "), 1u);
    std::string text2 = mask_times(read_text(second));
    EXPECT_EQ(text2.rfind(banner("Rot", "1.0") + "\n<T> | Phase : A", 0), 0u);
    EXPECT_GT(count_of(text2, " Phase : B"), 1u);
    struct stat st;
    ASSERT_EQ(stat(first.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & S_IRWXU, static_cast<mode_t>(S_IRWXU));
}

TEST_F(PexLoggerTest, OverlongWorkingDirectoryLeavesLoggingOff) {
    fs::path deep = base_;
    while (deep.string().size() <= 300) deep /= std::string(60, 'd');
    fs::create_directories(deep);
    {
        std::ofstream out(deep / "PEX_Log_Config.txt");
        out << "EnableLogging=1\nEnableTracing=1\n";
    }
    orv::logger_reset_for_tests();
    fs::current_path(deep);
    log_all_severities("deep");
    EXPECT_TRUE(log_files(deep.string()).empty());
}

TEST_F(PexLoggerTest, LinesOfConcurrentThreadsDoNotInterleave) {
    std::string dir = enter("threads", {"EnableLogging=1", "LogLevel=4"});
    LogPEXMessage(nullptr, 0, nullptr, nullptr, 1, "start", nullptr, nullptr);  // initialise
    const int kThreads = 4;
    const int kLines = 300;
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([t] {
            std::string label = "worker" + std::to_string(t);
            std::string value(300, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                LogPEXMessage(nullptr, 0, nullptr, "DEBUG", 4, label.c_str(), value.c_str(), nullptr);
        });
    }
    for (auto& w : workers) w.join();

    std::string text = only_log(dir);
    for (int t = 0; t < kThreads; ++t) {
        std::string line = "\n<T> | ID: DEBUG | worker" + std::to_string(t) + " : " +
                           std::string(300, static_cast<char>('a' + t)) + " |";
        EXPECT_EQ(count_of(text, line), static_cast<size_t>(kLines)) << t;
    }
}
