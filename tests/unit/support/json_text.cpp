#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <memory>
#include <ostream>

void Json::PrintTo(const Value &value, std::ostream *stream) {
    *stream << value;
}

namespace kest {

Json::Value FromText(const std::string &text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        << text << "\n"
        << errors;
    return value;
}

} // namespace kest
