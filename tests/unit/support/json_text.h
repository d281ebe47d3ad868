// JSON written in a test.

#ifndef TESTS_UNIT_SUPPORT_JSON_TEXT_H
#define TESTS_UNIT_SUPPORT_JSON_TEXT_H

#include <iosfwd>
#include <json/value.h>
#include <string>

namespace Json {

// Prints a document in the message of a failed comparison.
void PrintTo(const Value &value, std::ostream *stream);

} // namespace Json

namespace kest {

// Parses the document in `text`. The test fails if it is not a document.
Json::Value FromText(const std::string &text);

} // namespace kest

#endif
