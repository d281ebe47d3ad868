#include "ctl/check/source.h"

#include "tests/unit/support/json_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

TEST(CompareDefinitions, FindsChangedAndAddedMembers) {
    struct {
        const char *before;
        const char *after;
        std::vector<std::string> changed;
        std::vector<std::string> added;
    } const rows[] = {
        {R"({"cmd": "x"})", R"({"cmd": "x"})", {}, {}},
        {R"({"cmd": "x"})", R"({"cmd": "y"})", {"cmd"}, {}},
        {R"({"cmd": "x"})", R"({"cmd": "x", "extra": 1})", {}, {"extra"}},
        {R"({"cmd": "x", "extra": 1})", R"({"cmd": "x"})", {"extra"}, {}},
        {R"({"cmd": "x"})", R"({"cmd": "y", "extra": 1})", {"cmd"}, {"extra"}},
        {R"({"own": {"a": 1, "b": 2}})", R"({"own": {"a": 1}})", {"own"}, {}},
        {R"({"own": {"a": 1}})", R"({"own": {"a": 1, "b": 2}})", {}, {"own"}},
        {R"({"own": {"a": 1}})", R"({"own": {"a": 2}})", {"own"}, {}},
    };
    for (const auto &row : rows) {
        JobSource source;
        CompareDefinitions(FromText(row.before), FromText(row.after), source);
        EXPECT_EQ(source.changed, row.changed) << row.after;
        EXPECT_EQ(source.added, row.added) << row.after;
    }
}

} // namespace

} // namespace kest::ctl
