// The starts of package accounts' jobs that wait out their delay.
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
    // How many starts of one account may wait at a time.
    static constexpr std::size_t kMostOfAccount = 1000;

    // Seconds of a clock that nobody sets.
    static std::int64_t Now();

    // Whether one more start of `account` may wait at `now`.
    bool HasPlace(const std::string &account, std::int64_t now);

    // Adds a start of the job `name` that waits until `end`.
    void Add(const std::string &account, const std::string &name, std::int64_t end);

    // The jobs of which a start waits at `now`.
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
