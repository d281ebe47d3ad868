// Where the values of a JSON document stand in its text.

#ifndef CTL_CHECK_JSON_PLACES_H
#define CTL_CHECK_JSON_PLACES_H

#include <cstddef>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// Both begin with 1; columns are bytes.
struct Place {
    std::size_t line = 1;
    std::size_t column = 1;
};

class JsonPlaces {
public:
    // `text` outlives the object. The values asked for come from reading it and were not assigned
    // to since.
    explicit JsonPlaces(const std::string &text);

    Place At(std::size_t offset) const;
    Place Of(const Json::Value &value) const;
    // Of the name before a member's value; of the value where anything else stands before it.
    Place OfName(const Json::Value &value) const;
    // The offset of a text's first character; nothing when it is written with escapes, so that its
    // characters cannot be counted.
    std::optional<std::size_t> OffsetOfText(const Json::Value &value) const;

    struct Fault {
        Place place;
        std::string text;
    };
    // The first of the faults that the parser tells, one below the other, of this text.
    Fault FirstOf(const std::string &faults) const;

private:
    std::size_t StartOf(const Json::Value &value) const;
    const std::string &text_;
    std::size_t begin_; // of what the parser sees: a byte order mark is none of it
    std::vector<std::size_t> lines_;
};

} // namespace kest::ctl

#endif
