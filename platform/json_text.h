// JSON documents as indented text, byte for byte as the JSON library's own writer gives it, which
// takes three times as long. The text is ASCII: other characters become "\uXXXX", and bytes that
// are not UTF-8 become U+FFFD, so that names and texts with such bytes do not come back as they
// were.

#ifndef PLATFORM_JSON_TEXT_H
#define PLATFORM_JSON_TEXT_H

#include <cstddef>
#include <json/value.h>
#include <string>
#include <string_view>
#include <utility>

// Puts a text together from its outermost value inwards; a value that is large need not exist as a
// whole for it. Either one Append, or BeginObject, any number of Name and value in turn, EndObject.
class JsonText {
public:
    // A text that has become longer than `most` is not gone on with: it is of no use.
    explicit JsonText(std::size_t most = std::string::npos) : most_(most) {}

    void Append(const Json::Value &value);

    // An object of at least one member: `{}` is an empty value.
    void BeginObject();
    void Name(std::string_view name);
    void EndObject();

    // The text, without a newline at its end. The object is of no use any more.
    std::string Take() { return std::move(text_); }

private:
    void AppendArray(const Json::Value &array);
    bool AppendInOneLine(const Json::Value &array);
    void AppendObject(const Json::Value &object);
    void AppendQuoted(std::string_view text);
    void Open(char bracket);
    void Close(char bracket);
    void StartLine();

    std::size_t most_;
    std::string text_;
    std::size_t depth_ = 0;
    bool lineIsStarted_ = true; // the next value needs no line of its own
    bool isFirst_ = true;       // of its object
};

// The document as text, without a newline at its end; only its beginning, but more than `most`
// bytes, when it is longer than that.
std::string JsonToString(const Json::Value &value, std::size_t most = std::string::npos);

#endif
