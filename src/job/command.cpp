#include "job/command.h"

#include "base/json_members.h"

#include <boost/algorithm/string/split.hpp>
#include <vector>

namespace kest {

namespace {

std::optional<Command> FromList(const Json::Value &list) {
    if (!list.isArray()) {
        // It has no elements, unless it is an object: then it has no first one.
        if (list.isObject() && !list.empty())
            return std::nullopt;
        return Command{Json::Value(Json::arrayValue), {}};
    }
    Command command{list, {}};
    for (const Json::Value &element : list) {
        if (!element.isConvertibleTo(Json::stringValue))
            return std::nullopt;
        command.text += element.asString() + " ";
    }
    return command;
}

Command FromText(const std::string &text) {
    std::vector<std::string> pieces;
    boost::algorithm::split(
        pieces, text, [](char character) { return character == ' '; },
        boost::algorithm::token_compress_on);
    Command command{Json::Value(Json::arrayValue), text};
    for (const std::string &piece : pieces)
        command.list.append(piece);
    return command;
}

} // namespace

std::optional<Command> NormalizeCommand(const Json::Value &config) {
    if (HasMember(config, "cmd_list"))
        return FromList(Member(config, "cmd_list"));
    return FromText(TextMember(config, "cmd"));
}

} // namespace kest
