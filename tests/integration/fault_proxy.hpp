// A TCP relay on 127.0.0.1 between the library and a directory server, for
// the fault tests: it passes LDAP traffic both ways and, when armed, acts at
// the moment the library sends a given kind of request (bind, search,
// modify, extended operation): it runs the test's action there (kill the
// server, stop it, restart it) before the request goes on, or resets the
// library's connection instead (RST, as a firewall or a dying peer does).
//
// One thread with a poll loop; the test talks to it through arm(), fired()
// and the destructor only.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace orvtest {

// Protocol-operation tags of the LDAP requests the library sends.
constexpr unsigned char kBindRequest = 0x60;
constexpr unsigned char kSearchRequest = 0x63;
constexpr unsigned char kModifyRequest = 0x66;
constexpr unsigned char kExtendedRequest = 0x77;

// Stops a process with SIGSTOP and returns once every one of its threads
// has stopped (kill() returns before the stop reaches a thread that is
// running at that moment, which could still answer a request).
inline void stop_process(int pid) {
    kill(pid, SIGSTOP);
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    for (int i = 0; i < 400; ++i) {
        DIR* d = opendir(dir.c_str());
        if (!d) return;
        bool stopped = true;
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            std::ifstream f(dir + "/" + e->d_name + "/stat");
            std::string stat;
            std::getline(f, stat);
            size_t paren = stat.rfind(')');
            if (paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] != 'T')
                stopped = false;
        }
        closedir(d);
        if (stopped) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

class FaultProxy {
public:
    // What becomes of the request that fired the trigger.
    enum class Verdict { Forward, Reset };
    using Action = std::function<Verdict()>;

    explicit FaultProxy(int upstream_port) : upstream_port_(upstream_port) {
        listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listen_fd_ < 0) throw std::runtime_error("proxy: socket");
        int on = 1;
        setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in addr = loopback(0);
        socklen_t len = sizeof addr;
        if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_fd_, 16) != 0 ||
            getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            close(listen_fd_);
            throw std::runtime_error("proxy: cannot listen on 127.0.0.1");
        }
        port_ = ntohs(addr.sin_port);
        if (pipe2(wake_, O_CLOEXEC) != 0) {
            close(listen_fd_);
            throw std::runtime_error("proxy: pipe");
        }
        thread_ = std::thread([this] { run(); });
    }

    ~FaultProxy() {
        stop_ = true;
        char c = 0;
        (void)!write(wake_[1], &c, 1);
        thread_.join();
        for (Pair& p : pairs_) close_pair(p, false);
        close(listen_fd_);
        close(wake_[0]);
        close(wake_[1]);
    }

    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    int port() const { return port_; }

    // Runs `action` in the relay's thread when the nth request with the
    // protocol-operation tag `tag` from now reaches the relay, before it is
    // passed on (or instead of it, for Verdict::Reset).
    void arm(unsigned char tag, int nth, Action action) {
        std::lock_guard<std::mutex> lock(mutex_);
        tag_ = tag;
        remaining_ = nth;
        action_ = std::move(action);
        fired_ = false;
    }
    void disarm() {
        std::lock_guard<std::mutex> lock(mutex_);
        action_ = nullptr;
    }
    bool fired() const { return fired_; }

private:
    struct Pair {
        int client = -1;
        int upstream = -1;
        std::string pending;  // client bytes not yet framed into requests
    };

    static sockaddr_in loopback(int port) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        return addr;
    }

    static bool send_all(int fd, const char* data, size_t len) {
        while (len > 0) {
            ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            data += n;
            len -= static_cast<size_t>(n);
        }
        return true;
    }

    // Closes both sides; with `reset` the library's side gets an RST.
    static void close_pair(Pair& p, bool reset) {
        if (p.client >= 0) {
            if (reset) {
                linger l{1, 0};
                setsockopt(p.client, SOL_SOCKET, SO_LINGER, &l, sizeof l);
            }
            close(p.client);
        }
        if (p.upstream >= 0) close(p.upstream);
        p.client = p.upstream = -1;
    }

    // Length of the first complete LDAP message in `buf` (0: incomplete) and
    // its protocol-operation tag.
    static size_t frame(const std::string& buf, unsigned char* tag) {
        const auto* b = reinterpret_cast<const unsigned char*>(buf.data());
        size_t n = buf.size();
        if (n < 2) return 0;
        if (b[0] != 0x30) return n;  // not LDAP as expected: pass it on as it is
        size_t pos = 2, len = b[1];
        if (len & 0x80) {
            size_t octets = len & 0x7f;
            if (octets == 0 || octets > 4) return n;
            if (n < 2 + octets) return 0;
            len = 0;
            for (size_t i = 0; i < octets; ++i) len = (len << 8) | b[2 + i];
            pos = 2 + octets;
        }
        if (n < pos + len) return 0;
        // messageID INTEGER, then the operation.
        size_t op = pos;
        if (op + 1 < n && b[op] == 0x02) op += 2 + b[op + 1];
        *tag = op < n ? b[op] : 0;
        return pos + len;
    }

    void accept_one() {
        int client = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        int upstream = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = loopback(upstream_port_);
        if (upstream < 0 || connect(upstream, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            // Nobody there: the library sees its connection closed.
            if (upstream >= 0) close(upstream);
            close(client);
            return;
        }
        Pair p;
        p.client = client;
        p.upstream = upstream;
        pairs_.push_back(p);
    }

    // Client bytes: framed into requests, each checked against the trigger.
    void from_client(Pair& p) {
        char buf[65536];
        ssize_t n = recv(p.client, buf, sizeof buf, 0);
        if (n <= 0) {
            close_pair(p, false);
            return;
        }
        p.pending.append(buf, static_cast<size_t>(n));
        for (;;) {
            unsigned char tag = 0;
            size_t len = frame(p.pending, &tag);
            if (len == 0) return;
            Action action;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (action_ && tag == tag_ && --remaining_ == 0) {
                    action = std::move(action_);
                    action_ = nullptr;
                }
            }
            Verdict verdict = action ? action() : Verdict::Forward;
            if (action) fired_ = true;
            if (verdict == Verdict::Reset) {
                close_pair(p, true);
                return;
            }
            if (!send_all(p.upstream, p.pending.data(), len)) {
                close_pair(p, false);
                return;
            }
            p.pending.erase(0, len);
        }
    }

    // Server bytes go to the library unchanged; a server that reset the
    // connection resets the library's too.
    void from_upstream(Pair& p) {
        char buf[65536];
        ssize_t n = recv(p.upstream, buf, sizeof buf, 0);
        if (n <= 0) {
            close_pair(p, n < 0 && errno == ECONNRESET);
            return;
        }
        if (!send_all(p.client, buf, static_cast<size_t>(n))) close_pair(p, false);
    }

    void run() {
        while (!stop_) {
            std::vector<pollfd> fds;
            fds.push_back({wake_[0], POLLIN, 0});
            fds.push_back({listen_fd_, POLLIN, 0});
            for (const Pair& p : pairs_) {
                fds.push_back({p.client, POLLIN, 0});
                fds.push_back({p.upstream, POLLIN, 0});
            }
            if (poll(fds.data(), fds.size(), 1000) < 0 && errno != EINTR) break;
            if (fds[1].revents & POLLIN) accept_one();
            for (size_t i = 0; i < pairs_.size() && 2 + 2 * i + 1 < fds.size(); ++i) {
                Pair& p = pairs_[i];
                if (p.client >= 0 && fds[2 + 2 * i].revents) from_client(p);
                if (p.upstream >= 0 && fds[2 + 2 * i + 1].revents) from_upstream(p);
            }
            std::vector<Pair> open;
            for (Pair& p : pairs_)
                if (p.client >= 0) open.push_back(std::move(p));
            pairs_ = std::move(open);
        }
    }

    int upstream_port_;
    int listen_fd_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::atomic<bool> fired_{false};
    std::mutex mutex_;
    unsigned char tag_ = 0;
    int remaining_ = 0;
    Action action_;
    std::vector<Pair> pairs_;  // touched by the relay's thread only
    std::thread thread_;
};

}  // namespace orvtest
