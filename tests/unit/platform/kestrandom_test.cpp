#include "platform/kestrandom.h"

#include "tests/unit/support/child.h"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <unistd.h>
#include <vector>

namespace kest {

namespace {

using KEST::RANDOM::KESTRandom;

constexpr std::int32_t kLowestNumber = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighestNumber = std::numeric_limits<std::int32_t>::max();

TEST(KESTRandom, DrawsEveryValueBelowItsUpperBound) {
    struct Row {
        std::int32_t low;
        std::int32_t high;
    };
    const Row rows[] = {{0, 60},
                        {0, 24},
                        {1, 29},
                        {1, 13},
                        {0, 7},
                        {5, 7},
                        {-3, 4},
                        {kLowestNumber, kLowestNumber + 3},
                        {kHighestNumber - 3, kHighestNumber}};
    KESTRandom random;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.low);
        std::set<std::int32_t> seen;
        for (int i = 0; i < 3000; ++i)
            seen.insert(random.random(row.low, row.high));
        EXPECT_EQ(*seen.begin(), row.low);
        EXPECT_EQ(*seen.rbegin(), row.high - 1);
        EXPECT_EQ(seen.size(), static_cast<std::size_t>(row.high - row.low));
    }
}

TEST(KESTRandom, ReturnsTheLowerBoundOfAnEmptyRange) {
    struct Row {
        std::int32_t low;
        std::int32_t high;
    };
    const Row rows[] = {{5, 6},
                        {5, 5},
                        {5, 4},
                        {5, -100},
                        {0, 0},
                        {-1, 0},
                        {kHighestNumber, kHighestNumber},
                        {kHighestNumber - 1, kHighestNumber},
                        {kHighestNumber, 0},
                        {kLowestNumber, kLowestNumber + 1}};
    KESTRandom random;
    for (const Row &row : rows)
        for (int i = 0; i < 20; ++i)
            EXPECT_EQ(random.random(row.low, row.high), row.low) << row.low << " " << row.high;
}

TEST(KESTRandom, AcceptsAnyUpperBound) {
    KESTRandom random;
    EXPECT_EQ(random.random(5, kLowestNumber), 5);
    EXPECT_EQ(random.random(kLowestNumber, kLowestNumber), kLowestNumber);
}

TEST(KESTRandom, CoversTheWholeRangeOfItsType) {
    KESTRandom random;
    int negative = 0;
    for (int i = 0; i < 1000; ++i)
        negative += random.random(kLowestNumber, kHighestNumber) < 0 ? 1 : 0;
    // 500 are expected, and 16 is the standard deviation.
    EXPECT_GT(negative, 350);
    EXPECT_LT(negative, 650);
}

// Chi-square of a source that uses the remainder of a byte would exceed 600 here. That of a fair
// source is 59 on average and does not reach the limit in a thousand million runs.
TEST(KESTRandom, DrawsEachMinuteEquallyOften) {
    constexpr int draws = 60000;
    constexpr double expected = draws / 60.0;
    KESTRandom random;
    std::array<int, 60> counts{};
    for (int i = 0; i < draws; ++i)
        ++counts.at(static_cast<std::size_t>(random.random(0, 60)));
    double chiSquare = 0;
    for (const int count : counts)
        chiSquare += (count - expected) * (count - expected) / expected;
    EXPECT_LT(chiSquare, 150);
    EXPECT_GT(chiSquare, 5); // not suspiciously even
}

// A child has a copy of the source, but draws other values.
TEST(KESTRandom, DrawsDifferentlyInEachProcess) {
    KESTRandom random;
    random.random(0, 60);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::array<std::int32_t, 8> theirs{};
    EXPECT_EQ(InChild([&] {
                  for (std::int32_t &draw : theirs)
                      draw = random.random(0, kHighestNumber);
                  return write(ends[1], theirs.data(), sizeof theirs) == sizeof theirs ? 0 : 1;
              }),
              0);
    ASSERT_EQ(read(ends[0], theirs.data(), sizeof theirs), static_cast<ssize_t>(sizeof theirs));
    close(ends[0]);
    close(ends[1]);
    std::array<std::int32_t, 8> ours{};
    for (std::int32_t &draw : ours)
        draw = random.random(0, kHighestNumber);
    EXPECT_NE(ours, theirs);
}

} // namespace

} // namespace kest
