#include "core/job_files.h"

#include "core/job_name.h"
#include "job/json_members.h"

#include <algorithm>
#include <utility>

bool IsJobFileName(const std::string &name) {
    return !name.empty() && name.front() != '.';
}

void TakeRoom(JsonLimits &room, const JobDirectory &directory, std::size_t size) {
    if (!directory.account.empty())
        room.bytes -= std::min(size, room.bytes);
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
