#include "job/schedule.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace kest {

namespace {

std::int32_t DrawItem(const CronRange &item, std::int32_t templateValue, bool templateIsUsable,
                      KEST::RANDOM::KESTRandom &random) {
    switch (item.type) {
    case CronRange::Any:
        return kAnyValue;
    case CronRange::Random:
        if (templateIsUsable && item.from <= templateValue && templateValue <= item.to)
            return templateValue;
        return random.random(item.from, item.to + 1); // its upper bound is never drawn
    case CronRange::Exact:
        break;
    }
    return item.from;
}

bool IsUsable(const std::string &key, std::int32_t templateValue) {
    return templateValue != kAnyValue && IsValidFieldValue(key, templateValue);
}

std::uint64_t BitOf(std::int32_t value) {
    if (value == kAnyValue)
        return ~std::uint64_t{0};
    return value >= 0 && value < 64 ? std::uint64_t{1} << static_cast<unsigned>(value) : 0;
}

std::string FieldAsText(const std::vector<std::int32_t> &values) {
    std::string text;
    for (const std::int32_t value : values)
        text += (text.empty() ? "" : ",") + std::to_string(value);
    return text.empty() ? "X" : text;
}

} // namespace

std::vector<std::int32_t> DrawField(const std::string &key, const std::vector<CronRange> &items,
                                    std::int32_t templateValue, KEST::RANDOM::KESTRandom &random) {
    const bool usable = IsUsable(key, templateValue);
    std::vector<std::int32_t> values;
    values.reserve(items.size());
    for (const CronRange &item : items)
        values.push_back(DrawItem(item, templateValue, usable, random));
    return values;
}

std::vector<std::int32_t> FieldValues(const Json::Value &array) {
    std::vector<std::int32_t> values;
    if (!array.isArray())
        return values;
    for (const Json::Value &element : array) {
        if (!element.isInt())
            return {}; // the whole field counts as empty
        values.push_back(element.asInt());
    }
    return values;
}

std::array<std::int32_t, 5> FieldsOf(const std::tm &local) {
    return {local.tm_min, local.tm_hour, local.tm_mday, local.tm_mon + 1, local.tm_wday};
}

std::uint64_t AdmittedBits(const std::vector<std::int32_t> &values) {
    std::uint64_t bits = 0;
    for (const std::int32_t value : values)
        bits |= BitOf(value);
    return bits;
}

std::string ScheduleAsText(const std::array<std::vector<std::int32_t>, 5> &values) {
    std::string text;
    for (const std::vector<std::int32_t> &field : values) {
        if (!text.empty())
            text += ' ';
        text += FieldAsText(field);
    }
    return text;
}

Schedule::Schedule(const std::array<std::vector<CronRange>, 5> &items) {
    std::size_t count = 0;
    for (const std::vector<CronRange> &field : items)
        count += field.size();
    if (count > few_.size())
        many_.resize(count);
    Item *end = ItemsBegin();
    for (std::size_t field = 0; field < items.size(); ++field) {
        for (const CronRange &item : items[field])
            *end++ = {static_cast<std::int8_t>(item.type), static_cast<std::int8_t>(item.from),
                      static_cast<std::int8_t>(item.to), 0};
        ends_[field] = static_cast<std::uint32_t>(end - ItemsBegin());
    }
}

std::vector<CronRange> Schedule::Items(std::size_t field) const {
    std::vector<CronRange> items;
    for (std::size_t i = Begin(field); i < ends_[field]; ++i) {
        const Item &item = ItemsBegin()[i];
        items.push_back({static_cast<CronRange::Type>(item.type), item.from, item.to});
    }
    return items;
}

void Schedule::Draw(std::size_t field, std::int32_t templateValue,
                    KEST::RANDOM::KESTRandom &random) {
    Put(field, DrawField(FieldKeys().at(field), Items(field), templateValue, random));
}

void Schedule::Put(std::size_t field, const std::vector<std::int32_t> &values) {
    for (std::size_t i = 0; i < values.size(); ++i)
        ItemsBegin()[Begin(field) + i].drawn = static_cast<std::int8_t>(values[i]);
    bits_[field] = AdmittedBits(values);
    drawn_ |= 1U << field;
}

bool Schedule::Take(std::size_t field, const Json::Value &array) {
    using Limits = std::numeric_limits<std::int8_t>;
    const std::vector<std::int32_t> values = FieldValues(array);
    bits_[field] = AdmittedBits(values);
    drawn_ &= ~(1U << field);
    if (!array.isArray() || array.size() != ends_[field] - Begin(field) ||
        values.size() != array.size())
        return false;
    for (Json::ArrayIndex i = 0; i < array.size(); ++i)
        if (array[i].type() != Json::intValue || values[i] < Limits::min() ||
            values[i] > Limits::max())
            return false;
    Put(field, values);
    return true;
}

std::vector<std::int32_t> Schedule::Drawn(std::size_t field) const {
    std::vector<std::int32_t> values;
    GetDrawn(field, values);
    return values;
}

void Schedule::GetDrawn(std::size_t field, std::vector<std::int32_t> &values) const {
    const Item *const begin = ItemsBegin() + Begin(field);
    const Item *const end = ItemsBegin() + ends_[field];
    values.resize(static_cast<std::size_t>(end - begin));
    std::transform(begin, end, values.begin(), [](const Item &item) { return item.drawn; });
}

bool IsOverdue(std::int32_t hours, std::int64_t last, std::int64_t now) {
    if (hours == 0)
        return false;
    std::int64_t due = 0;
    if (__builtin_add_overflow(last, std::int64_t{3600} * hours, &due))
        return last < 0; // the due time is out of range: before or after every time
    return now > due;
}

std::vector<std::string> FieldsToRedraw(const std::tm &local) {
    if (local.tm_min != 0)
        return {};
    std::vector<std::string> keys{"Minute"};
    if (local.tm_hour != 0)
        return keys;
    keys.emplace_back("hour");
    if (local.tm_mday == 1)
        keys.emplace_back("day");
    if (local.tm_mday == 1 && local.tm_mon == 0)
        keys.emplace_back("month");
    if (local.tm_wday == 1)
        keys.emplace_back("week");
    return keys;
}

} // namespace kest
