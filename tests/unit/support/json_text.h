// JSON written in a test.

#ifndef TESTS_UNIT_SUPPORT_JSON_TEXT_H
#define TESTS_UNIT_SUPPORT_JSON_TEXT_H

#include <iosfwd>
#include <json/value.h>
#include <string>

namespace Json {

// How a failed comparison shows a document.
void PrintTo(const Value &value, std::ostream *stream);

} // namespace Json

namespace kest {

// The document in `text`; a failure of the test when it is none.
Json::Value FromText(const std::string &text);

} // namespace kest

#endif
