// Parses a line of a classic crontab.

#ifndef CTL_IMPORT_CLASSIC_LINE_H
#define CTL_IMPORT_CLASSIC_LINE_H

#include "ctl/check/diagnostic.h"
#include "ctl/import/classic_schedule.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kest::ctl {

// A part of a line, or the reason why the line has no equivalent.
struct LineRemark {
    std::size_t column = 1; // in bytes
    std::string message;
    Hint hint = {};
};

// A blank line or a comment.
struct NoEntry {};

// NAME=VALUE, for the commands in the lines after it.
struct ClassicVariable {
    std::string name;
    std::string value;
    std::size_t column = 1;
};

struct ClassicEntry {
    ClassicSchedule schedule;
    std::string account; // empty without a user column
    std::size_t accountColumn = 1;
    std::string command; // for a shell
    std::size_t commandColumn = 1;
    std::string input; // of the command
    std::vector<LineRemark> remarks;
};

using ClassicLine = std::variant<NoEntry, ClassicVariable, ClassicEntry, LineRemark>;

// Parses a line without its end. It may contain any bytes. With `userColumn`, the account stands
// before the command. The result is a remark if the line is not valid or has no equivalent.
ClassicLine ParseClassicLine(const std::string &line, bool userColumn);

// The command and its standard input. The first "%" without a backslash separates them; further
// ones are line ends.
struct ClassicCommand {
    std::string command;
    std::string input; // ends with a line end if it is not empty
};
ClassicCommand SplitClassicCommand(std::string_view text);

} // namespace kest::ctl

#endif
