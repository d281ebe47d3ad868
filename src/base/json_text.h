// JSON documents as indented text, byte for byte as the JSON library's own writer gives it, which
// takes three times as long. The text is ASCII: other characters become "\uXXXX", and bytes that
// are not UTF-8 become U+FFFD, so that names and texts with such bytes do not come back as they
// were.

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

// Puts a text together from its outermost value inwards; a value that is large need not exist as a
// whole for it. Either one Append, or BeginObject, any number of Name and value in turn, EndObject.
class JsonText {
public:
    // A text that has become longer than `most` is not gone on with: it is of no use. With a
    // `depth`, the text is that of a member's value, so deep inside a document.
    explicit JsonText(std::size_t most = std::string::npos, std::size_t depth = 0)
        : most_(most), depth_(depth), lineIsStarted_(depth == 0) {}

    void Append(const Json::Value &value);
    void Append(std::int64_t number);
    // An array.
    void Append(const std::vector<std::int32_t> &numbers);

    // An object of at least one member: `{}` is an empty value.
    void BeginObject();
    void Name(std::string_view name);
    void EndObject();

    // A part of the object that is being put together, as it is: members with their separators.
    void AppendMembers(std::string_view text) {
        text_.append(text);
        isFirst_ = false;
        lineIsStarted_ = false;
    }

    std::size_t Size() const { return text_.size(); }

    // The text so far, and since the last call of ForgetPart.
    std::string_view Part() const { return text_; }
    void ForgetPart() { text_.clear(); }

    // The text, without a newline at its end. The object is of no use any more.
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

// The document as text, without a newline at its end; only its beginning, but more than `most`
// bytes, when it is longer than that.
std::string JsonToString(const Json::Value &value, std::size_t most = std::string::npos);

} // namespace kest

#endif
