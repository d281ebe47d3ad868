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

const Json::Value &Member(const Json::Value &object, const char *name) {
    return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

const Json::Value &Member(const Json::Value &object, const std::string &name) {
    return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

Json::Value Member(Json::Value &&object, const char *name) {
    return Member(static_cast<const Json::Value &>(object), name);
}

bool HasMember(const Json::Value &object, const char *name) {
    return object.isObject() && object.isMember(name);
}

std::string TextMember(const Json::Value &object, const char *name) {
    const Json::Value &member = Member(object, name);
    return member.isString() ? member.asString() : std::string();
}

std::int64_t IntegerMember(const Json::Value &object, const char *name, std::int64_t otherwise) {
    const Json::Value &member = Member(object, name);
    return member.isInt64() ? member.asInt64() : otherwise;
}

Json::Value &ObjectMember(Json::Value &value, const char *name) {
    if (!value.isObject())
        value = Json::Value(Json::objectValue);
    Json::Value &member = value[Json::StaticString(name)];
    if (!member.isObject())
        member = Json::Value(Json::objectValue);
    return member;
}

bool JsonContains(const Json::Value &before, const Json::Value &after) {
    if (before.isArray())
        return ArrayContains(before, after);
    if (before.isObject())
        return ObjectContains(before, after);
    return before == after;
}

} // namespace kest
