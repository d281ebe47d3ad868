// Parses a job definition into typed values or a list of faults.

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

// A reason for which a definition is refused.
struct DefinitionFault {
    enum class Kind : unsigned char {
        Rule,       // a rule is broken
        Period,     // the text is not a period
        FieldCount, // the crontab expression does not have five fields
        Item,       // an item of the crontab expression cannot be used
        Setting,    // the member cannot be converted
        List,       // "cmd_list" is not a list
        Argument,   // an element of "cmd_list" cannot be written as text
        NoCommand   // the command has no words
    };
    Kind kind = Kind::Rule;
    const char *member = ""; // the faulty member; empty: the definition as a whole
    const char *rule = "";   // of Rule and NoCommand: the message for the system log

    // Of Item: the field's number; of Argument: the element's, both from 0; of FieldCount: how many
    // fields there are.
    std::size_t number = 0;
    std::size_t offset = 0; // of the item's first byte in the expression
    std::string text{};     // the item; of FieldCount: the expression
    CronItem item{};        // the result of parsing the item
};

// A command as an argument list and as one line of text.
struct Command {
    Json::Value list; // array of strings, or of values that the JSON library converts to strings
    std::string text;
};

// The typed values of a definition.
struct Definition {
    std::string name;                   // the full job name
    std::optional<std::string> account; // that the job runs as, if the definition names one
    std::array<std::vector<CronRange>, 5> items; // of each field, in the order of FieldKeys()
    Command command;
    std::int32_t assureExecute = 0; // hours; 0: not assured
    bool assureRun = false;         // "assure_execute_action" is "run"
    bool runOnPassive = false;
};

struct ParsedDefinition {
    Definition definition; // whole only when there are no faults
    // In the order of the checks, violated rules first. The first one is the reported reason for
    // the refusal.
    std::vector<DefinitionFault> faults;
};

// Parses the definition `config`. Stops after `mostFaults` faults, at least 1. Absent members have
// their defaults. Has no side effects and never throws because of the content of `config`.
ParsedDefinition ParseDefinition(const Json::Value &config,
                                 std::size_t mostFaults = std::numeric_limits<std::size_t>::max());

// Adds the defaults of absent members: "startup" is `now`, in seconds since the epoch;
// "assure_execute", "assure_execute_action" and "run_on_passive" in "config". The definition must
// be valid.
void WriteDefaults(Json::Value &document, std::int64_t now);

// The command of the definition `config`. "cmd_list" takes precedence over "cmd"; its text is each
// element followed by a blank, the last one too. "cmd" is split at runs of blanks; its text is
// unchanged. The list may be empty. Nothing when an element cannot be converted to a string.
std::optional<Command> NormalizeCommand(const Json::Value &config);

// The crontab expression of a period. Only the first letter matters, in either case: h, d, w and m
// run once an hour, a day, a week or a month at random times; c is `ownCrontab`. Nothing for any
// other text.
std::optional<std::string> PeriodCrontab(const std::string &period, const std::string &ownCrontab);

} // namespace kest

#endif
