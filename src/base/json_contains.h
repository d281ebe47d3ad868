// Whether a job's definition is still what it was.

#ifndef BASE_JSON_CONTAINS_H
#define BASE_JSON_CONTAINS_H

#include <json/value.h>

namespace kest {

// Whether everything in `before` is still the same in `after`. Members that only `after` has do not
// count, at any depth: a definition that gained a key keeps its history. Arrays must have the same
// length; everything else must be of the same type and value.
bool JsonContains(const Json::Value &before, const Json::Value &after);

} // namespace kest

#endif
