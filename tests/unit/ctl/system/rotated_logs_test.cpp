#include "ctl/system/rotated_logs.h"

#include <gtest/gtest.h>
#include <utility>

namespace kest::ctl {

namespace {

TEST(ReadRotatedName, AcceptsTheNamesOfLogrotate) {
    struct Row {
        const char *suffix;
        const char *rotation;
        const char *program;
    };
    const Row rows[] = {
        {".1", ".1", nullptr},
        {".12.gz", ".12", "gzip"},
        {".3.bz2", ".3", "bzip2"},
        {".3.xz", ".3", "xz"},
        {"-20261115.zst", "-20261115", "zstd"},
        {"-2026-11-15T03:00", "-2026-11-15T03:00", nullptr},
        {"-1794708010", "-1794708010", nullptr},
    };
    for (const auto &[suffix, rotation, program] : rows) {
        const auto name = ReadRotatedName(suffix);
        ASSERT_TRUE(name) << suffix;
        EXPECT_EQ(name->rotation, rotation);
        EXPECT_STREQ(name->program, program);
    }
}

TEST(ReadRotatedName, RefusesOtherNames) {
    for (const char *suffix : {"", ".", "-", ".gz", ".1.", ".1.gz.part", ".old", ".1a", "1", "-old",
                               ".-1", "..1", "-20261115.old", ".1.GZ", ".1.2"})
        EXPECT_FALSE(ReadRotatedName(suffix)) << suffix;
}

TEST(RotatedName, OrdersFilesByAge) {
    const char *const fromOld[] = {"-20251231.gz", ".20260101", "-20261115.xz", ".10.gz",
                                   ".9.gz",        ".2.gz",     ".2",           ".1"};
    for (std::size_t i = 0; i < std::size(fromOld); ++i)
        for (std::size_t j = 0; j < std::size(fromOld); ++j)
            EXPECT_EQ(ReadRotatedName(fromOld[i])->IsOlderThan(*ReadRotatedName(fromOld[j])), i < j)
                << fromOld[i] << " " << fromOld[j];
}

} // namespace

} // namespace kest::ctl
