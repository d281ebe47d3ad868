#include "ctl/check/crontab.h"

#include "ctl/check/definition.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace kest::ctl {

namespace {

std::vector<Diagnostic> DiagnosticsOf(const std::string &crontab) {
    Json::Value config = FromText(R"({"name": "x", "user": "root", "cmd": "x", "period": "c"})");
    config["crontab"] = crontab;
    Json::Value document;
    document["config"] = config;
    std::vector<DefinitionFault> faults;
    const CronJob job(std::move(document), faults);
    const std::string noText;
    const JsonPositions nowhere(noText);
    CheckedDefinition checked(config, config, nowhere);
    AddErrors(checked, faults);
    if (job.valid)
        CheckCrontab(checked, job.cronFields());
    return checked.TakeDiagnostics();
}

// What an author would write who follows an advice about an item: its first word.
std::string FirstWordOf(const Hint &hint) {
    return hint.text.substr(0, hint.text.find(' '));
}

TEST(CheckCrontab, AdvisesOnlyWhatTheDaemonReads) {
    const char *const parts[] = {"~", "*", "/", "-", "0", "1", "5", "10", "59", "99", "x", "~~"};
    std::size_t advised = 0;
    for (unsigned round = 0; round < 8000; ++round) {
        std::minstd_rand bits(round);
        std::array<std::string, 5> fields{"1", "1", "1", "1", "1"};
        const std::size_t field = bits() % fields.size();
        fields[field].clear();
        for (unsigned i = 0; i < 1 + bits() % 4; ++i)
            fields[field] += parts[bits() % std::size(parts)];
        const auto expression = [&] {
            return fields[0] + " " + fields[1] + " " + fields[2] + " " + fields[3] + " " +
                   fields[4];
        };
        const std::string written = expression();
        for (const Diagnostic &diagnostic : DiagnosticsOf(written)) {
            if (std::string(diagnostic.hint.label) != Advice("").label ||
                diagnostic.message.find("on the same day") != std::string::npos)
                continue;
            fields[field] = FirstWordOf(diagnostic.hint);
            ++advised;
            for (const Diagnostic &again : DiagnosticsOf(expression()))
                EXPECT_TRUE(again.message.find("is read as") == std::string::npos &&
                            again.severity == Severity::Warning)
                    << written << " -> " << expression() << ": " << again.message;
        }
    }
    EXPECT_GT(advised, 60U);
}

TEST(LostRuns, RemarksOnARandomMinuteBesideAnHour) {
    for (const char *crontab : {"~ 3 * * *", "~ ~ * * *", "0~9 3 * * *", "5,~ 3 * * *"})
        EXPECT_NE(LostRuns(CrontabJob(crontab).cronFields()), "") << crontab;
    for (const char *crontab : {"~ * * * *", "1~59 3 * * *", "0 3 * * *", "* 3 * * *", "0 ~ * * *"})
        EXPECT_EQ(LostRuns(CrontabJob(crontab).cronFields()), "") << crontab;
}

TEST(RareDays, RemarksOnDaysThatSomeMonthsLack) {
    const struct {
        const char *crontab;
        const char *remark;
    } rows[] = {
        {"0 0 31 * *", "no run on day 31 in months with fewer days"},
        {"0 0 1,29,30 * *", "no run on day 29 and 30 in months with fewer days"},
        {"0 0 20~30 * *", "no run in months with fewer days if the day is drawn as 29 to 30"},
        {"0 0 31~31 * *", "no run in months with fewer days if the day is drawn as 31"},
        {"0 0 31,29~30 * *", "no run on day 31 in months with fewer days; no run in months with "
                             "fewer days if the day is drawn as 29 to 30"},
        {"0 0 28 * *", ""},
        {"0 0 ~ * *", ""}, // drawn from 1 to 28
        {"0 0 * * *", ""},
        {"0 0 31,* * *", ""},
        {"0 0 31 4 *", ""}, // a warning of its own
    };
    for (const auto &row : rows)
        EXPECT_EQ(RareDays(CrontabJob(row.crontab).cronFields()), row.remark) << row.crontab;
}

TEST(MisreadPeriod, IsAnyWordButTheUsualOnes) {
    EXPECT_EQ(MisreadPeriod("minutely"),
              "\"minutely\" is read as \"monthly\": only its first letter counts");
    EXPECT_EQ(MisreadPeriod("Hugo"),
              "\"Hugo\" is read as \"hourly\": only its first letter counts");
    for (const char *period : {"hourly", "Daily", "w", "month", "crontab", "yearly", ""})
        EXPECT_EQ(MisreadPeriod(period), "") << period;
}

} // namespace

} // namespace kest::ctl
