// A job's command as an argument list and as one line of text.

#ifndef JOB_COMMAND_H
#define JOB_COMMAND_H

#include <json/value.h>
#include <optional>
#include <string>

namespace kest {

struct Command {
    Json::Value list; // array of strings, or of what the JSON library can write as one
    std::string text;
};

// The command of the definition `config`. "cmd_list" goes before "cmd"; its text is every element
// followed by a blank, the last one too. "cmd" is split at runs of blanks and is its own text. The
// list may be empty. Nothing when an element cannot be written as text.
std::optional<Command> NormalizeCommand(const Json::Value &config);

} // namespace kest

#endif
