#include "job/period.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(PeriodCrontab, DependsOnTheFirstLetterInEitherCase) {
    struct Row {
        const char *period;
        const char *crontab;
    };
    const Row rows[] = {
        {"hourly", "~ * * * *"},   {"Hourly", "~ * * * *"},  {"h", "~ * * * *"},
        {"H", "~ * * * *"},        {"hx", "~ * * * *"},      {"h crontab", "~ * * * *"},
        {"daily", "~ ~ * * *"},    {"D", "~ ~ * * *"},       {"dx", "~ ~ * * *"},
        {"weekly", "~ ~ * * ~"},   {"W", "~ ~ * * ~"},       {"whenever", "~ ~ * * ~"},
        {"monthly", "~ ~ ~ * *"},  {"M", "~ ~ ~ * *"},       {"minutely", "~ ~ ~ * *"},
        {"crontab", "1 2 3 4 5"},  {"Crontab", "1 2 3 4 5"}, {"c", "1 2 3 4 5"},
        {"crontabs", "1 2 3 4 5"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(PeriodCrontab(row.period, "1 2 3 4 5"), std::string(row.crontab)) << row.period;
}

TEST(PeriodCrontab, GivesTheOwnCrontabAsItIs) {
    EXPECT_EQ(PeriodCrontab("c", ""), std::string());
    EXPECT_EQ(PeriodCrontab("c", " no crontab "), std::string(" no crontab "));
}

TEST(PeriodCrontab, KnowsNoOtherPeriod) {
    for (const char *period :
         {"", "yearly", "Yearly", " hourly", "@daily", "1", "\xc8", "~ * * * *"})
        EXPECT_EQ(PeriodCrontab(period, "1 2 3 4 5"), std::nullopt) << period;
}

} // namespace

} // namespace kest
