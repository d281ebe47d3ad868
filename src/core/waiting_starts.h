// Delayed starts of the jobs of package accounts.
//
// Each is a process of root's. They are counted, because the jobs of an account could otherwise
// fill the machine with them; and a program that one of them needs is not removed. Nothing is
// tracked: a start waits exactly until its delay is over.

#ifndef CORE_WAITING_STARTS_H
#define CORE_WAITING_STARTS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kest {

class WaitingStarts {
public:
    // The largest number of delayed starts of one account.
    static constexpr std::size_t kMostOfAccount = 1000;

    // Seconds of the monotonic clock.
    static std::int64_t Now();

    // Whether one more delayed start of `account` is allowed at `now`.
    bool MayWait(const std::string &account, std::int64_t now);

    // Adds a start of the job `name` that is delayed until `end`.
    void Add(const std::string &account, const std::string &name, std::int64_t end);

    // The jobs that have a delayed start at `now`.
    std::set<std::string> Jobs(std::int64_t now) const;

private:
    struct Start {
        std::int64_t end;
        std::string job;
    };
    std::map<std::string, std::vector<Start>> starts_; // by account
};

} // namespace kest

#endif
