// pex_logger.cpp - the diagnostic logger.
//
// The first message initialises the logger from "PEX_Log_Config.txt" in the
// current working directory.  Without that file (or with both switches off)
// nothing is ever written.  Otherwise the logger writes
//
//   <log directory>/PEX_API_Log_<product>_<version>_<pid>_<sequence>.log
//
// starting with a banner, and notes "<product>=<log directory>" in
// /tmp/NUV/PEX/Logger/PEX_Log_Location.properties.  When a file grows past
// the size limit the next sequence number is opened (1..MaxFiles, then 1
// again, truncating the older file of that number).
//
// Configuration file, read line by line (pieces of at most 511 characters):
//   - a line holding "#" anywhere, or no "=", is skipped;
//   - key: everything before the first "=", blanks removed, matched exactly;
//   - value: everything after the "=" up to the line feed.  Its leading
//     blanks are dropped only when the character at (index of "=") / 2 + 1
//     is a blank - long-standing behaviour that existing files rely on;
//   - "Product" and "Version": double quotes dropped, anything that is not
//     an ASCII letter or digit becomes "_";
//   - Product (< 231 chars), Version (< 16 chars), Size and MaxFiles (>= 1),
//     LogLevel (1..4), TraceLevel (5..6), EnableLogging, EnableTracing,
//     EnablePasswordLog (0 or 1); empty or out-of-range values are ignored.
//
// Wide strings hold UTF-8 text; bytes that are not valid UTF-8 (in a
// directory name, say) are kept as U+DC80..U+DCFF so that they convert back
// to the very same bytes.
#include "pex_logger.h"
#include "pex_logger_internal.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <string>

namespace {

constexpr const char* kClientVersion = "6.0.0.1";
constexpr const char* kConfigFileName = "PEX_Log_Config.txt";
constexpr const char* kLocationDir = "/tmp/NUV/PEX/Logger";
constexpr const char* kLocationFile = "/tmp/NUV/PEX/Logger/PEX_Log_Location.properties";
// Message for a logger started without a configuration location; kept with
// the other texts of the logger although self-start does not write it.
[[maybe_unused]] constexpr const char* kNotExplicitlyInitialized =
    "The Logger wasn't explictly initialized.";

constexpr size_t kProductChars = 230;    // "Product" accepted when shorter than 231
constexpr size_t kVersionChars = 16;     // "Version" accepted when shorter than 16
constexpr size_t kDirectoryChars = 512;
constexpr size_t kCwdChars = 256;        // working directory, terminator included
constexpr size_t kConfigLineChars = 512; // one read of the configuration file
constexpr size_t kConfigFileMaxBytes = 1 << 20;  // a configuration file is a few lines
constexpr size_t kLocationChars = 63;    // source location text of a trace line
constexpr size_t kTimeChars = 26;        // asctime form plus terminator
constexpr int kAlwaysWritten = -1;

struct Configuration {
    wchar_t wszProductName[kProductChars + 1];
    wchar_t wszProductVersion[kVersionChars];
    wchar_t wszLogDirectory[kDirectoryChars];
    int iSizeLimitMB;
    int iLogLevel;
    int iTraceLevel;
    int iMaxFiles;
    int iEnableLogging;
    int iEnableTracing;
    int iEnablePasswordLog;
};

// Process state.  Plain data only: other units may log from static
// destructors, so nothing here may have a destructor of its own.
Configuration st_stConfiguration;
int st_iIsLoggerInitialized = 0;
int st_iCurrentLogFileSequence = 0;
int st_iProcessId = 0;
int st_iFileDescriptor = -1;
pthread_mutex_t st_pmMutex = PTHREAD_MUTEX_INITIALIZER;
// Bytes in the open log file (it is written by this process only).
long long st_llFileSize = 0;
// Set once initialisation found logging and tracing both off, so that the
// message path costs a single test.
int st_iLoggerOff = 0;

// ------------------------------------------------------------ text helpers

bool is_blank(wchar_t c) { return c == L' ' || c == L'\t'; }

bool is_ascii_alnum(wchar_t c) {
    return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

// UTF-8 to wide characters; invalid bytes become U+DC80 + byte.
std::wstring decode_utf8(const char* s, size_t n) {
    std::wstring out;
    out.reserve(n);
    const auto* p = reinterpret_cast<const unsigned char*>(s);
    size_t i = 0;
    while (i < n) {
        unsigned char b = p[i];
        if (b < 0x80) {
            out.push_back(static_cast<wchar_t>(b));
            ++i;
            continue;
        }
        size_t len = 0;
        unsigned long cp = 0;
        unsigned long min = 0;
        if ((b & 0xE0) == 0xC0) { len = 2; cp = b & 0x1F; min = 0x80; }
        else if ((b & 0xF0) == 0xE0) { len = 3; cp = b & 0x0F; min = 0x800; }
        else if ((b & 0xF8) == 0xF0) { len = 4; cp = b & 0x07; min = 0x10000; }
        bool ok = len != 0 && i + len <= n;
        for (size_t k = 1; ok && k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) ok = false;
            else cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
        if (ok) {
            out.push_back(static_cast<wchar_t>(cp));
            i += len;
        } else {
            out.push_back(static_cast<wchar_t>(0xDC00 + b));
            ++i;
        }
    }
    return out;
}

void append_utf8(std::string& out, const wchar_t* w) {
    for (; w && *w; ++w) {
        auto c = static_cast<unsigned long>(*w);
        if (c >= 0xDC80 && c <= 0xDCFF) {
            out.push_back(static_cast<char>(c - 0xDC00));  // byte kept from decoding
        } else if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c <= 0x10FFFF) {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.append("\xEF\xBF\xBD");
        }
    }
}

std::string to_utf8(const wchar_t* w) {
    std::string out;
    append_utf8(out, w);
    return out;
}

// Copies src into a fixed field when it fits (terminator included).
template <size_t N>
bool store(wchar_t (&field)[N], const wchar_t* src, size_t len) {
    if (len >= N) return false;
    wmemcpy(field, src, len);
    field[len] = L'\0';
    return true;
}

// Decimal value of a configuration entry; out-of-range values saturate.
int to_int(const std::wstring& value) {
    long v = std::wcstol(value.c_str(), nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

// Returns the number of bytes written; a failed write drops the rest.
size_t write_all(int fd, const char* data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::write(fd, data + done, len - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

void write_log(const std::string& text) {
    if (st_iFileDescriptor < 0) return;  // no log file could be opened: nowhere to go
    st_llFileSize += static_cast<long long>(write_all(st_iFileDescriptor, text.data(), text.size()));
}

// ------------------------------------------------------------ configuration

void set_defaults(Configuration& cfg) {
    std::memset(&cfg, 0, sizeof cfg);
    std::wcscpy(cfg.wszProductName, L"Sample");
    std::wcscpy(cfg.wszProductVersion, L"1_0");
    cfg.iSizeLimitMB = 30;
    cfg.iLogLevel = 2;
    cfg.iTraceLevel = 5;
    cfg.iMaxFiles = 5;
    cfg.iEnableLogging = 0;
    cfg.iEnableTracing = 0;
    cfg.iEnablePasswordLog = 0;
}

void apply_switch(int& field, int v) {
    if (v == 0 || v == 1) field = v;
}

// One piece of the configuration file as read (line feed included).
void apply_config_line(const std::wstring& line) {
    if (line.find(L'#') != std::wstring::npos) return;
    const size_t eq = line.find(L'=');
    if (eq == std::wstring::npos) return;

    std::wstring key;
    for (size_t i = 0; i < eq; ++i)
        if (!is_blank(line[i])) key.push_back(line[i]);

    size_t end = line.find(L'\n', eq + 1);
    if (end == std::wstring::npos) end = line.size();
    size_t begin = eq + 1;
    const size_t probe = eq / 2 + 1;  // never past the terminator: probe <= eq + 1
    if (probe < line.size() && is_blank(line[probe]))
        while (begin < end && is_blank(line[begin])) ++begin;
    std::wstring value = line.substr(begin, end - begin);

    if (key == L"Product" || key == L"Version") {
        std::wstring cleaned;
        for (wchar_t c : value) {
            if (c == L'"') continue;
            cleaned.push_back(is_ascii_alnum(c) ? c : L'_');
        }
        value.swap(cleaned);
    }
    if (value.empty()) return;

    Configuration& cfg = st_stConfiguration;
    if (key == L"Product") {
        store(cfg.wszProductName, value.c_str(), value.size());
    } else if (key == L"Version") {
        store(cfg.wszProductVersion, value.c_str(), value.size());
    } else if (key == L"Size") {
        int v = to_int(value);
        if (v >= 1) cfg.iSizeLimitMB = v;
    } else if (key == L"MaxFiles") {
        int v = to_int(value);
        if (v >= 1) cfg.iMaxFiles = v;
    } else if (key == L"LogLevel") {
        int v = to_int(value);
        if (v >= PEX_FATAL && v <= PEX_INFO) cfg.iLogLevel = v;
    } else if (key == L"TraceLevel") {
        int v = to_int(value);
        if (v >= PEX_TRACE_MIN && v <= PEX_TRACE_MAX) cfg.iTraceLevel = v;
    } else if (key == L"EnableLogging") {
        apply_switch(cfg.iEnableLogging, to_int(value));
    } else if (key == L"EnableTracing") {
        apply_switch(cfg.iEnableTracing, to_int(value));
    } else if (key == L"EnablePasswordLog") {
        apply_switch(cfg.iEnablePasswordLog, to_int(value));
    }
}

void read_config_text(const std::string& raw) {
    std::wstring text = decode_utf8(raw.data(), raw.size());
    size_t pos = 0;
    if (!text.empty() && text[0] == 0xFEFF) pos = 1;  // byte-order mark
    // Pieces as a fixed line buffer reads them: up to and including the line
    // feed, at most kConfigLineChars - 1 characters each.
    while (pos < text.size()) {
        size_t nl = text.find(L'\n', pos);
        size_t len = (nl == std::wstring::npos ? text.size() : nl + 1) - pos;
        if (len > kConfigLineChars - 1) len = kConfigLineChars - 1;
        apply_config_line(text.substr(pos, len));
        pos += len;
    }
}

void read_config_file(FILE* f) {
    std::string raw;
    char chunk[4096];
    size_t n;
    while (raw.size() < kConfigFileMaxBytes && (n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        raw.append(chunk, n);
    read_config_text(raw);
}

std::string source_location(const char* file, int line) {
    const char* name = file;
    const char* back = std::strrchr(file, '\\');
    if (back) name = back + 1;
    const char* slash = std::strrchr(name, '/');
    char text[kLocationChars + 1];
    if (back && slash)
        std::snprintf(text, sizeof text, " Source: %s:%d", slash + 1, line);
    else
        std::snprintf(text, sizeof text, " Source:%s:%d", slash ? slash + 1 : name, line);
    return text;
}

void close_log_file() {
    if (st_iFileDescriptor >= 0) ::close(st_iFileDescriptor);
    st_iFileDescriptor = -1;
    st_llFileSize = 0;
}

}  // namespace

// ------------------------------------------------------------ public entry points

extern "C" {

void getlocaltime(char* out) {
    if (out == nullptr) return;
    static const char kDays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    time_t now = std::time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr || tmv.tm_wday < 0 || tmv.tm_wday > 6 ||
        tmv.tm_mon < 0 || tmv.tm_mon > 11) {
        out[0] = '\0';
        return;
    }
    // asctime form without its line feed; fits kTimeChars up to the year 9999.
    char text[64];
    std::snprintf(text, sizeof text, "%.3s %.3s%3d %.2d:%.2d:%.2d %d", kDays[tmv.tm_wday],
                  kMonths[tmv.tm_mon], tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                  tmv.tm_year + 1900);
    size_t len = std::strlen(text);
    if (len > kTimeChars - 1) len = kTimeChars - 1;
    std::memcpy(out, text, len);
    out[len] = '\0';
}

void GetConfigurationOptions(const wchar_t* directory, int* found) {
    int dummy = 0;
    int& isFound = found ? *found : dummy;
    isFound = 0;
    set_defaults(st_stConfiguration);
    if (directory == nullptr ||
        !store(st_stConfiguration.wszLogDirectory, directory, std::wcslen(directory)))
        return;  // no usable directory: the defaults stand, the logger stays off

    std::string path = to_utf8(directory);
    path += '/';
    path += kConfigFileName;
    FILE* f = std::fopen(path.c_str(), "re");
    if (f == nullptr) return;
    isFound = 1;
    read_config_file(f);
    std::fclose(f);
}

int RotateAndOpenLogFile(void) {
    close_log_file();
    const Configuration& cfg = st_stConfiguration;
    if (st_iCurrentLogFileSequence >= cfg.iMaxFiles)
        st_iCurrentLogFileSequence = 1;
    else
        ++st_iCurrentLogFileSequence;

    std::string name = to_utf8(cfg.wszLogDirectory);
    name += "/PEX_API_Log_";
    append_utf8(name, cfg.wszProductName);
    name += '_';
    append_utf8(name, cfg.wszProductVersion);
    name += '_' + std::to_string(st_iProcessId) + '_' +
            std::to_string(st_iCurrentLogFileSequence) + ".log";

    st_iFileDescriptor = ::open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0744);
    st_llFileSize = 0;
    return st_iFileDescriptor >= 0 ? 1 : 0;
}

void AddBanner(void) {
    Configuration& cfg = st_stConfiguration;
    for (wchar_t* p = cfg.wszProductName; *p; ++p)
        if (is_blank(*p)) *p = L'_';
    for (wchar_t* p = cfg.wszProductVersion; *p; ++p)
        if (*p == L'.') *p = L'_';
    RotateAndOpenLogFile();
    // Back to the display form; underscores of the configured text turn
    // into blanks and dots as well.
    for (wchar_t* p = cfg.wszProductName; *p; ++p)
        if (*p == L'_') *p = L' ';
    for (wchar_t* p = cfg.wszProductVersion; *p; ++p)
        if (*p == L'_') *p = L'.';

    if (st_iFileDescriptor < 1) return;
    off_t size = ::lseek(st_iFileDescriptor, 0, SEEK_END);
    if (size != 0) return;

    const std::string dashes(66, '-');
    char now[kTimeChars];
    getlocaltime(now);
    std::string banner = dashes;
    banner += "\nPEX C Lib Debug object for : ";
    append_utf8(banner, cfg.wszProductName);
    banner += "\nVersion : ";
    append_utf8(banner, cfg.wszProductVersion);
    banner += "\nPEX C Lib Debug object Version: ";
    banner += kClientVersion;
    banner += "\nLog Start at: ";
    banner += '\n';
    banner += now;
    banner += " |";
    banner += '\n';
    banner += dashes;
    banner += "\n\n";
    write_log(banner);
}

void UpdateLogFileLocation(void) {
    ::mkdir("/tmp", 0777);
    ::mkdir("/tmp/NUV", 0777);
    ::mkdir("/tmp/NUV/PEX", 0777);
    ::mkdir(kLocationDir, 0777);
    int fd = ::open(kLocationFile, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return;
    std::string text;
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size == 3) text += '\n';  // a lone byte-order mark
    append_utf8(text, st_stConfiguration.wszProductName);
    text += '=';
    append_utf8(text, st_stConfiguration.wszLogDirectory);
    text += '\n';
    write_all(fd, text.data(), text.size());
    ::close(fd);
}

void InitializePEXLogger(const wchar_t* /*configFileLocation*/) {
    if (st_iIsLoggerInitialized) return;
    st_iIsLoggerInitialized = 1;

    int found = 0;
    char cwd[kCwdChars];
    if (::getcwd(cwd, sizeof cwd) != nullptr) {
        std::wstring dir = decode_utf8(cwd, std::strlen(cwd));
        GetConfigurationOptions(dir.c_str(), &found);
    } else {
        // The working directory is unknown or longer than the logger takes:
        // no configuration file, so logging stays off.
        GetConfigurationOptions(nullptr, &found);
    }
    if (!st_stConfiguration.iEnableLogging && !st_stConfiguration.iEnableTracing) {
        st_iLoggerOff = 1;
        return;
    }

    st_iProcessId = static_cast<int>(::getpid());
    AddBanner();
    std::string configPath = to_utf8(st_stConfiguration.wszLogDirectory);
    configPath += '/';
    configPath += kConfigFileName;
    LogPEXMessage(__FILE__, __LINE__, __func__, nullptr, kAlwaysWritten, "PEX Client Version",
                  kClientVersion, nullptr);
    LogPEXMessage(__FILE__, __LINE__, __func__, nullptr, kAlwaysWritten,
                  found ? "The PEX Log Configuration file was found"
                        : "The PEX Log Configuration file wasn't found",
                  configPath.c_str(), nullptr);
    UpdateLogFileLocation();
}

void LogPEXMessage(const char* sourceFile, int lineNumber, const char* event,
                   const char* messageId, int severity, const char* messageText,
                   const char* messageDescription, const char* userAction) {
    if (st_iLoggerOff) return;  // the common case: the logger is switched off
    if (!st_iIsLoggerInitialized) InitializePEXLogger(nullptr);
    const Configuration& cfg = st_stConfiguration;
    if (!cfg.iEnableLogging && !cfg.iEnableTracing) return;

    const bool tracing = severity == PEX_TRACE_MIN || severity == PEX_TRACE_MAX;
    bool pass = false;
    if (severity == kAlwaysWritten)
        pass = true;
    else if (severity >= PEX_FATAL && severity <= PEX_INFO)
        pass = cfg.iEnableLogging && severity <= cfg.iLogLevel;
    else if (tracing)
        pass = cfg.iEnableTracing && severity <= cfg.iTraceLevel;
    if (!pass) return;

    if (pthread_mutex_lock(&st_pmMutex) != 0) return;

    if (st_iFileDescriptor >= 0 &&
        static_cast<double>(st_llFileSize) / 1024 / 1024 > cfg.iSizeLimitMB) {
        close_log_file();
        AddBanner();
    }

    char now[kTimeChars];
    getlocaltime(now);
    std::string line;
    line.reserve(160);
    line += '\n';
    line += now;
    line += " |";
    if (messageId) {
        line += " ID: ";
        line += messageId;
        line += " |";
    }
    if (messageText) {
        line += ' ';
        line += messageText;
        line += " : ";
    }
    if (tracing && event) {
        line += event;
        line += " |";
    }
    if (messageDescription && *messageDescription) {
        if (!cfg.iEnablePasswordLog && messageText && std::strcmp(messageText, "Password") == 0)
            line += "xxxxxxxx";
        else
            line += messageDescription;
        line += " |";
    }
    if (userAction) {
        line += " Action: ";
        line += userAction;
        line += " |";
    }
    if (tracing) {
        line += source_location(sourceFile ? sourceFile : "", lineNumber);
        line += " |";
    }
    // One unbuffered write per line: nothing is held back in the process.
    write_log(line);

    pthread_mutex_unlock(&st_pmMutex);
}

}  // extern "C"

namespace orv {

LoggerSettings logger_settings_from_text(const std::string& text) {
    pthread_mutex_lock(&st_pmMutex);
    const Configuration saved = st_stConfiguration;
    set_defaults(st_stConfiguration);
    read_config_text(text);
    const Configuration& cfg = st_stConfiguration;
    LoggerSettings out;
    append_utf8(out.product, cfg.wszProductName);
    append_utf8(out.version, cfg.wszProductVersion);
    out.size_limit_mb = cfg.iSizeLimitMB;
    out.log_level = cfg.iLogLevel;
    out.trace_level = cfg.iTraceLevel;
    out.max_files = cfg.iMaxFiles;
    out.enable_logging = cfg.iEnableLogging;
    out.enable_tracing = cfg.iEnableTracing;
    out.enable_password_log = cfg.iEnablePasswordLog;
    st_stConfiguration = saved;
    pthread_mutex_unlock(&st_pmMutex);
    return out;
}

void logger_reset_for_tests() {
    pthread_mutex_lock(&st_pmMutex);
    close_log_file();
    std::memset(&st_stConfiguration, 0, sizeof st_stConfiguration);
    st_iIsLoggerInitialized = 0;
    st_iCurrentLogFileSequence = 0;
    st_iProcessId = 0;
    st_iLoggerOff = 0;
    pthread_mutex_unlock(&st_pmMutex);
}

}  // namespace orv
