#include "base/json_members.h"

namespace kest {

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

} // namespace kest
