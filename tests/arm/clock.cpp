// The clock of a private machine for programs of 32-bit ARM. Debian's libfaketime replaces only
// the calls with a 32-bit time there. This one replaces those with 64 bits that the programs make,
// and reads the same variables: FAKETIME, or the file FAKETIME_TIMESTAMP_FILE at each call, with
//
//     @2026-06-02 02:10:10 x60    from then on, sixty times as fast
//     2026-06-02 02:10:10         always then; sleeps take their real time
//     +2500000000y x60            this number of years of 365 days from now

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr double kNanoseconds = 1e9;

double Now(clockid_t clock) {
    timespec now{};
    syscall(SYS_clock_gettime64, clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / kNanoseconds;
}

const double startedAt = Now(CLOCK_MONOTONIC);

struct Setting {
    std::time_t base = 0;
    double rate = 0;
};

std::string SettingText() {
    const char *const path = getenv("FAKETIME_TIMESTAMP_FILE");
    if (path == nullptr) {
        const char *const text = getenv("FAKETIME");
        return text != nullptr ? text : "+0y x1";
    }
    char text[100];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(file, text, sizeof text);
    close(file);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
}

Setting ReadSetting() {
    const std::string text = SettingText();
    const std::size_t x = text.find(" x");
    const double rate = x != std::string::npos ? std::atof(text.c_str() + x + 2) : 0;
    if (text[0] == '+') {
        const double years = std::atof(text.c_str());
        return {static_cast<std::time_t>(Now(CLOCK_REALTIME) + years * 365 * 24 * 60 * 60), rate};
    }
    tm local{};
    local.tm_isdst = -1;
    const bool runs = text[0] == '@';
    strptime(text.c_str() + (runs ? 1 : 0), "%Y-%m-%d %H:%M:%S", &local);
    return {std::mktime(&local), rate};
}

timespec InTimespec(double seconds) {
    timespec time{};
    time.tv_sec = static_cast<std::time_t>(seconds);
    time.tv_nsec = static_cast<long>((seconds - static_cast<double>(time.tv_sec)) * kNanoseconds);
    return time;
}

double InSeconds(const timespec &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNanoseconds;
}

// How many seconds of the clock pass in a second.
double Rate() {
    const double rate = ReadSetting().rate;
    return rate > 0 ? rate : 1;
}

int SleepAtRate(double seconds, double *left) {
    const double rate = Rate();
    const timespec request = InTimespec(seconds / rate);
    timespec rest{};
    const long result = syscall(SYS_clock_nanosleep_time64, CLOCK_MONOTONIC, 0, &request, &rest);
    *left = result == 0 ? 0 : rate * InSeconds(rest);
    return result == 0 ? 0 : -1;
}

} // namespace

extern "C" std::time_t time(std::time_t *result) {
    const int kept = errno;
    const Setting setting = ReadSetting();
    const std::time_t now =
        setting.base + static_cast<std::time_t>((Now(CLOCK_MONOTONIC) - startedAt) * setting.rate);
    errno = kept;
    if (result != nullptr)
        *result = now;
    return now;
}

extern "C" unsigned sleep(unsigned seconds) {
    double left = 0;
    const int kept = errno;
    SleepAtRate(seconds, &left);
    errno = kept;
    return static_cast<unsigned>(left + 0.5);
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) {
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime64, clock, now));
    *now = InTimespec(startedAt + (Now(CLOCK_MONOTONIC) - startedAt) * Rate());
    return 0;
}

extern "C" int pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                       const timespec *timeout, const sigset_t *mask) {
    const timespec request = InTimespec(InSeconds(*timeout) / Rate());
    constexpr std::size_t maskSize = 8; // the kernel's
    const struct {
        const sigset_t *mask;
        std::size_t size;
    } during = {mask, maskSize};
    return static_cast<int>(
        syscall(SYS_pselect6_time64, count, readable, writable, exceptional, &request, &during));
}

extern "C" int nanosleep(const timespec *request, timespec *rest) {
    double left = 0;
    const int result = SleepAtRate(InSeconds(*request), &left);
    if (rest != nullptr)
        *rest = InTimespec(left);
    return result;
}
