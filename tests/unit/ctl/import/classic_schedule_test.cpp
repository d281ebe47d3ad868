#include "ctl/import/classic_schedule.h"

#include "ctl/import/classic_line.h"
#include "job/definition.h"
#include "job/schedule.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace kest::ctl {

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

// The values of a field as text, or its fault.
std::string FieldOf(std::size_t index, const std::string &text) {
    ClassicField field = 0;
    if (const auto fault = ParseClassicField(index, text, field))
        return std::to_string(fault->offset) + ": " + fault->message;
    std::string values;
    for (int value = 0; value < 64; ++value)
        if (Admits(field, value))
            values += (values.empty() ? "" : ",") + std::to_string(value);
    return values;
}

ClassicSchedule ScheduleOf(const std::string &times) {
    return std::get<ClassicEntry>(ParseClassicLine(times + " x", false)).schedule;
}

TEST(ClassicSchedule, FieldsHaveRangesStepsListsAndNames) {
    struct Row {
        std::size_t index;
        const char *text;
        const char *values;
    };
    const std::vector<Row> rows{
        {0, "7", "7"},
        {0, "07", "7"},
        {0, "*/20", "0,20,40"},
        {0, "5-55/10", "5,15,25,35,45,55"},
        {0, "3,1-2,1", "1,2,3"},
        {0, "*/100", "0"},
        {0, "10-12/4294967295", "10"},
        {1, "20-23", "20,21,22,23"},
        {2, "1-31/10", "1,11,21,31"},
        {2, "*/15", "1,16,31"},
        {3, "jan,OCT-Dec", "1,10,11,12"},
        {3, "*/5", "1,6,11"},
        {4, "7", "0"},
        {4, "0", "0"},
        {4, "5-7", "0,5,6"},
        {4, "0-7", "0,1,2,3,4,5,6"},
        {4, "1-7/2", "0,1,3,5"},
        {4, "*/2", "0,2,4,6"},
        {4, "*/7", "0"},
        {4, "mon-fri", "1,2,3,4,5"},
        {4, "Sun,sat", "0,6"},
        {4, "fri-7", "0,5,6"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(FieldOf(row.index, row.text), row.values) << row.index << " " << row.text;
}

TEST(ClassicSchedule, InvalidItemsAreReported) {
    struct Row {
        std::size_t index;
        const char *text;
        const char *fault;
    };
    const std::vector<Row> rows{
        {0, "60", R"(0: minute "60" is out of range)"},
        {0, "1,2,99", R"(4: minute "99" is out of range)"},
        {0, "5/10", R"(0: minute "5/10" has a step without a range)"},
        {0, "*/0", R"(0: minute "*/0" has an invalid step)"},
        {0, "*/", R"(0: minute "*/" has an invalid step)"},
        {0, "*/99999999999", R"(0: minute "*/99999999999" has an invalid step)"},
        {0, "9-3", R"(0: minute "9-3" is reversed)"},
        {0, "1-2-3", R"(0: minute "1-2-3" is not a number)"},
        {0, "", R"(0: minute "" is not a number)"},
        {0, "1,,2", R"(2: minute "" is not a number)"},
        {0, "-5", R"(0: minute "-5" is not a number)"},
        {0, "+5", R"(0: minute "+5" is not a number)"},
        {0, "~", R"(0: minute "~" is not a number)"},
        {0, "*5", R"(0: minute "*5" is not a number)"},
        {0, "99999999999999999999", R"(0: minute "99999999999999999999" is not a number)"},
        {1, "24", R"(0: hour "24" is out of range)"},
        {2, "0", R"(0: day "0" is out of range)"},
        {2, "L", R"(0: day "L" is not a number)"},
        {2, "mon", R"(0: day "mon" is not a number)"},
        {3, "13", R"(0: month "13" is out of range)"},
        {3, "january", R"(0: month "january" is not a number)"},
        {4, "8", R"(0: weekday "8" is out of range)"},
        {4, "sat-sun", R"(0: weekday "sat-sun" is reversed)"},
        {4, "5#2", R"(0: weekday "5#2" is not a number)"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(FieldOf(row.index, row.text), row.fault) << row.index << " " << row.text;
}

TEST(ClassicSchedule, ExpressionsAreListsOfValues) {
    struct Row {
        const char *times;
        std::vector<std::string> expressions;
    };
    const std::string not13 = "1,2,3,4,5,6,7,8,9,10,11,12,14,15,16,17,18,19,20,21,22,23,24,25,26,"
                              "27,28,29,30,31";
    const std::vector<Row> rows{
        {"30 3 * * *", {"30 3 * * *"}},
        {"*/30 0-23 1-31 1-12 0-6", {"0,30 * * * *"}},
        {"0 0 * * 7", {"0 0 * * 0"}},
        // The day or the weekday.
        {"0 0 13 * 5", {"0 0 13 * *", "0 0 " + not13 + " * 5"}},
        {"0 0 1-31 * 5", {"0 0 * * *"}},
        {"0 0 13 * 1-7", {"0 0 * * *"}},
        {"0 0 1-30 * 5",
         {"0 0 * * 5",
          "0 0 1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,"
          "28,29,30 * 0,1,2,3,4,6"}},
        // Both, because one begins with "*".
        {"0 0 */15 * 1", {"0 0 1,16,31 * 1"}},
        {"0 0 */100,1-7 * 1", {"0 0 1,2,3,4,5,6,7 * 1"}},
        {"0 0 13 * */2", {"0 0 13 * 0,2,4,6"}},
        // Only days that exist.
        {"0 0 31 1-6 *", {"0 0 31 1,3,5 *"}},
        {"0 0 30,31 1,2,4 *", {"0 0 30,31 1 *", "0 0 30 4 *"}},
        {"0 0 1-30 4 *", {"0 0 * 4 *"}},
        {"0 0 29 2 *", {"0 0 29 2 *"}},
        {"0 0 31 2 1", {"0 0 * 2 1"}},
    };
    for (const Row &row : rows)
        EXPECT_THAT(ExpressionsOf(ScheduleOf(row.times)), ElementsAreArray(row.expressions))
            << row.times;
}

TEST(ClassicSchedule, WordsStandForFields) {
    EXPECT_EQ(FieldsOfWord("@daily"), "0 0 * * *");
    EXPECT_EQ(FieldsOfWord("@midnight"), "0 0 * * *");
    EXPECT_EQ(FieldsOfWord("@weekly"), "0 0 * * 0");
    EXPECT_EQ(FieldsOfWord("@monthly"), "0 0 1 * *");
    EXPECT_EQ(FieldsOfWord("@yearly"), "0 0 1 1 *");
    EXPECT_EQ(FieldsOfWord("@annually"), "0 0 1 1 *");
    EXPECT_EQ(FieldsOfWord("@hourly"), "0 * * * *");
    EXPECT_EQ(FieldsOfWord("@reboot"), std::nullopt);
    EXPECT_EQ(FieldsOfWord("@"), std::nullopt);
}

// --- The starts of a year -----------------------------------------------------------------------

// A plain evaluator of the classic rules, which reads the text again for each value.
class PlainLine {
public:
    explicit PlainLine(std::array<std::string, 5> fields) : fields_(std::move(fields)) {}

    bool MayStartOn(int day, int month, int weekday) const {
        const bool isDay = Has(2, day);
        const bool isWeekday = Has(4, weekday) || (weekday == 0 && Has(4, 7));
        const bool isAnd = fields_[2][0] == '*' || fields_[4][0] == '*';
        return Has(3, month) && (isAnd ? isDay && isWeekday : isDay || isWeekday);
    }
    bool Has(std::size_t index, int value) const {
        const std::string text = fields_[index] + ",";
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find(',', at);
            if (ItemHas(index, text.substr(at, end - at), value))
                return true;
            at = end + 1;
        }
        return false;
    }

private:
    static int NumberOf(std::size_t index, const std::string &text) {
        if (std::isdigit(static_cast<unsigned char>(text[0])) != 0)
            return std::stoi(text);
        const std::string names =
            index == 3 ? "janfebmaraprmayjunjulaugsepoctnovdec" : "sunmontuewedthufrisat";
        return static_cast<int>(names.find(text)) / 3 + (index == 3 ? 1 : 0);
    }
    static bool ItemHas(std::size_t index, std::string item, int value) {
        int step = 1;
        if (const auto slash = item.find('/'); slash != std::string::npos) {
            step = std::stoi(item.substr(slash + 1));
            item.resize(slash);
        }
        if (item == "*")
            return (value - (index == 2 || index == 3 ? 1 : 0)) % step == 0;
        const auto dash = item.find('-');
        const int from = NumberOf(index, item.substr(0, dash));
        const int to = dash == std::string::npos ? from : NumberOf(index, item.substr(dash + 1));
        return from <= value && value <= to && (value - from) % step == 0;
    }

    std::array<std::string, 5> fields_;
};

class RandomLines {
public:
    explicit RandomLines(unsigned seed) : random_(seed) {}

    std::array<std::string, 5> Next() {
        std::array<std::string, 5> fields;
        for (std::size_t i = 0; i < fields.size(); ++i)
            fields.at(i) = Field(i);
        return fields;
    }

private:
    int From(int lowest, int highest) {
        return std::uniform_int_distribution<int>(lowest, highest)(random_);
    }
    std::string Value(std::size_t index, int value) {
        static const std::array<const char *, 12> months{"jan", "feb", "mar", "apr", "may", "jun",
                                                         "jul", "aug", "sep", "oct", "nov", "dec"};
        static const std::array<const char *, 7> weekdays{"sun", "mon", "tue", "wed",
                                                          "thu", "fri", "sat"};
        if (index == 3 && From(0, 3) == 0)
            return months.at(static_cast<std::size_t>(value - 1));
        if (index == 4 && value < 7 && From(0, 3) == 0)
            return weekdays.at(static_cast<std::size_t>(value));
        return std::to_string(value);
    }
    std::string Item(std::size_t index) {
        constexpr std::array<std::array<int, 2>, 5> bounds{
            {{0, 59}, {0, 23}, {1, 31}, {1, 12}, {0, 7}}};
        const int first = From(bounds.at(index)[0], bounds.at(index)[1]);
        const int last = From(first, bounds.at(index)[1]);
        std::string range = Value(index, first) + "-" + Value(index, last);
        switch (From(0, 5)) {
        case 0:
            return "*/" + std::to_string(From(1, 15));
        case 1:
            return range;
        case 2:
            return range + "/" + std::to_string(From(1, 9));
        default:
            return Value(index, first);
        }
    }
    std::string Field(std::size_t index) {
        if (From(0, 2) == 0)
            return "*";
        std::string field = Item(index);
        while (From(0, 2) == 0)
            field += "," + Item(index);
        return field;
    }

    std::mt19937 random_;
};

// The schedule that the daemon makes of an expression without random values.
Schedule ScheduleInDaemon(const std::string &expression) {
    Json::Value config;
    config["name"] = "x";
    config["user"] = "root";
    config["cmd"] = "/x";
    config["period"] = "crontab";
    config["crontab"] = expression;
    const ParsedDefinition parsed = ParseDefinition(config, 1);
    EXPECT_THAT(parsed.faults, IsEmpty()) << expression;
    Schedule schedule(parsed.definition.items);
    KEST::RANDOM::KESTRandom random;
    for (std::size_t i = 0; i < 5; ++i)
        schedule.Draw(i, kAnyValue, random);
    return schedule;
}

// Compares the times of a day, which are the same on all days. Returns their number.
std::size_t CompareTimes(const PlainLine &plain, const Schedule &job, const std::string &line) {
    std::array<std::size_t, 2> counts{};
    const std::array<int, 2> sizes{60, 24};
    for (std::size_t field = 0; field < sizes.size(); ++field)
        for (int value = 0; value < sizes.at(field); ++value) {
            const bool expected = plain.Has(field, value);
            EXPECT_EQ(job.Admits(field, value), expected) << line << field << ": " << value;
            counts.at(field) += expected ? 1 : 0;
        }
    return counts[0] * counts[1];
}

// The jobs of a line, as the daemon reads them. None if the line never starts.
std::vector<Schedule> JobsOf(const std::string &line) {
    std::vector<Schedule> jobs;
    const ClassicLine parsed = ParseClassicLine(line + "x", false);
    if (const auto *entry = std::get_if<ClassicEntry>(&parsed))
        for (const std::string &expression : ExpressionsOf(entry->schedule))
            jobs.push_back(ScheduleInDaemon(expression));
    return jobs;
}

// Compares the starts of a year: on each day, one job starts at the times of the line if the line
// starts on this day, and otherwise none. Returns the number of starts.
std::size_t CompareYear(const std::array<std::string, 5> &fields, int year) {
    std::string line;
    for (const std::string &field : fields)
        line += field + " ";
    const PlainLine plain(fields);
    const std::vector<Schedule> jobs = JobsOf(line);
    std::size_t times = 0;
    for (const Schedule &job : jobs)
        times = CompareTimes(plain, job, line);
    std::size_t days = 0;
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mday = 1;
    for (timegm(&date); date.tm_year == year - 1900; ++date.tm_mday, timegm(&date)) {
        const std::array<int, 5> values = kest::FieldsOf(date);
        const bool mayStart = plain.MayStartOn(values[2], values[3], values[4]);
        const auto starting = std::count_if(jobs.begin(), jobs.end(), [&](const Schedule &job) {
            return job.Admits(2, values[2]) && job.Admits(3, values[3]) && job.Admits(4, values[4]);
        });
        EXPECT_EQ(starting, mayStart ? 1 : 0) << line << values[3] << "/" << values[2];
        days += mayStart ? 1 : 0;
    }
    return days * times;
}

TEST(ClassicSchedule, StartsOfAYearAreThoseOfTheClassicRules) {
    RandomLines lines(1);
    std::size_t starts = 0;
    for (int i = 0; i < 5000 && !HasFailure(); ++i)
        starts += CompareYear(lines.Next(), i % 2 == 0 ? 2027 : 2028); // a leap year
    EXPECT_GT(starts, 10000000U); // the comparison is not of empty sets
}

} // namespace

} // namespace kest::ctl
