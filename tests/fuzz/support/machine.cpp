#include "tests/fuzz/support/machine.h"

#include "log/memorylogger.h"
#include "log/system_log.h"
#include "tests/fuzz/support/checks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <pwd.h>
#include <random>
#include <sys/random.h>
#include <sys/types.h>
#include <syslog.h>

namespace kest {

// Jobs are never launched here, so nothing is written to it.
KEST::MemoryLogger executionLog("/dev/null/log", "/dev/null/staging", 1024, "/dev/null/lock");

namespace {

constexpr std::int64_t kStart = 1780366210; // 2 June 2026, 02:10:10

// NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): the same numbers in each run of an input
struct Machine {
    std::int64_t now = kStart;
    std::mt19937 random;
};

Machine &TheMachine() {
    static Machine machine;
    return machine;
}

class Scratch {
public:
    Scratch() : path_((std::filesystem::temp_directory_path() / "fuzz.XXXXXX").string()) {
        Require(mkdtemp(path_.data()) != nullptr, "a temporary directory can be created");
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string &Path() const { return path_; }

private:
    std::string path_;
};

} // namespace

void ResetMachine(std::string_view input) {
    static const int zoneIsSet = [] {
        setenv("TZ", "UTC", 1);
        tzset();
        return 0;
    }();
    static_cast<void>(zoneIsSet);
    TheMachine().now = kStart;
    TheMachine().random.seed(static_cast<unsigned>(std::hash<std::string_view>()(input)));
    errno = 0;
}

void SetClock(std::int64_t now) {
    TheMachine().now = now;
}

const std::string &ScratchDirectory() {
    static const Scratch scratch;
    return scratch.Path();
}

void WriteSystemLog(int priority, const char *text) {
    if (priority == LOG_ERR)
        Require(std::none_of(text, text + std::strlen(text),
                             [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
                "a message is one line");
}

Descriptor CatchUpWithSystemLog() {
    return {};
}

std::size_t LongestSystemLogText() {
    return std::size_t{1} << 16;
}

extern "C" {

time_t time(time_t *timer) noexcept {
    const time_t now = TheMachine().now;
    if (timer != nullptr)
        *timer = now;
    return now;
}

// The C library uses other parameter names in its declarations.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
ssize_t getrandom(void *buffer, size_t length, unsigned /*flags*/) {
    std::generate_n(static_cast<unsigned char *>(buffer), length,
                    [] { return static_cast<unsigned char>(TheMachine().random()); });
    return static_cast<ssize_t>(length);
}

passwd *getpwuid(uid_t uid) {
    static std::string name = kAccount;
    static passwd entry{};
    entry.pw_name = name.data();
    entry.pw_uid = uid;
    return &entry;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// Replaces the account lookup of the platform. The linker prescribes the name.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __wrap_KESTUserGetUGID(const char *name, uid_t *uid, gid_t *gid);

int __wrap_KESTUserGetUGID(const char *name, uid_t *uid, gid_t *gid) {
    if (std::strcmp(name, "root") != 0 && std::strcmp(name, kAccount) != 0)
        return -1;
    *uid = 0;
    *gid = 0;
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

} // extern "C"

} // namespace kest
