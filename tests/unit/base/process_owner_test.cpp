#include "base/process_owner.h"

#include "tests/unit/support/child.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace kest {

namespace {

TEST(IsProcessOfRoot, ChecksEveryUserOfTheProcess) {
    EXPECT_TRUE(IsProcessOfRoot(getpid()));
    const struct {
        uid_t real;
        uid_t effective;
        uid_t saved;
    } rows[] = {{kOtherAccount, kOtherAccount, kOtherAccount},
                {kOtherAccount, 0, 0},
                {0, kOtherAccount, 0},
                {0, 0, kOtherAccount}};
    for (const auto &row : rows)
        EXPECT_EQ(InChild([&] {
                      if (setresuid(row.real, row.effective, row.saved) != 0)
                          return 1;
                      prctl(PR_SET_DUMPABLE, 0); // then "/proc/PID" is root's
                      return IsProcessOfRoot(getpid()) ? 2 : 0;
                  }),
                  0);
}

TEST(IsProcessOfRoot, IsFalseWithoutAProcess) {
    errno = ENOSPC;
    EXPECT_FALSE(IsProcessOfRoot(0));
    EXPECT_FALSE(IsProcessOfRoot(-1));
    EXPECT_FALSE(IsProcessOfRoot(1 << 30));
    EXPECT_EQ(errno, ENOSPC);
}

} // namespace

} // namespace kest
