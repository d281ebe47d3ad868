// Writes JSON documents as indented text, byte for byte as the writer of the JSON library, in a
// third of its time. The text is ASCII: other characters become "\uXXXX", and bytes that are not
// UTF-8 become U+FFFD, so strings with such bytes are not restored when the text is parsed.

#ifndef BASE_JSON_TEXT_H
#define BASE_JSON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <json/value.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest {

// Builds a text from the outermost value inwards, so that a large document need not exist as one
// JSON value. Call either Append once, or BeginObject, then Name and a value any number of times,
// then EndObject.
class JsonText {
public:
    // Stops as soon as the text exceeds `most` bytes; the text is then incomplete. `depth` is the
    // depth of the value inside its document.
    explicit JsonText(std::size_t most = std::string::npos, std::size_t depth = 0)
        : most_(most), depth_(depth), lineIsStarted_(depth == 0) {}

    void Append(const Json::Value &value);
    void Append(std::int64_t number);
    // An array.
    void Append(const std::vector<std::int32_t> &numbers);

    // Begins and ends an object with at least one member. Use Append for an empty object.
    void BeginObject();
    void Name(std::string_view name);
    void EndObject();

    // Appends text that already consists of members of the current object with their separators.
    void AppendMembers(std::string_view text) {
        text_.append(text);
        isFirst_ = false;
        lineIsStarted_ = false;
    }

    std::size_t Size() const { return text_.size(); }

    // The text since the last call of ForgetPart.
    std::string_view Part() const { return text_; }
    void ForgetPart() { text_.clear(); }

    // Returns the text, without a final newline. The object must not be used afterwards.
    std::string Take() { return std::move(text_); }

private:
    template <typename Array>
    bool AppendInOneLine(const Array &array);
    template <typename Array>
    void AppendArray(const Array &array);
    void AppendObject(const Json::Value &object);
    void AppendQuoted(std::string_view text);
    void Open(char bracket);
    void Close(char bracket);
    void StartLine();

    std::size_t most_;
    std::size_t depth_;
    std::string text_;
    bool lineIsStarted_;  // the next value needs no line of its own
    bool isFirst_ = true; // of its object
};

// The document as text, without a final newline. A text longer than `most` bytes is cut off
// somewhere after `most` bytes.
std::string JsonToString(const Json::Value &value, std::size_t most = std::string::npos);

} // namespace kest

#endif
