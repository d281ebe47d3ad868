#include "job/overdue.h"

#include <boost/multiprecision/cpp_int.hpp>
#include <gtest/gtest.h>
#include <limits>

namespace kest {

namespace {

constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLeastHours = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMostHours = std::numeric_limits<std::int32_t>::max();

TEST(IsOverdue, HoldsOnceMoreThanTheHoursHavePassed) {
    struct Row {
        std::int32_t hours;
        std::int64_t last;
        std::int64_t now;
        bool overdue;
    };
    constexpr std::int64_t start = 1700000000;
    const Row rows[] = {
        {2, start, start + 7199, false},
        {2, start, start + 7200, false},
        {2, start, start + 7201, true},
        {1, start, start + 3600, false},
        {1, start, start + 3601, true},
        {1, start, start - 100000, false}, // the clock was set back
        {1, 0, start, true},               // never run, never known
        {0, 0, start, false},
        {0, kFirst, kLast, false},
        {-1, start, start - 3600, false},
        {-1, start, start - 3599, true},
        {kMostHours, 0, 3600LL * kMostHours, false},
        {kMostHours, 0, 3600LL * kMostHours + 1, true},
        {kLeastHours, 0, 3600LL * kLeastHours, false},
        {kLeastHours, 0, 3600LL * kLeastHours + 1, true},
        {1, kLast, kLast, false},
        {1, kLast - 3600, kLast, false},
        {1, kLast - 3601, kLast, true},
        {kMostHours, kLast, kLast, false},
        {kMostHours, kLast, kFirst, false},
        {-1, kFirst, kFirst, true},
        {-1, kFirst + 3600, kFirst, false},
        {-1, kFirst + 3600, kFirst + 1, true},
        {kLeastHours, kFirst, kFirst, true},
        {kLeastHours, kFirst, kLast, true},
        {1, kFirst, kFirst, false},
        {1, kFirst, kLast, true},
    };
    for (const Row &row : rows)
        EXPECT_EQ(IsOverdue(row.hours, row.last, row.now), row.overdue)
            << row.hours << " hours, last " << row.last << ", now " << row.now;
}

TEST(IsOverdue, AgreesWithWiderArithmetic) {
    using Wide = boost::multiprecision::int128_t;
    const std::int32_t allHours[] = {kLeastHours, -2, -1, 0, 1, 2, 24, 596523, kMostHours};
    const std::int64_t allTimes[] = {kFirst,     kFirst + 3600, -3601,        -3600, -1,   0,
                                     1,          3599,          3600,         3601,  7200, 7201,
                                     4294967296, kLast - 3601,  kLast - 3600, kLast};
    for (const std::int32_t hours : allHours)
        for (const std::int64_t last : allTimes)
            for (const std::int64_t now : allTimes)
                EXPECT_EQ(IsOverdue(hours, last, now),
                          hours != 0 && Wide{now} > Wide{last} + Wide{3600} * hours)
                    << hours << " hours, last " << last << ", now " << now;
}

} // namespace

} // namespace kest
