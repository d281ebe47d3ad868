#include "base/random_mix.h"

#include <array>
#include <bitset>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace kest {

namespace {

// A board from the factory. Boards differ only in the serial number and the last bytes of the
// hardware address, and their clocks begin at the same moment.
std::string Board(int number) {
    std::string serial = std::to_string(100000 + number);
    return "machine-id\n" + std::string(1, '\0') + "02:00:00:00:" + serial.substr(2, 2) + ":" +
           serial.substr(4) + "\n" + serial;
}

double ChiSquare(const std::vector<int> &counts, double expected) {
    double sum = 0;
    for (const int count : counts)
        sum += (count - expected) * (count - expected) / expected;
    return sum;
}

// Each draw of a thousand equal boards that start at the same moment is spread over the hour. With
// 60 minutes chi-square is 59 on average for fair draws, and almost never 120.
TEST(MixBits, SpreadsAThousandEqualBoards) {
    for (std::uint64_t draw = 1; draw <= 10; ++draw) {
        std::vector<int> counts(60);
        std::set<std::uint32_t> different;
        for (int board = 0; board < 1000; ++board) {
            const std::uint32_t bits =
                MixBits(Board(board), {1780366210000000000U, 4000000000U, 1, draw, 0});
            different.insert(bits);
            ++counts.at(bits % 60);
        }
        EXPECT_GE(different.size(), 999U);
        EXPECT_LT(ChiSquare(counts, 1000 / 60.0), 120) << draw;
    }
}

// The draws of one machine are as even as those of many, and so are the steps between them.
TEST(MixBits, SpreadsTheDrawsOfOneBoard) {
    std::vector<int> counts(60);
    std::vector<int> steps(60);
    std::uint32_t last = 0;
    for (std::uint64_t draw = 1; draw <= 6000; ++draw) {
        const std::uint32_t bits = MixBits(Board(1), {1, 2, 3, draw, 0}) % 60;
        ++counts.at(bits);
        ++steps.at((bits + 60 - last) % 60);
        last = bits;
    }
    EXPECT_LT(ChiSquare(counts, 100), 120);
    EXPECT_LT(ChiSquare(steps, 100), 120);
}

TEST(MixBits, ChangesHalfOfItsBitsForEachInputBit) {
    const std::string machine = Board(7);
    const std::uint32_t whole = MixBits(machine, {1, 2});
    EXPECT_EQ(MixBits(machine, {1, 2}), whole);
    const auto differs = [&](std::uint32_t other) {
        const std::size_t bits = std::bitset<32>(whole ^ other).count();
        return bits >= 4 && bits <= 28;
    };
    for (std::size_t i = 0; i < machine.size() * 8; ++i) {
        std::string other = machine;
        other[i / 8] = static_cast<char>(other[i / 8] ^ (1 << (i % 8)));
        EXPECT_TRUE(differs(MixBits(other, {1, 2}))) << i;
    }
    for (unsigned i = 0; i < 64; ++i) {
        EXPECT_TRUE(differs(MixBits(machine, {1 ^ (std::uint64_t{1} << i), 2}))) << i;
        EXPECT_TRUE(differs(MixBits(machine, {1, 2 ^ (std::uint64_t{1} << i)}))) << i;
    }
    EXPECT_TRUE(differs(MixBits(machine, {2, 1})));
    EXPECT_TRUE(differs(MixBits(machine, {1})));
    EXPECT_TRUE(differs(MixBits("", {1, 2})));
}

TEST(DescribeMachine, IsTheSameEachTime) {
    EXPECT_EQ(DescribeMachine(), DescribeMachine());
    EXPECT_GE(DescribeMachine().size(), 7U);
}

} // namespace

} // namespace kest
