#include "ctl/check/crontab.h"

#include "base/json_members.h"
#include "ctl/display/phrases.h"
#include "platform/kestutils.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>

namespace kest::ctl {

std::optional<std::size_t> StartOfCrontab(const CheckedDefinition &checked) {
    const Json::Value &written = Member(checked.Written(), "crontab");
    return written.isString() ? checked.Positions().OffsetOfText(written) : std::nullopt;
}

namespace {

// A part of the expression.
struct Piece {
    std::string key; // of the field
    std::string text;
    std::optional<std::size_t> offset; // in the file; nothing if unknown
};

std::vector<Piece> Split(const Piece &whole, const std::string &separator) {
    std::vector<Piece> pieces;
    std::size_t index = 0;
    for (std::string &text : KESTUtils::StringExplode(whole.text, separator)) {
        const std::size_t size = text.size() + separator.size();
        pieces.push_back({whole.key, std::move(text), {}});
        if (whole.offset)
            pieces.back().offset = *whole.offset + index;
        index += size;
    }
    return pieces;
}

// The fields of a valid expression.
std::vector<Piece> FieldsOf(const CheckedDefinition &checked) {
    const Json::Value &written = Member(checked.Written(), "crontab");
    std::vector<Piece> fields = Split({{}, written.asString(), StartOfCrontab(checked)}, " ");
    for (std::size_t i = 0; i < fields.size(); ++i)
        fields[i].key = FieldKeys().at(i);
    return fields;
}

// The valid numbers of a field, in ascending order.
std::vector<std::int32_t> NumbersOf(const std::string &key) {
    constexpr std::int32_t highest = 59; // of all fields
    std::vector<std::int32_t> numbers;
    for (std::int32_t number = 0; number <= highest; ++number)
        if (IsValidFieldValue(key, number))
            numbers.push_back(number);
    return numbers;
}

std::string Joined(const std::vector<std::int32_t> &numbers) {
    std::string text;
    for (const std::int32_t number : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

std::string NameOf(const std::string &key) {
    return FieldsInWords({key});
}

Hint ExpectedIn(const std::string &key) {
    const std::vector<std::int32_t> numbers = NumbersOf(key);
    const std::string lowest = std::to_string(numbers.front());
    const std::string highest = std::to_string(numbers.back());
    return Expected(lowest + (key == "week" ? " (Sunday)" : "") + " to " + highest +
                    ", a random value such as " + lowest + "~" + highest + R"(, "~" or "*")");
}

// Whether the daemon reads all of the text as items of the field.
bool IsReadInFull(const std::string &key, const std::string &text) {
    for (const std::string &item : KESTUtils::StringExplode(text, ",")) {
        const bool ignoresRest = item.size() > 1 && (item.front() == '*' || item.front() == '~');
        if (ignoresRest || ParseCronItem(key, item).fault != CronItemFault::None)
            return false;
    }
    return true;
}

// Advice to write `text`, with a remark; the valid values if the daemon would not read that text.
Hint AdviceFor(const std::string &key, const std::string &text, const std::string &remark = "") {
    return IsReadInFull(key, text) ? Advice(text + remark) : ExpectedIn(key);
}

void AddAt(CheckedDefinition &checked, Severity severity, const Piece &piece,
           const std::string &message, const Hint &hint) {
    DiagnosticDetails details{"crontab", message, hint};
    const Json::Value &written = Member(checked.Written(), "crontab");
    details.position =
        piece.offset ? checked.Positions().At(*piece.offset) : checked.Positions().Of(written);
    details.found = Quoted(piece.text);
    checked.Add(severity, details);
}

// --- Errors -------------------------------------------------------------------------------------

// What to write instead of a range such as "1-5", or the valid values.
Hint RangeAdvice(const Piece &item) {
    const std::vector<std::string> ends = KESTUtils::StringExplode(item.text, "-");
    std::int32_t from = 0;
    std::int32_t to = 0;
    if (ends.size() != 2 || !ReadNumber(ends[0], from) || !ReadNumber(ends[1], to) ||
        !IsValidFieldValue(item.key, from) || !IsValidFieldValue(item.key, to) || to <= from)
        return ExpectedIn(item.key);
    std::vector<std::int32_t> numbers;
    for (std::int32_t number = from; number <= to; ++number)
        numbers.push_back(number);
    const bool all = numbers == NumbersOf(item.key);
    const std::string random = std::to_string(from) + "~" + std::to_string(to);
    return AdviceFor(item.key, all ? "*" : Joined(numbers),
                     " for all values, " + random + " for one random value");
}

void AddNotANumber(CheckedDefinition &checked, const Piece &item, const std::string &offender) {
    const std::string name = NameOf(item.key);
    std::string message = name + " " + Quoted(item.text) + " is not a number";
    Hint hint = ExpectedIn(item.key);
    if (item.text.empty())
        message = "an item of the " + name +
                  " is empty: fields are separated by one blank, items by one comma";
    else if (offender.find('/') != std::string::npos)
        message = name + " " + Quoted(item.text) + ": steps are not supported";
    else if (offender.find('-') != std::string::npos) {
        message = name + " " + Quoted(item.text) + ": ranges with a dash are not supported";
        hint = RangeAdvice(item);
    } else if (offender != item.text)
        message = name + " " + Quoted(item.text) + ": " + Quoted(offender) + " is not a number";
    AddAt(checked, Severity::Error, item, message, hint);
}

// Whether a field is empty.
bool HasEmptyField(const std::string &expression) {
    return expression.empty() || expression.front() == ' ' || expression.back() == ' ' ||
           expression.find("  ") != std::string::npos;
}

} // namespace

void AddItemError(CheckedDefinition &checked, const DefinitionFault &fault,
                  std::optional<std::size_t> start) {
    Piece item{FieldKeys().at(fault.number), fault.text, {}};
    if (start)
        item.offset = *start + fault.offset;
    const std::string subject = NameOf(item.key) + " " + Quoted(item.text);
    const auto add = [&](const std::string &message) {
        AddAt(checked, Severity::Error, item, subject + message, ExpectedIn(item.key));
    };
    switch (fault.item.fault) {
    case CronItemFault::None:
        break;
    case CronItemFault::NotANumber:
        AddNotANumber(checked, item, fault.item.offender);
        break;
    case CronItemFault::Reversed:
        add(" is reversed");
        break;
    case CronItemFault::OutOfRange:
        add(" is out of range");
        break;
    case CronItemFault::NotTwoEnds:
        add(" has more than two bounds");
        break;
    }
}

void AddFieldCountError(CheckedDefinition &checked, const DefinitionFault &fault) {
    checked.Add(Severity::Error,
                {"crontab",
                 "\"crontab\" has " + std::to_string(fault.number) +
                     (fault.number == 1 ? " field" : " fields") +
                     (HasEmptyField(fault.text) ? " (each blank separates two fields)" : ""),
                 Expected("five fields separated by one blank: " +
                          FieldsInWords({FieldKeys().begin(), FieldKeys().end()}))});
}

// --- Warnings -----------------------------------------------------------------------------------

namespace {

// The list to write instead of a step such as "*/5"; empty for other items.
std::string StepReplacement(const Piece &item) {
    std::int32_t step = 0;
    if (item.text.compare(0, 2, "*/") != 0 || !ReadNumber(item.text.substr(2), step) || step < 1)
        return {};
    std::vector<std::int32_t> numbers;
    for (const std::int32_t number : NumbersOf(item.key))
        if ((number - NumbersOf(item.key).front()) % step == 0)
            numbers.push_back(number);
    return step == 1 ? "*" : Joined(numbers);
}

// The daemon ignores what follows a leading "*" or "~".
void CheckIgnoredSuffix(CheckedDefinition &checked, const Piece &item) {
    const CronItem parsed = ParseCronItem(item.key, item.text);
    const bool any = parsed.range.type == CronRange::Any;
    const std::string name = NameOf(item.key);
    const std::string all = " \"" + item.text.substr(0, 1) + "\"";
    if (item.text.size() < 2 || (item.text.front() != '*' && item.text.front() != '~'))
        return;
    if (any) {
        const std::string replacement = StepReplacement(item);
        AddAt(checked, Severity::Warning, item,
              name + " " + Quoted(item.text) + " is read as" + all + ", every " + name,
              replacement.empty() ? ExpectedIn(item.key) : AdviceFor(item.key, replacement));
        return;
    }
    AddAt(checked, Severity::Warning, item,
          name + " " + Quoted(item.text) + " is read as" + all + ", a random value from " +
              std::to_string(parsed.range.from) + " to " + std::to_string(parsed.range.to),
          AdviceFor(item.key, std::to_string(parsed.range.from) + item.text));
}

// The values that match a field.
struct Matches {
    bool any = false;
    std::set<std::int32_t> fixed;    // match always
    std::set<std::int32_t> possible; // match always, or can be drawn
};

Matches MatchesOf(const CronFields &fields, const std::string &key) {
    Matches matches;
    const auto found = fields.find(key);
    if (found == fields.end())
        return matches;
    for (const CronRange &item : found->second) {
        matches.any = matches.any || item.type == CronRange::Any;
        if (item.type == CronRange::Exact)
            matches.fixed.insert(item.from);
        for (std::int32_t number = item.from; item.type == CronRange::Random && number <= item.to;
             ++number)
            matches.possible.insert(number);
    }
    matches.possible.insert(matches.fixed.begin(), matches.fixed.end());
    return matches;
}

bool IsRestricted(const Matches &matches, const std::string &key) {
    return !matches.any && matches.fixed.size() != NumbersOf(key).size();
}

void CheckDayAndWeekday(CheckedDefinition &checked, const CronFields &fields, const Piece &day,
                        const Piece &week) {
    // A list of many days is an exclusion of the others, and not read as "or".
    constexpr std::size_t manyDays = 14;
    const Matches days = MatchesOf(fields, day.key);
    if (IsRestricted(days, day.key) && days.fixed.size() < manyDays &&
        IsRestricted(MatchesOf(fields, week.key), week.key))
        AddAt(checked, Severity::Warning, week,
              "day " + Quoted(day.text) + " and weekday " + Quoted(week.text) +
                  " must match on the same day",
              Advice("\"*\" for one of the two"));
}

// "February never has day 30 and 31"; empty if the month has all of the days.
std::string MissingDays(std::int32_t month, const std::set<std::int32_t> &days) {
    constexpr std::array<std::int32_t, 12> highest{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::vector<std::string> missing;
    for (const std::int32_t day : days)
        if (day > highest.at(static_cast<std::size_t>(month - 1)))
            missing.push_back(std::to_string(day));
    return missing.empty() ? ""
                           : ValueInWords("month", month) + " never has day " + Enumerated(missing);
}

void CheckMissingDays(CheckedDefinition &checked, const CronFields &fields, const Piece &day) {
    const Matches days = MatchesOf(fields, "day");
    const Matches months = MatchesOf(fields, "month");
    if (days.any || months.any)
        return;
    std::string texts;
    bool runs = false;
    for (const std::int32_t month : months.possible) {
        const std::string missing = MissingDays(month, days.possible);
        runs = runs || MissingDays(month, {*days.possible.begin()}).empty();
        if (!missing.empty())
            texts += (texts.empty() ? "" : "; ") + missing;
    }
    if (!texts.empty())
        AddAt(checked, Severity::Warning, day, texts + (runs ? "" : ": the job never runs"),
              Expected("days that every month of the expression has"));
}

} // namespace

std::string LostRuns(const CronFields &fields) {
    const auto minutes = fields.find("Minute");
    const bool maySkip =
        minutes != fields.end() &&
        std::any_of(minutes->second.begin(), minutes->second.end(), [](const CronRange &item) {
            return item.type == CronRange::Random && item.from == 0;
        });
    if (!maySkip || MatchesOf(fields, "hour").any)
        return {};
    return "a minute that is drawn as 0 takes effect in the next hour: about one run in 60 does "
           "not "
           "take place, and one in 60 takes place twice; write: 1~59";
}

std::string RareDays(const CronFields &fields) {
    constexpr std::int32_t february = 2;
    const Matches days = MatchesOf(fields, "day");
    if (days.any || !MatchesOf(fields, "month").any)
        return {};
    std::vector<std::string> fixed;
    std::vector<std::string> drawn;
    for (const std::int32_t day : days.possible)
        if (day > ShortestMonth(february))
            (days.fixed.count(day) != 0 ? fixed : drawn).push_back(std::to_string(day));
    std::string remark;
    if (!fixed.empty())
        remark = "no run on day " + Enumerated(fixed) + " in months with fewer days";
    if (!drawn.empty())
        remark += (remark.empty() ? "" : "; ") + std::string("no run in months with fewer days") +
                  " if the day is drawn as " + (drawn.size() == 1 ? "" : drawn.front() + " to ") +
                  drawn.back();
    return remark;
}

void CheckCrontab(CheckedDefinition &checked, const CronFields &fields) {
    const std::vector<Piece> pieces = FieldsOf(checked);
    for (const Piece &field : pieces)
        for (const Piece &item : Split(field, ","))
            CheckIgnoredSuffix(checked, item);
    const Piece &day = pieces.at(2);
    CheckDayAndWeekday(checked, fields, day, pieces.at(4));
    CheckMissingDays(checked, fields, day);
}

} // namespace kest::ctl
