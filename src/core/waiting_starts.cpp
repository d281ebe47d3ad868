#include "core/waiting_starts.h"

#include <algorithm>
#include <chrono>

namespace kest {

std::int64_t WaitingStarts::Now() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

bool WaitingStarts::MayWait(const std::string &account, std::int64_t now) {
    const auto found = starts_.find(account);
    if (found == starts_.end())
        return true;
    auto &starts = found->second;
    starts.erase(std::remove_if(starts.begin(), starts.end(),
                                [now](const Start &start) { return start.end <= now; }),
                 starts.end());
    return starts.size() < kMostOfAccount;
}

void WaitingStarts::Add(const std::string &account, const std::string &name, std::int64_t end) {
    starts_[account].push_back({end, name});
}

std::set<std::string> WaitingStarts::Jobs(std::int64_t now) const {
    std::set<std::string> jobs;
    for (const auto &[account, starts] : starts_)
        for (const Start &start : starts)
            if (start.end > now)
                jobs.insert(start.job);
    return jobs;
}

} // namespace kest
