#include "tests/unit/support/child.h"

#include <chrono>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace kest {

pid_t StartChild(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child != 0)
        return child;
    int status = 99;
    try {
        status = body();
    } catch (...) {
        status = 99;
    }
    _exit(status);
}

int ExitStatusOf(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) < 0 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

int InChild(const std::function<int()> &body) {
    return ExitStatusOf(StartChild(body));
}

bool Eventually(const std::function<bool()> &holds) {
    constexpr std::chrono::milliseconds pause(5);
    for (int i = 0; i < 2000; ++i) {
        if (holds())
            return true;
        std::this_thread::sleep_for(pause);
    }
    return false;
}

} // namespace kest
