#include "ctl/display/pager.h"

#include "base/descriptor.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <spawn.h>
#include <sstream>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

bool HasBorrowedPrivileges() {
    for (const char *const variable : {"SUDO_UID", "DOAS_USER", "PKEXEC_UID"})
        if (std::getenv(variable) != nullptr)
            return true;
    return getuid() != geteuid();
}

bool IsInstalled(const std::string &program) {
    const char *const path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access(directory.append("/").append(program).c_str(), X_OK) == 0)
            return true;
    return false;
}

// The command of the pager; empty for none.
std::string PagerCommand() {
    const bool isBorrowed = HasBorrowedPrivileges();
    const char *const chosen = std::getenv("PAGER");
    if (chosen != nullptr && (!isBorrowed || *chosen == '\0'))
        return std::string_view(chosen) == "cat" ? "" : chosen;
    if (IsInstalled("less"))
        return "less";
    return !isBorrowed && IsInstalled("more") ? "more" : "";
}

// The rows that the complete lines of `text` take on the screen.
std::size_t RowsOf(const std::string &text, std::size_t width) {
    std::size_t rows = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        rows += 1 + (line.empty() ? 0 : (WidthOf(line) - 1) / width);
    return rows;
}

} // namespace

Pager::Pager(const Screen &screen, bool isAllowed)
    : screen_(screen), isHeld_(isAllowed && screen.width != 0 && screen.height != 0) {}

Pager::~Pager() {
    Pass();
    std::cout.flush();
    if (pid_ == -1)
        return;
    // The pager reads the end of the text when this process has closed standard output.
    const Descriptor none(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(none.Get(), STDOUT_FILENO);
    while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
    }
}

void Pager::Write(const std::string &text) {
    if (!isHeld_) {
        std::cout << text;
        return;
    }
    held_ += text;
    rows_ += RowsOf(text, screen_.width);
    if (rows_ < screen_.height) // the last row is for the prompt
        return;
    Start();
    Pass();
}

void Pager::Pass() {
    isHeld_ = false;
    std::cout << held_;
    held_.clear();
}

void Pager::Start() {
    std::string command = PagerCommand();
    std::array<int, 2> ends{};
    if (command.empty() || pipe2(ends.data(), O_CLOEXEC) == -1)
        return;
    const Descriptor output(ends[0]);
    const Descriptor input(ends[1]);
    // Colours are shown, and lines are cut at the screen's edge. A user's own options come first.
    setenv("LESS", "FRSX", 0);
    if (HasBorrowedPrivileges())
        setenv("LESSSECURE", "1", 1);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output.Get(), STDIN_FILENO);
    std::string shell("sh");
    std::string option("-c");
    const std::array<char *, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
    std::cout.flush();
    if (posix_spawn(&pid_, "/bin/sh", &actions, nullptr, arguments.data(), environ) != 0)
        pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (pid_ == -1)
        return;
    // The interrupt key is the pager's. A reader who leaves it early ends this process.
    std::signal(SIGINT, SIG_IGN);
    dup2(input.Get(), STDOUT_FILENO);
}

} // namespace kest::ctl
