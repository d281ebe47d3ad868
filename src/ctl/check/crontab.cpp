#include "ctl/check/crontab.h"

#include "base/json_members.h"
#include "ctl/display/phrases.h"
#include "platform/kestutils.h"

#include <array>
#include <optional>
#include <set>

namespace kest::ctl {

std::optional<std::size_t> StartOfCrontab(const CheckedDefinition &checked) {
    const Json::Value &written = Member(checked.Written(), "crontab");
    return written.isString() ? checked.Places().OffsetOfText(written) : std::nullopt;
}

namespace {

// A part of the expression.
struct Piece {
    std::string key; // of the field
    std::string text;
    std::optional<std::size_t> offset; // in the file; nothing when it cannot be told
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

// The fields of an expression without errors.
std::vector<Piece> FieldsOf(const CheckedDefinition &checked) {
    const Json::Value &written = Member(checked.Written(), "crontab");
    std::vector<Piece> fields = Split({{}, written.asString(), StartOfCrontab(checked)}, " ");
    for (std::size_t i = 0; i < fields.size(); ++i)
        fields[i].key = FieldKeys().at(i);
    return fields;
}

// All numbers that may stand in a field, in order.
std::vector<std::int32_t> NumbersOf(const std::string &key) {
    constexpr std::int32_t highestOfAll = 59;
    std::vector<std::int32_t> numbers;
    for (std::int32_t number = 0; number <= highestOfAll; ++number)
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

std::string AllowedIn(const std::string &key) {
    const std::vector<std::int32_t> numbers = NumbersOf(key);
    const std::string lowest = std::to_string(numbers.front());
    const std::string highest = std::to_string(numbers.back());
    return lowest + (key == "week" ? " (Sunday)" : "") + " to " + highest + ", a draw such as " +
           lowest + "~" + highest + R"(, "~" or "*")";
}

void AddAt(CheckedDefinition &checked, Severity severity, const Piece &piece,
           const std::string &message, const std::string &allowed) {
    DiagnosticDetails details{"crontab", message, allowed};
    const Json::Value &written = Member(checked.Written(), "crontab");
    details.place =
        piece.offset ? checked.Places().At(*piece.offset) : checked.Places().Of(written);
    details.found = Quoted(piece.text);
    checked.Add(severity, details);
}

// --- Errors -------------------------------------------------------------------------------------

// How to write what "1-5" says elsewhere; empty for anything else.
std::string InsteadOfDash(const Piece &item) {
    const std::vector<std::string> ends = KESTUtils::StringExplode(item.text, "-");
    std::int32_t from = 0;
    std::int32_t to = 0;
    if (ends.size() != 2 || !ReadNumber(ends[0], from) || !ReadNumber(ends[1], to) ||
        !IsValidFieldValue(item.key, from) || !IsValidFieldValue(item.key, to) || to <= from)
        return {};
    std::vector<std::int32_t> numbers;
    for (std::int32_t number = from; number <= to; ++number)
        numbers.push_back(number);
    const bool all = numbers == NumbersOf(item.key);
    return (all ? "*" : Joined(numbers)) + " for each of them, " + ends[0] + "~" + ends[1] +
           " for one drawn at random";
}

void AddNotANumber(CheckedDefinition &checked, const Piece &item, const std::string &offender) {
    const std::string name = NameOf(item.key);
    std::string message = name + " " + Quoted(item.text) + " is no number";
    std::string allowed = AllowedIn(item.key);
    if (item.text.empty())
        message = "an item of the " + name +
                  " is empty; fields are separated by one blank each, "
                  "items by one comma";
    else if (offender.find('/') != std::string::npos)
        message = name + " " + Quoted(item.text) + ": there are no steps";
    else if (offender.find('-') != std::string::npos) {
        message = name + " " + Quoted(item.text) + ": there are no ranges with a dash";
        const std::string instead = InsteadOfDash(item);
        allowed = instead.empty() ? allowed : instead;
    } else if (offender != item.text)
        message = name + " " + Quoted(item.text) + ": " + Quoted(offender) + " is no number";
    AddAt(checked, Severity::Error, item, message, allowed);
}

// Whether there is a field without a character.
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
    const std::string subjectOfAll = NameOf(item.key) + " " + Quoted(item.text);
    const auto add = [&](const std::string &message) {
        AddAt(checked, Severity::Error, item, subjectOfAll + message, AllowedIn(item.key));
    };
    switch (fault.item.fault) {
    case CronItemFault::None:
        break;
    case CronItemFault::NotANumber:
        AddNotANumber(checked, item, fault.item.offender);
        break;
    case CronItemFault::Reversed:
        add(" ends before it begins");
        break;
    case CronItemFault::OutOfRange:
        add(" is out of range");
        break;
    case CronItemFault::NotTwoEnds:
        add(" has more than two ends");
        break;
    }
}

void AddFieldCountError(CheckedDefinition &checked, const DefinitionFault &fault) {
    checked.Add(Severity::Error,
                {"crontab",
                 "\"crontab\" has " + std::to_string(fault.number) +
                     (fault.number == 1 ? " field" : " fields") +
                     (HasEmptyField(fault.text) ? ", as there is one between any two blanks" : ""),
                 "five fields separated by one blank each: " +
                     FieldsInWords({FieldKeys().begin(), FieldKeys().end()})});
}

// --- Warnings -----------------------------------------------------------------------------------

namespace {

// The list that "*/5" stands for elsewhere; empty for anything else.
std::string InsteadOfStep(const Piece &item) {
    std::int32_t step = 0;
    if (item.text.compare(0, 2, "*/") != 0 || !ReadNumber(item.text.substr(2), step) || step < 1)
        return {};
    std::vector<std::int32_t> numbers;
    for (const std::int32_t number : NumbersOf(item.key))
        if ((number - NumbersOf(item.key).front()) % step == 0)
            numbers.push_back(number);
    return step == 1 ? "*" : Joined(numbers);
}

// What follows "*" or "~" at an item's start is not read.
void FindUnreadRest(CheckedDefinition &checked, const Piece &item) {
    const CronItem parsed = ParseCronItem(item.key, item.text);
    const bool any = parsed.range.type == CronRange::Any;
    const std::string name = NameOf(item.key);
    const std::string all = " \"" + item.text.substr(0, 1) + "\"";
    if (item.text.size() < 2 || (item.text.front() != '*' && item.text.front() != '~'))
        return;
    if (any) {
        const std::string instead = InsteadOfStep(item);
        AddAt(checked, Severity::Warning, item,
              name + " " + Quoted(item.text) + " is read as" + all + ", every " + name,
              instead.empty() ? AllowedIn(item.key) : instead);
        return;
    }
    AddAt(checked, Severity::Warning, item,
          name + " " + Quoted(item.text) + " is read as" + all + ", one drawn from " +
              std::to_string(parsed.range.from) + " to " + std::to_string(parsed.range.to),
          "both ends, such as " + std::to_string(parsed.range.from) + item.text);
}

// What a field chooses.
struct Choice {
    bool any = false;
    std::set<std::int32_t> sure;     // always chosen
    std::set<std::int32_t> possible; // chosen, or in a draw
};

Choice ChoiceOf(const CronFields &fields, const std::string &key) {
    Choice choice;
    const auto found = fields.find(key);
    if (found == fields.end())
        return choice;
    for (const CronRange &item : found->second) {
        choice.any = choice.any || item.type == CronRange::Any;
        if (item.type == CronRange::Exact)
            choice.sure.insert(item.from);
        for (std::int32_t number = item.from; item.type == CronRange::Random && number <= item.to;
             ++number)
            choice.possible.insert(number);
    }
    choice.possible.insert(choice.sure.begin(), choice.sure.end());
    return choice;
}

bool IsRestricted(const Choice &choice, const std::string &key) {
    return !choice.any && choice.sure.size() != NumbersOf(key).size();
}

void FindBothDays(CheckedDefinition &checked, const CronFields &fields, const Piece &day,
                  const Piece &week) {
    if (IsRestricted(ChoiceOf(fields, day.key), day.key) &&
        IsRestricted(ChoiceOf(fields, week.key), week.key))
        AddAt(checked, Severity::Warning, week,
              "day " + Quoted(day.text) + " and weekday " + Quoted(week.text) +
                  " must both match on the same day",
              "\"*\" for one of the two");
}

// The days that the month never has, as "February never has day 30 and 31"; empty when it has all.
std::string DaysMissing(std::int32_t month, const std::set<std::int32_t> &days) {
    constexpr std::array<std::int32_t, 12> highest{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::vector<std::string> missing;
    for (const std::int32_t day : days)
        if (day > highest.at(static_cast<std::size_t>(month - 1)))
            missing.push_back(std::to_string(day));
    return missing.empty() ? ""
                           : ValueInWords("month", month) + " never has day " + Enumerated(missing);
}

void FindMissingDays(CheckedDefinition &checked, const CronFields &fields, const Piece &day) {
    const Choice days = ChoiceOf(fields, "day");
    const Choice months = ChoiceOf(fields, "month");
    if (days.any || months.any)
        return;
    std::string texts;
    bool runs = false;
    for (const std::int32_t month : months.possible) {
        const std::string missing = DaysMissing(month, days.possible);
        runs = runs || DaysMissing(month, {*days.possible.begin()}).empty();
        if (!missing.empty())
            texts += (texts.empty() ? "" : "; ") + missing;
    }
    if (!texts.empty())
        AddAt(checked, Severity::Warning, day, texts + (runs ? "" : ": the job never runs"),
              "days that every month of the expression has");
}

} // namespace

void FindCrontabWarnings(CheckedDefinition &checked, const CronFields &fields) {
    const std::vector<Piece> pieces = FieldsOf(checked);
    for (const Piece &field : pieces)
        for (const Piece &item : Split(field, ","))
            FindUnreadRest(checked, item);
    const Piece &day = pieces.at(2);
    FindBothDays(checked, fields, day, pieces.at(4));
    FindMissingDays(checked, fields, day);
}

} // namespace kest::ctl
