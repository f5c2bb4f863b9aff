#include "orv_failures.hpp"

namespace orvsrv {

void FailureLimit::forget_before(Record& r, std::int64_t limit) {
    while (!r.failures.empty() && r.failures.front() <= limit) r.failures.pop_front();
}

void FailureLimit::sweep(std::int64_t now) {
    for (auto it = records_.begin(); it != records_.end();) {
        forget_before(it->second, now - window_);
        if (it->second.failures.empty() && it->second.running == 0) {
            it = records_.erase(it);
        } else {
            ++it;
        }
    }
}

FailureLimit::Decision FailureLimit::begin(const std::string& account, std::int64_t now,
                                           unsigned max_failures, std::int64_t window) {
    std::lock_guard<std::mutex> lock(mutex_);
    window_ = window;
    auto it = records_.find(account);
    if (it == records_.end()) {
        if (records_.size() >= capacity_) sweep(now);
        if (records_.size() >= capacity_) return Decision::full;
        it = records_.emplace(account, Record()).first;
    }
    Record& r = it->second;
    forget_before(r, now - window);
    if (r.failures.size() + r.running >= max_failures) {
        if (r.failures.empty() && r.running == 0) records_.erase(it);
        return Decision::locked;
    }
    ++r.running;
    return Decision::allowed;
}

void FailureLimit::finish(const std::string& account, std::int64_t now, Result result) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = records_.find(account);
    if (it == records_.end()) return;
    Record& r = it->second;
    if (r.running > 0) --r.running;
    if (result == Result::failed) {
        r.failures.push_back(now);
    } else if (result == Result::succeeded) {
        r.failures.clear();
    }
    if (r.failures.empty() && r.running == 0) records_.erase(it);
}

std::size_t FailureLimit::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_.size();
}

}  // namespace orvsrv
