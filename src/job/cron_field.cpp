#include "job/cron_field.h"

#include "platform/kestutils.h"

#include <charconv>
#include <string_view>

namespace kest {

namespace {

struct FieldBounds {
    char letter; // the first character of the field's key
    std::int32_t lowest;
    std::int32_t highest;
    std::int32_t highestDrawn;
};

constexpr std::array<FieldBounds, 5> kBounds{{
    {'M', 0, 59, 59},
    {'h', 0, 23, 23},
    {'d', 1, 31, 28},
    {'m', 1, 12, 12},
    {'w', 0, 6, 6},
}};

const FieldBounds *BoundsOf(const std::string &key) {
    for (const FieldBounds &bounds : kBounds)
        if (!key.empty() && key.front() == bounds.letter)
            return &bounds;
    return nullptr;
}

CronItem Faulty(CronItem item, CronItemFault fault, const std::string &offender = {}) {
    item.fault = fault;
    item.offender = offender;
    return item;
}

CronItem ParseRandomRange(const std::string &key, const std::string &text) {
    CronItem item;
    item.range.type = CronRange::Random;
    const std::vector<std::string> ends = KESTUtils::StringExplode(text, "~");
    if (ends.size() != 2)
        return Faulty(item, CronItemFault::NotTwoEnds);
    if (!ReadNumber(ends[0], item.range.from))
        return Faulty(item, CronItemFault::NotANumber, ends[0]);
    if (!ReadNumber(ends[1], item.range.to))
        return Faulty(item, CronItemFault::NotANumber, ends[1]);
    if (item.range.to < item.range.from)
        return Faulty(item, CronItemFault::Reversed);
    if (!IsValidFieldValue(key, item.range.from) || !IsValidFieldValue(key, item.range.to))
        return Faulty(item, CronItemFault::OutOfRange);
    return item;
}

CronItem ParseSingleValue(const std::string &key, const std::string &text) {
    CronItem item;
    if (!ReadNumber(text, item.range.from))
        return Faulty(item, CronItemFault::NotANumber, text);
    if (!IsValidFieldValue(key, item.range.from))
        return Faulty(item, CronItemFault::OutOfRange);
    return item;
}

} // namespace

const std::array<std::string, 5> &FieldKeys() {
    // A local static, because it is first used before main.
    static const std::array<std::string, 5> keys{"Minute", "hour", "day", "month", "week"};
    return keys;
}

bool IsValidFieldValue(const std::string &key, std::int32_t value) {
    const FieldBounds *bounds = BoundsOf(key);
    return bounds == nullptr || (value >= bounds->lowest && value <= bounds->highest);
}

void GetRandomFieldRange(const std::string &key, CronRange &range) {
    range.type = CronRange::Random;
    if (const FieldBounds *bounds = BoundsOf(key)) {
        range.from = bounds->lowest;
        range.to = bounds->highestDrawn;
    }
}

bool ReadNumber(const std::string &text, std::int32_t &number) {
    constexpr const char *blanks = " \t\n\v\f\r";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return false;
    const auto last = text.find_last_not_of(blanks);
    std::string_view digits = std::string_view(text).substr(first, last - first + 1);
    if (digits.front() == '+') {
        digits.remove_prefix(1);
        if (!digits.empty() && digits.front() == '-')
            return false;
    }
    std::int32_t read = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), read);
    if (result.ec != std::errc() || result.ptr != digits.data() + digits.size())
        return false;
    number = read;
    return true;
}

CronItem ParseCronItem(const std::string &key, const std::string &text) {
    CronItem item;
    const char first = text.empty() ? '\0' : text.front();
    if (first == '~') {
        GetRandomFieldRange(key, item.range);
        return item;
    }
    if (first == '*') {
        item.range.type = CronRange::Any;
        return item;
    }
    return text.find('~') == std::string::npos ? ParseSingleValue(key, text)
                                               : ParseRandomRange(key, text);
}

} // namespace kest
