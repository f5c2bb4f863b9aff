// Failed operating-system password checks per account, so that a client
// cannot try passwords without limit: after max_failures failures within
// window seconds the account is refused without asking PAM until the
// oldest of them is older than the window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace orvsrv {

class FailureLimit {
public:
    enum class Decision { allowed, locked, full };

    explicit FailureLimit(std::size_t capacity = 65536) : capacity_(capacity) {}

    // Reserves one check of the account. Checks that are still running count
    // as failures, so parallel requests cannot overshoot the limit. "full":
    // too many accounts are being tracked to take another one (refuse too).
    // Every "allowed" must be followed by finish().
    Decision begin(const std::string& account, std::int64_t now, unsigned max_failures,
                   std::int64_t window);
    // How a check begun with begin() ended: a wrong password is recorded, a
    // right one clears the account's record, anything else (a right password
    // for an account that may not log in, a broken PAM stack) leaves it.
    enum class Result { failed, succeeded, inconclusive };
    void finish(const std::string& account, std::int64_t now, Result result);

    // Accounts tracked now (for tests).
    std::size_t size() const;

private:
    struct Record {
        std::deque<std::int64_t> failures;  // times, oldest first
        unsigned running = 0;
    };
    static void forget_before(Record& r, std::int64_t limit);
    void sweep(std::int64_t now);

    mutable std::mutex mutex_;
    std::unordered_map<std::string, Record> records_;
    std::size_t capacity_;
    std::int64_t window_ = 0;  // of the latest begin(), used when sweeping
};

}  // namespace orvsrv
