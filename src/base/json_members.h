// Reading members of JSON that others wrote: no look-up here throws or inserts anything.

#ifndef BASE_JSON_MEMBERS_H
#define BASE_JSON_MEMBERS_H

#include <cstdint>
#include <json/value.h>
#include <string>

namespace kest {

// The member `name` of `object`; null when there is none or `object` is not an object.
const Json::Value &Member(const Json::Value &object, const char *name);
const Json::Value &Member(const Json::Value &object, const std::string &name);
// The same of an object that does not last: a copy.
Json::Value Member(Json::Value &&object, const char *name);

// Whether `object` is an object with a member `name`, of any type.
bool HasMember(const Json::Value &object, const char *name);

// The text of the member `name`; empty when it is absent or not a string.
std::string TextMember(const Json::Value &object, const char *name);

// The member `name` as a number; `otherwise` when it is absent, not an integer or out of range.
std::int64_t IntegerMember(const Json::Value &object, const char *name, std::int64_t otherwise);

// The member `name` of `value`, which becomes an empty object first when it is anything else. The
// document may go on pointing to `name`: a literal.
Json::Value &ObjectMember(Json::Value &value, const char *name);

// Whether everything in `before` is still the same in `after`. Members that only `after` has do not
// count, at any depth: a definition that gained a key keeps its history. Arrays must have the same
// length; everything else must be of the same type and value.
bool JsonContains(const Json::Value &before, const Json::Value &after);

} // namespace kest

#endif
