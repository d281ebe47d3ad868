// Passes arbitrary bytes to the parser of inotify records. It does not read beyond them, accepts
// records at any address, and returns the same result as a simple second parser.

#include "core/inotify_records.h"
#include "tests/fuzz/support/checks.h"

#include <algorithm>
#include <memory>
#include <sys/inotify.h>

namespace kest {

namespace {

std::uint64_t NumberAt(std::string_view bytes, std::size_t position) {
    std::uint32_t number = 0;
    std::copy_n(bytes.data() + position, sizeof number, reinterpret_cast<char *>(&number));
    return number;
}

bool ExpectedChange(std::string_view records) {
    constexpr std::size_t maskPosition = 4;
    constexpr std::size_t lengthPosition = 12;
    constexpr std::size_t head = 16;
    std::uint64_t position = 0;
    while (position + head <= records.size()) {
        if (NumberAt(records, position + maskPosition) != IN_IGNORED)
            return true;
        position += head + NumberAt(records, position + lengthPosition);
    }
    return false;
}

// Parses the records in memory that ends with them, `offset` bytes after an aligned address.
bool ReportedChange(std::string_view records, std::size_t offset) {
    const auto memory = std::make_unique<char[]>(offset + records.size());
    std::copy(records.begin(), records.end(), memory.get() + offset);
    return ReportsChange(memory.get() + offset, records.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view records = StartInput(data, size);
    const bool expected = ExpectedChange(records);
    for (const std::size_t offset : {0U, 1U})
        Require(ReportedChange(records, offset) == expected, "both parsers report the same change");
    return 0;
}

} // namespace kest
