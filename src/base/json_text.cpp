#include "base/json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <json/writer.h>
#include <memory>
#include <sstream>

namespace kest {

namespace {

// An array is put into one line when that is shorter than this, brackets included.
constexpr std::size_t kLineLength = 74;
// The writer assumes at least this length for each value, separator included.
constexpr std::size_t kShortestElement = 3;

bool HasMembers(std::int32_t /*number*/) {
    return false;
}

bool HasMembers(const Json::Value &value) {
    const Json::ValueType type = value.type();
    return (type == Json::arrayValue || type == Json::objectValue) && !value.empty();
}

template <typename Number>
void AppendNumber(std::string &text, Number number) {
    std::array<char, 24> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    text.append(digits.data(), result.ptr);
}

void AppendEscaped(std::string &text, char character) {
    constexpr std::string_view hexDigits = "0123456789abcdef";
    constexpr std::string_view plain = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const auto known = plain.find(character);
    if (known != std::string_view::npos) {
        text += {'\\', letters[known]};
        return;
    }
    const auto code = static_cast<unsigned char>(character);
    text += "\\u00";
    text += {hexDigits[code >> 4U], hexDigits[code & 0xfU]};
}

bool IsAscii(char character) {
    return static_cast<unsigned char>(character) < 0x80;
}

// For bytes that are not UTF-8, which the versions of the library's writer treat differently.
std::string QuotedByLibrary(std::string_view text) {
    static const std::unique_ptr<Json::StreamWriter> writer(
        Json::StreamWriterBuilder().newStreamWriter());
    std::ostringstream quoted;
    writer->write(Json::Value(text.data(), text.data() + text.size()), &quoted);
    return quoted.str();
}

// Uses a table, because it is called for every byte of every name and text.
constexpr auto kNeedsEscape = [] {
    std::array<bool, 256> needs{};
    for (std::size_t code = 0; code < needs.size(); ++code)
        needs[code] = code < 0x20 || code >= 0x80;
    needs['"'] = true;
    needs['\\'] = true;
    return needs;
}();

bool NeedsEscape(char character) {
    return kNeedsEscape[static_cast<unsigned char>(character)];
}

} // namespace

void JsonText::Append(const Json::Value &value) {
    if (text_.size() > most_)
        return;
    switch (value.type()) {
    case Json::nullValue:
        text_ += "null";
        break;
    case Json::booleanValue:
        text_ += value.asBool() ? "true" : "false";
        break;
    case Json::intValue:
        AppendNumber(text_, value.asLargestInt());
        break;
    case Json::uintValue:
        AppendNumber(text_, value.asLargestUInt());
        break;
    case Json::realValue:
        text_ += Json::valueToString(value.asDouble());
        break;
    case Json::stringValue: {
        const char *begin = nullptr;
        const char *end = nullptr;
        value.getString(&begin, &end);
        AppendQuoted({begin, static_cast<std::size_t>(end - begin)});
        break;
    }
    case Json::arrayValue:
        AppendArray(value);
        break;
    case Json::objectValue:
        AppendObject(value);
        break;
    }
    lineIsStarted_ = false;
}

void JsonText::Append(std::int64_t number) {
    AppendNumber(text_, number);
    lineIsStarted_ = false;
}

void JsonText::Append(const std::vector<std::int32_t> &numbers) {
    if (numbers.size() == 1) { // as in most schedules
        text_ += "[ ";
        AppendNumber(text_, numbers.front());
        text_ += " ]";
    } else {
        AppendArray(numbers);
    }
    lineIsStarted_ = false;
}

template <typename Array>
void JsonText::AppendArray(const Array &array) {
    if (array.empty()) {
        text_ += "[]";
        return;
    }
    if (AppendInOneLine(array))
        return;
    Open('[');
    bool isFirst = true;
    for (const auto &element : array) {
        if (!std::exchange(isFirst, false))
            text_ += ',';
        StartLine();
        lineIsStarted_ = true;
        Append(element);
        if (text_.size() > most_)
            break;
    }
    Close(']');
}

// Does nothing and returns false when the array takes more than one line.
template <typename Array>
bool JsonText::AppendInOneLine(const Array &array) {
    if (array.size() * kShortestElement >= kLineLength)
        return false;
    for (const auto &element : array)
        if (HasMembers(element))
            return false;
    const std::size_t start = text_.size();
    text_ += '[';
    const char *separator = " ";
    for (const auto &element : array) {
        text_ += std::exchange(separator, ", ");
        const bool lineWasStarted = lineIsStarted_;
        Append(element);
        lineIsStarted_ = lineWasStarted;
    }
    text_ += " ]";
    if (text_.size() - start < kLineLength)
        return true;
    text_.resize(start);
    return false;
}

void JsonText::AppendObject(const Json::Value &object) {
    if (object.empty()) {
        text_ += "{}";
        return;
    }
    BeginObject();
    const auto last = object.end();
    for (auto member = object.begin(); member != last && text_.size() <= most_; ++member) {
        const char *end = nullptr;
        const char *begin = member.memberName(&end);
        Name({begin, static_cast<std::size_t>(end - begin)});
        Append(*member);
    }
    EndObject();
}

void JsonText::BeginObject() {
    Open('{');
    isFirst_ = true;
}

void JsonText::Name(std::string_view name) {
    if (!std::exchange(isFirst_, false))
        text_ += ',';
    StartLine();
    AppendQuoted(name);
    text_ += " : ";
    lineIsStarted_ = false;
}

void JsonText::EndObject() {
    Close('}');
    isFirst_ = false; // of the object around it, which has this member
}

void JsonText::AppendQuoted(std::string_view text) {
    const std::size_t start = text_.size();
    text_ += '"';
    const char *rest = text.data();
    const char *const end = rest + text.size();
    for (;;) {
        const char *const odd = std::find_if(rest, end, NeedsEscape);
        text_.append(rest, odd);
        if (odd == end)
            break;
        if (!IsAscii(*odd)) {
            text_.resize(start);
            text_ += QuotedByLibrary(text);
            return;
        }
        AppendEscaped(text_, *odd);
        rest = odd + 1;
    }
    text_ += '"';
}

void JsonText::Open(char bracket) {
    if (!lineIsStarted_)
        StartLine();
    text_ += bracket;
    ++depth_;
}

void JsonText::Close(char bracket) {
    --depth_;
    StartLine();
    text_ += bracket;
    lineIsStarted_ = false;
}

void JsonText::StartLine() {
    constexpr std::string_view start = "\n\t\t\t\t\t\t\t";
    text_ += start.substr(0, depth_ + 1);
    if (depth_ >= start.size())
        text_.append(depth_ + 1 - start.size(), '\t');
}

std::string JsonToString(const Json::Value &value, std::size_t most) {
    JsonText text(most);
    text.Append(value);
    return text.Take();
}

} // namespace kest
