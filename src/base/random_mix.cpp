#include "base/random_mix.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"

#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <vector>

namespace kest {

namespace {

// One step of SplitMix64: each bit of the state changes half of the bits of the result.
std::uint64_t Scramble(std::uint64_t state) {
    state += 0x9e3779b97f4a7c15U;
    state = (state ^ (state >> 30U)) * 0xbf58476d1ce4e5b9U;
    state = (state ^ (state >> 27U)) * 0x94d049bb133111ebU;
    return state ^ (state >> 31U);
}

// The content of a small file and a zero byte, which keeps it apart from the next; the byte alone
// when there is none.
std::string IdentityIn(const std::string &path) {
    constexpr std::size_t most = 65536;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string content;
    if (!file || !ReadAll(file.Get(), most, content))
        content.clear();
    return content + '\0';
}

std::vector<std::string> AddressFiles() {
    std::vector<std::string> files;
    std::error_code ignored;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator interface("/sys/class/net", ignored);
         !ignored && interface != end; interface.increment(ignored))
        files.push_back((interface->path() / "address").string());
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

std::uint32_t MixBits(std::string_view machine, std::initializer_list<std::uint64_t> moment) {
    std::uint64_t state = machine.size();
    for (const char byte : machine)
        state = Scramble(state ^ static_cast<unsigned char>(byte));
    for (const std::uint64_t number : moment)
        state = Scramble(state ^ number);
    return static_cast<std::uint32_t>(state >> 32U);
}

std::string DescribeMachine() {
    const ErrnoGuard errnoGuard;
    std::string machine;
    for (const char *path : {"/etc/machine-id", "/proc/device-tree/serial-number", "/proc/cpuinfo",
                             "/sys/class/dmi/id/product_serial", "/sys/class/dmi/id/product_uuid",
                             "/sys/class/dmi/id/board_serial", "/sys/block/mmcblk0/device/cid"})
        machine += IdentityIn(path);
    for (const std::string &path : AddressFiles())
        machine += IdentityIn(path);
    return machine;
}

} // namespace kest
