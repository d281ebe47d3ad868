// Passes a text to the parser of crontab items, for each of the five fields, and as a whole crontab
// to a job. A simple second parser must accept the same texts with the same meaning, and drawn
// values must be in the range of their item.

#include "tests/fuzz/support/checks.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <vector>

namespace kest {

namespace {

std::vector<std::string> Pieces(const std::string &text, const char *separator) {
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, text, boost::algorithm::is_any_of(separator));
    return pieces;
}

// A number that is valid in the field, as strtol() parses it.
std::optional<std::int32_t> NumberIn(const Bounds &bounds, const std::string &text) {
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno != 0 || number < bounds.lowest || number > bounds.highest)
        return std::nullopt;
    while (std::isspace(static_cast<unsigned char>(*end)) != 0)
        ++end;
    if (end != text.c_str() + text.size())
        return std::nullopt;
    return static_cast<std::int32_t>(number);
}

std::optional<CronRange> ExpectedItem(const Bounds &bounds, const std::string &text) {
    if (!text.empty() && text[0] == '*')
        return CronRange{CronRange::Any, -1, -1};
    if (!text.empty() && text[0] == '~')
        return CronRange{CronRange::Random, bounds.lowest, bounds.highestDrawn};
    const std::vector<std::string> ends = Pieces(text, "~");
    const std::optional<std::int32_t> from = NumberIn(bounds, ends.front());
    const std::optional<std::int32_t> to = NumberIn(bounds, ends.back());
    if (!from || !to || *to < *from || ends.size() > 2)
        return std::nullopt;
    return ends.size() == 1 ? CronRange{CronRange::Exact, *from, -1}
                            : CronRange{CronRange::Random, *from, *to};
}

bool IsSame(const CronRange &one, const CronRange &other) {
    return one.type == other.type && one.from == other.from && one.to == other.to;
}

void TryItem(std::size_t field, const std::string &text) {
    const CronItem item = ParseCronItem(FieldKeys()[field], text);
    const std::optional<CronRange> expected = ExpectedItem(kFieldBounds[field], text);
    Require((item.fault == CronItemFault::None) == expected.has_value(),
            "both parsers accept the same items");
    Require(!expected || IsSame(item.range, *expected), "both parsers return the same item");
}

std::optional<CronFields> ExpectedFields(const std::string &crontab) {
    const std::vector<std::string> texts = Pieces(crontab, " ");
    if (texts.size() != kFieldBounds.size())
        return std::nullopt;
    CronFields fields;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        for (const std::string &text : Pieces(texts[i], ",")) {
            const std::optional<CronRange> item = ExpectedItem(kFieldBounds[i], text);
            if (!item)
                return std::nullopt;
            fields[FieldKeys()[i]].push_back(*item);
        }
    }
    return fields;
}

bool AreSame(const CronFields &one, const CronFields &other) {
    for (const std::string &key : FieldKeys()) {
        const std::vector<CronRange> &items = one.at(key);
        const std::vector<CronRange> &others = other.at(key);
        if (!std::equal(items.begin(), items.end(), others.begin(), others.end(), IsSame))
            return false;
    }
    return true;
}

void TryCrontab(const std::string &crontab) {
    Json::Value document;
    Json::Value &config = document["config"];
    config["name"] = "x";
    config["user"] = "root";
    config["cmd"] = "x";
    config["period"] = "crontab";
    config["crontab"] = crontab;
    CronJob job(document);
    const std::optional<CronFields> expected = ExpectedFields(crontab);
    Require(job.valid == expected.has_value(), "both parsers accept the same crontabs");
    Require(!expected || AreSame(job.cronFields(), *expected),
            "both parsers return the same crontab");
    TryJob(job);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(StartInput(data, size));
    for (std::size_t field = 0; field < kFieldBounds.size(); ++field)
        TryItem(field, text);
    TryCrontab(text);
    return 0;
}

} // namespace kest
