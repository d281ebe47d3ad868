// A job definition, read once and for all: either what it says, as types, or all that is wrong with
// it.

#ifndef JOB_DEFINITION_H
#define JOB_DEFINITION_H

#include "job/cron_field.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <json/value.h>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kest {

// One thing for which a definition is refused.
struct DefinitionFault {
    enum class Kind : unsigned char {
        Rule,       // a rule is broken
        Period,     // the word does not stand for a period
        FieldCount, // the crontab expression does not have five fields
        Item,       // an item of the crontab expression cannot be used
        Setting,    // the member cannot be converted
        List,       // "cmd_list" is not a list
        Argument,   // an element of "cmd_list" cannot be written as text
        NoCommand   // the command has no words
    };
    Kind kind = Kind::Rule;
    const char *member = ""; // the one that it is about; empty: the definition as a whole
    const char *rule = "";   // of Rule and NoCommand: what the system log says of it

    // Of Item: the field's number; of Argument: the element's, both from 0; of FieldCount: how many
    // fields there are.
    std::size_t number = 0;
    std::size_t offset = 0; // of the item's first byte in the expression
    std::string text{};     // the item; of FieldCount: the expression
    CronItem item{};        // what was read of the item
};

// A command as an argument list and as one line of text.
struct Command {
    Json::Value list; // array of strings, or of what the JSON library can write as one
    std::string text;
};

// What a definition says.
struct Definition {
    std::string name;                            // the full job name
    std::optional<std::string> account;          // that the job runs as; none: it names none
    std::array<std::vector<CronRange>, 5> items; // of each field, in the order of FieldKeys()
    Command command;
    std::int32_t assureExecute = 0; // hours; 0: not assured
    bool assureRun = false;         // "assure_execute_action" is "run"
    bool runOnPassive = false;
};

struct ParsedDefinition {
    Definition definition; // whole only when there are no faults
    // In the order in which they are looked for, broken rules first. The first one is why the
    // definition is refused.
    std::vector<DefinitionFault> faults;
};

// Reads the definition `config`, and stops at `mostFaults` faults, which is at least 1. Members
// that are absent have their defaults. Has no effects, and throws for nothing that `config` may
// hold.
ParsedDefinition ParseDefinition(const Json::Value &config,
                                 std::size_t mostFaults = std::numeric_limits<std::size_t>::max());

// Writes the defaults for what is absent: `now`, in seconds since the epoch, as the document's
// "startup"; "assure_execute", "assure_execute_action" and "run_on_passive" into its "config".
// The definition keeps the rules.
void WriteDefaults(Json::Value &document, std::int64_t now);

// The command of the definition `config`. "cmd_list" goes before "cmd"; its text is every element
// followed by a blank, the last one too. "cmd" is split at runs of blanks and is its own text. The
// list may be empty. Nothing when an element cannot be written as text.
std::optional<Command> NormalizeCommand(const Json::Value &config);

// The crontab expression of a period. Only the first letter counts, in either case: h, d, w and m
// run once an hour, a day, a week, a month at random times, c is `ownCrontab`. Nothing for any
// other period.
std::optional<std::string> PeriodCrontab(const std::string &period, const std::string &ownCrontab);

} // namespace kest

#endif
