#include "log/call_deadline.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

namespace kest {

namespace {

TEST(CallDeadline, InterruptsABlockingCall) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char byte = 0;
    for (const suseconds_t most : {0, 1, 20000}) {
        const auto start = std::chrono::steady_clock::now();
        const CallDeadline deadline({0, most});
        EXPECT_EQ(read(ends[0], &byte, 1), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(read(ends[0], &byte, 1), -1) << "each call is interrupted";
        EXPECT_TRUE(deadline.IsOver());
        EXPECT_EQ(deadline.Left().tv_sec + deadline.Left().tv_usec, 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(most));
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(CallDeadline, ReportsTheRemainingTime) {
    { EXPECT_TRUE(CallDeadline({0, 0}).IsOver()); }
    const CallDeadline deadline({1000, 0});
    EXPECT_FALSE(deadline.IsOver());
    EXPECT_GE(deadline.Left().tv_sec, 900);
    EXPECT_LE(deadline.Left().tv_sec, 1000);
}

TEST(CallDeadline, RestoresTheAlarm) {
    struct sigaction before {};
    sigset_t blocked;
    signal(SIGALRM, SIG_IGN);
    sigaction(SIGALRM, nullptr, &before);
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGALRM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    { const CallDeadline deadline({5, 0}); }
    struct sigaction after {};
    sigaction(SIGALRM, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
    sigset_t still;
    sigprocmask(SIG_UNBLOCK, &blocked, &still);
    EXPECT_EQ(sigismember(&still, SIGALRM), 1);
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    EXPECT_EQ(timer.it_value.tv_sec + timer.it_value.tv_usec, 0);
    signal(SIGALRM, SIG_DFL);
}

} // namespace

} // namespace kest
