#include "ctl/check/json_positions.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace kest::ctl {

namespace {

// The offset of the last non-blank character before `end`; npos if there is none.
std::size_t LastBefore(const std::string &text, std::size_t end) {
    return end == 0 ? std::string::npos : text.find_last_not_of(" \t\r\n", end - 1);
}

bool IsEscaped(const std::string &text, std::size_t at) {
    const std::size_t last = at == 0 ? std::string::npos : text.find_last_not_of('\\', at - 1);
    const std::size_t slashes = last == std::string::npos ? at : at - last - 1;
    return slashes % 2 == 1;
}

// The offset of the quote that opens the string which ends at `closing`; npos if there is none.
std::size_t OpeningQuote(const std::string &text, std::size_t closing) {
    std::size_t opening = closing;
    do
        opening = opening == 0 ? std::string::npos : text.rfind('"', opening - 1);
    while (opening != std::string::npos && IsEscaped(text, opening));
    return opening;
}

} // namespace

JsonPositions::JsonPositions(const std::string &text)
    : text_(text), begin_(text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0), lines_{0} {
    for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1))
        lines_.push_back(end + 1);
}

Position JsonPositions::At(std::size_t offset) const {
    const auto next = std::upper_bound(lines_.begin(), lines_.end(), offset);
    return {static_cast<std::size_t>(next - lines_.begin()), offset - *(next - 1) + 1};
}

std::size_t JsonPositions::StartOf(const Json::Value &value) const {
    return begin_ + static_cast<std::size_t>(value.getOffsetStart());
}

Position JsonPositions::Of(const Json::Value &value) const {
    return At(StartOf(value));
}

Position JsonPositions::OfName(const Json::Value &value) const {
    const std::size_t colon = LastBefore(text_, StartOf(value));
    if (colon == std::string::npos || text_[colon] != ':')
        return Of(value);
    const std::size_t closing = LastBefore(text_, colon);
    if (closing == std::string::npos || text_[closing] != '"')
        return Of(value);
    const std::size_t opening = OpeningQuote(text_, closing);
    return opening == std::string::npos ? Of(value) : At(opening);
}

std::optional<std::size_t> JsonPositions::OffsetOfText(const Json::Value &value) const {
    const std::size_t first = StartOf(value) + 1;
    const std::string text = value.asString();
    const auto end = begin_ + static_cast<std::size_t>(value.getOffsetLimit());
    const bool plain =
        end == first + text.size() + 1 && text_.compare(first, text.size(), text) == 0;
    return plain ? std::optional<std::size_t>(first) : std::nullopt;
}

JsonPositions::Fault JsonPositions::FirstOf(const std::string &faults) const {
    if (const auto zero = text_.find('\0'); zero != std::string::npos)
        return {At(zero), faults};
    Fault fault{{}, faults};
    int read = 0;
    // The parser's own numbers are in range.
    // NOLINTNEXTLINE(cert-err34-c)
    if (std::sscanf(faults.c_str(), "* Line %zu, Column %zu\n %n", &fault.position.line,
                    &fault.position.column, &read) == 2) {
        fault.text = faults.substr(static_cast<std::size_t>(read));
        if (fault.position.line == 1)
            fault.position.column += begin_;
    }
    fault.text.resize(std::min(fault.text.size(), fault.text.find('\n')));
    constexpr std::string_view prefix = "Syntax error: ";
    if (fault.text.compare(0, prefix.size(), prefix) == 0)
        fault.text.erase(0, prefix.size());
    return fault;
}

} // namespace kest::ctl
