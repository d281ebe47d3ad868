// Reads members of untrusted JSON. No function except ObjectMember throws or inserts members.

#ifndef BASE_JSON_MEMBERS_H
#define BASE_JSON_MEMBERS_H

#include <cstdint>
#include <json/value.h>
#include <string>

namespace kest {

// The member `name` of `object`; null when there is none or `object` is not an object.
const Json::Value &Member(const Json::Value &object, const char *name);
const Json::Value &Member(const Json::Value &object, const std::string &name);
// The same for a temporary object: returns a copy.
Json::Value Member(Json::Value &&object, const char *name);

// Whether `object` is an object with a member `name`, of any type.
bool HasMember(const Json::Value &object, const char *name);

// The text of the member `name`; empty when it is absent or not a string.
std::string TextMember(const Json::Value &object, const char *name);

// The member `name` as a number; `otherwise` when it is absent, not an integer or out of range.
std::int64_t IntegerMember(const Json::Value &object, const char *name, std::int64_t otherwise);

// The member `name` of `value`. Anything but an object is replaced by an empty object first. `name`
// must be a literal, because the document may keep the pointer.
Json::Value &ObjectMember(Json::Value &value, const char *name);

// Whether `after` contains everything in `before` unchanged. Members that only `after` has are
// ignored at any depth: a definition that gains a member keeps its history. Arrays must have the
// same length; all other values must have the same type and value.
bool JsonContains(const Json::Value &before, const Json::Value &after);

} // namespace kest

#endif
