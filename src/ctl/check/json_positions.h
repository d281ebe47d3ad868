// Finds the positions of JSON values in their text.

#ifndef CTL_CHECK_JSON_POSITIONS_H
#define CTL_CHECK_JSON_POSITIONS_H

#include <cstddef>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// Both count from 1. Columns count bytes.
struct Position {
    std::size_t line = 1;
    std::size_t column = 1;
};

class JsonPositions {
public:
    // `text` must outlive the object. Values passed to the functions below must come from parsing
    // it, without later assignments.
    explicit JsonPositions(const std::string &text);

    Position At(std::size_t offset) const;
    Position Of(const Json::Value &value) const;
    // The position of the member name before the value, or of the value if no name precedes it.
    Position OfName(const Json::Value &value) const;
    // The offset of the first character of a string. Nothing if the string is written with escape
    // sequences, because then offsets within it are unknown.
    std::optional<std::size_t> OffsetOfText(const Json::Value &value) const;

    struct Fault {
        Position position;
        std::string text;
    };
    // The first error of a multi-line error message of the parser about this text.
    Fault FirstOf(const std::string &faults) const;

private:
    std::size_t StartOf(const Json::Value &value) const;

    const std::string &text_;
    std::size_t begin_;              // offset of the document, after a byte order mark
    std::vector<std::size_t> lines_; // offsets of the line starts
};

} // namespace kest::ctl

#endif
