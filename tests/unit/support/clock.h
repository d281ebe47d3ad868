// The time as the code under test sees it. The test program defines the C library's time() itself.

#ifndef TESTS_UNIT_SUPPORT_CLOCK_H
#define TESTS_UNIT_SUPPORT_CLOCK_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace kest {

// While an object of this class lives, time() stands still; otherwise it is the real one.
class FixedClock {
public:
    explicit FixedClock(std::int64_t now);
    FixedClock(const FixedClock &) = delete;
    FixedClock &operator=(const FixedClock &) = delete;
    ~FixedClock();

    void Set(std::int64_t now);
};

// While an object of this class lives, local time is that of the time zone `name`.
class LocalZone {
public:
    explicit LocalZone(const std::string &name);
    LocalZone(const LocalZone &) = delete;
    LocalZone &operator=(const LocalZone &) = delete;
    ~LocalZone();

    // Is called after each change, if it is set: for caches of local times.
    static inline void (*onChange)() = nullptr;

private:
    std::optional<std::string> before_;
};

// Seconds since the epoch of a time in UTC.
std::int64_t Utc(int year, int month, int day, int hour, int minute, int second = 0);

// The broken-down form of a time in UTC, weekday included.
std::tm BrokenDown(int year, int month, int day, int hour, int minute, int second = 0);

} // namespace kest

#endif
