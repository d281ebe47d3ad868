#include "job/schedule.h"

#include "job/json_members.h"

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

std::string FieldAsText(const Json::Value &array) {
    std::string text;
    for (const std::int32_t value : FieldValues(array))
        text += (text.empty() ? "" : ",") + std::to_string(value);
    return text.empty() ? "X" : text;
}

} // namespace

Json::Value DrawField(const std::string &key, const std::vector<CronRange> &items,
                      std::int32_t templateValue, KEST::RANDOM::KESTRandom &random) {
    const bool usable = templateValue != kAnyValue && IsValidFieldValue(key, templateValue);
    Json::Value array(Json::arrayValue);
    for (const CronRange &item : items)
        array.append(DrawItem(item, templateValue, usable, random));
    return array;
}

std::vector<std::int32_t> FieldValues(const Json::Value &array) {
    std::vector<std::int32_t> values;
    if (!array.isArray())
        return values;
    for (const Json::Value &element : array) {
        if (!element.isInt())
            return {};
        values.push_back(element.asInt());
    }
    return values;
}

std::array<std::int32_t, 5> FieldsOf(const std::tm &local) {
    return {local.tm_min, local.tm_hour, local.tm_mday, local.tm_mon + 1, local.tm_wday};
}

std::uint64_t AdmittedBits(const Json::Value &array) {
    if (!array.isArray())
        return 0;
    std::uint64_t bits = 0;
    for (const Json::Value &element : array) {
        if (!element.isInt())
            return 0; // the whole field counts as empty
        const std::int32_t admitted = element.asInt();
        if (admitted == kAnyValue)
            bits = ~std::uint64_t{0};
        else if (admitted >= 0 && admitted < 64)
            bits |= std::uint64_t{1} << static_cast<unsigned>(admitted);
    }
    return bits;
}

std::string ScheduleAsText(const Json::Value &schedule) {
    std::string text;
    for (const std::string &key : FieldKeys()) {
        if (!text.empty())
            text += ' ';
        text += FieldAsText(Member(schedule, key));
    }
    return text;
}
