#include "core/job_files.h"

#include "core/job_name.h"
#include "job/json_members.h"

#include <algorithm>
#include <utility>

bool IsJobFileName(const std::string &name) {
    return !name.empty() && name.front() != '.';
}

bool TakeRoom(JsonLimits &room, const JobDirectory &directory, std::size_t size, std::size_t jobs) {
    if (directory.account.empty())
        return true;
    const std::size_t needed = std::max(size, jobs * kRoomOfJob);
    const bool fits = needed <= room.bytes;
    room.bytes -= fits ? needed : std::min(size, room.bytes);
    return fits;
}

Json::Value DefinitionsOf(Json::Value document) {
    Json::Value definitions(Json::arrayValue);
    if (document.isArray())
        return document;
    if (document.isObject()) {
        document["name"] = "default";
        definitions.append(std::move(document));
    }
    return definitions;
}

bool NameDefinition(Json::Value &definition, const JobDirectory &directory,
                    const std::string &fileBaseName) {
    if (!Member(definition, "name").isString())
        return false;
    if (!directory.account.empty()) {
        definition["user"] = "package";
        definition["package_username"] = directory.account;
    }
    definition["name"] = FullJobName(directory.label, directory.account, fileBaseName,
                                     definition["name"].asString());
    return true;
}
