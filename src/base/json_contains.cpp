#include "base/json_contains.h"

#include "base/json_members.h"

namespace kest {

namespace {

bool ArrayContains(const Json::Value &before, const Json::Value &after) {
    if (!after.isArray() || before.size() != after.size())
        return false;
    for (Json::ArrayIndex i = 0; i < before.size(); ++i)
        if (!JsonContains(before[i], after[i]))
            return false;
    return true;
}

bool ObjectContains(const Json::Value &before, const Json::Value &after) {
    if (!after.isObject())
        return false;
    for (auto member = before.begin(); member != before.end(); ++member)
        if (!JsonContains(*member, Member(after, member.name())))
            return false;
    return true;
}

} // namespace

bool JsonContains(const Json::Value &before, const Json::Value &after) {
    if (before.isArray())
        return ArrayContains(before, after);
    if (before.isObject())
        return ObjectContains(before, after);
    return before == after;
}

} // namespace kest
