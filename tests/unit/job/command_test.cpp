#include "job/command.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(NormalizeCommand, GivesAListAndALine) {
    struct Row {
        const char *config;
        const char *list;
        const char *text;
    };
    const Row rows[] = {
        {R"({"cmd": "/bin/a"})", R"(["/bin/a"])", "/bin/a"},
        {R"({"cmd": "/bin/a b c"})", R"(["/bin/a", "b", "c"])", "/bin/a b c"},
        {R"({"cmd": "/bin/a  b   c"})", R"(["/bin/a", "b", "c"])", "/bin/a  b   c"},
        {R"({"cmd": "/bin/a\tb"})", R"(["/bin/a\tb"])", "/bin/a\tb"},
        {R"({"cmd": "/bin/a \"b c\""})", R"(["/bin/a", "\"b", "c\""])", "/bin/a \"b c\""},
        {R"({"cmd": " /bin/a "})", R"(["", "/bin/a", ""])", " /bin/a "},
        {R"({"cmd": ""})", R"([""])", ""},
        {R"({"cmd_list": ["/bin/a", "b"]})", R"(["/bin/a", "b"])", "/bin/a b "},
        {R"({"cmd_list": ["/bin/a"]})", R"(["/bin/a"])", "/bin/a "},
        {R"({"cmd_list": ["/bin/a", "b c", ""]})", R"(["/bin/a", "b c", ""])", "/bin/a b c  "},
        {R"({"cmd_list": []})", "[]", ""},
        {R"({"cmd": "x", "cmd_list": ["/bin/a"]})", R"(["/bin/a"])", "/bin/a "},
        {R"({"cmd": "x", "cmd_list": []})", "[]", ""},
        {R"({"cmd_list": ["/bin/a", 5, true, null]})", R"(["/bin/a", 5, true, null])",
         "/bin/a 5 true  "},
        {R"({"cmd": 5})", R"([""])", ""},
        {R"({})", R"([""])", ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const std::optional<Command> command = NormalizeCommand(FromText(row.config));
        ASSERT_TRUE(command);
        EXPECT_EQ(command->list, FromText(row.list));
        EXPECT_EQ(command->text, row.text);
    }
}

TEST(NormalizeCommand, GivesUpOnWhatCannotBeWrittenAsText) {
    for (const char *row :
         {R"({"cmd_list": ["/bin/a", {"x": 1}]})", R"({"cmd_list": [["/bin/a"]]})",
          R"({"cmd": "x", "cmd_list": {"a": "b"}})"})
        EXPECT_FALSE(NormalizeCommand(FromText(row))) << row;
}

} // namespace

} // namespace kest
