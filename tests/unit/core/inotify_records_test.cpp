#include "core/inotify_records.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <sys/inotify.h>

namespace kest {

namespace {

// A record in the format of the kernel. `claimed` is the length of the name that it states.
std::string Record(std::uint32_t mask, const std::string &name, std::uint32_t claimed) {
    inotify_event event{};
    event.wd = 1;
    event.mask = mask;
    event.len = claimed;
    std::string bytes(sizeof event, '\0');
    bytes.replace(0, sizeof event, reinterpret_cast<const char *>(&event), sizeof event);
    return bytes + name;
}

std::string Record(std::uint32_t mask, const std::string &name = {}) {
    return Record(mask, name, static_cast<std::uint32_t>(name.size()));
}

const std::string kName("job.conf\0\0\0\0\0\0\0\0", 16);

TEST(ReportsChange, IsTrueForEveryRecordButARemovedWatch) {
    struct Row {
        const char *what;
        std::string records;
        bool change;
    };
    const std::string ignored = Record(IN_IGNORED);
    const std::string modified = Record(IN_MODIFY, kName);
    const Row rows[] = {
        {"nothing", "", false},
        {"a change", modified, true},
        {"a change without a name", Record(IN_DELETE_SELF), true},
        {"a record without any bit", Record(0), true},
        {"an ended watch", ignored, false},
        {"several ended watches", ignored + ignored + ignored, false},
        {"a change after ended watches", ignored + ignored + modified, true},
        {"a change before ended watches", modified + ignored, true},
        {"ended watches with names", Record(IN_IGNORED, kName) + Record(IN_IGNORED, kName), false},
        {"a change after an ended watch with a name", Record(IN_IGNORED, kName) + modified, true},
        {"an ended watch with another bit", Record(IN_IGNORED | IN_ISDIR), true},
        {"an overflow", Record(IN_Q_OVERFLOW), true},
        {"an unmount, then the end", Record(IN_UNMOUNT) + ignored, true},
        {"a header cut off", modified.substr(0, sizeof(inotify_event) - 1), false},
        {"one byte", modified.substr(0, 1), false},
        {"a header cut off after an ended watch", ignored + modified.substr(0, 15), false},
        {"a name beyond the end", Record(IN_IGNORED, "", 16), false},
        {"a name one byte beyond the end", Record(IN_IGNORED, kName, 17) + "", false},
        {"a name that ends exactly at the end", Record(IN_IGNORED, kName, 16), false},
        {"the longest length", Record(IN_IGNORED, "", 0xFFFFFFFFU) + modified, false},
        {"a length that wraps to a record", Record(IN_IGNORED, "", 0U - 16U) + modified, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        // Exactly as large as the records, so that a sanitizer sees a read beyond them.
        const std::vector<char> bytes(row.records.begin(), row.records.end());
        EXPECT_EQ(ReportsChange(bytes.data(), bytes.size()), row.change);
    }
}

// The buffer behind the records contains data of an earlier read.
TEST(ReportsChange, DoesNotReadBeyondTheSize) {
    const std::string ignored = Record(IN_IGNORED);
    const std::string buffer = ignored + Record(IN_MODIFY, kName);
    EXPECT_FALSE(ReportsChange(buffer.data(), ignored.size()));
    EXPECT_FALSE(ReportsChange(buffer.data(), ignored.size() + sizeof(inotify_event) - 1));
    EXPECT_TRUE(ReportsChange(buffer.data(), buffer.size()));
}

} // namespace

} // namespace kest
