#include "ctl/check/diagnostic.h"

#include "base/json_members.h"

#include <json/writer.h>
#include <memory>
#include <sstream>
#include <utility>

namespace kest::ctl {

namespace {

// Creating a writer takes longer than writing most values, so it is created once.
Json::StreamWriter &OneLineWriter() {
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    return *writer;
}

} // namespace

Hint Expected(const std::string &values) {
    return {"expected", values};
}

Hint Advice(const std::string &advice) {
    return {"write", advice};
}

std::string MessageWithHint(const Diagnostic &diagnostic) {
    if (diagnostic.hint.text.empty())
        return diagnostic.message;
    return diagnostic.message + "; " + diagnostic.hint.label + ": " + diagnostic.hint.text;
}

std::string Excerpt(const Json::Value &value) {
    constexpr std::size_t most = 60; // bytes
    const std::string ellipsis = "...";
    std::ostringstream stream;
    OneLineWriter().write(value, &stream);
    std::string text = stream.str();
    if (text.size() <= most)
        return text;
    std::size_t end = most - ellipsis.size();
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
        --end; // do not split a UTF-8 character
    return text.substr(0, end) + ellipsis;
}

std::string Quoted(const std::string &text) {
    return Excerpt(Json::Value(text));
}

CheckedDefinition::CheckedDefinition(const Json::Value &written, const Json::Value &config,
                                     const JsonPositions &positions)
    : written_(written), config_(config), positions_(positions) {}

void CheckedDefinition::Add(Severity severity, const DiagnosticDetails &details) {
    Diagnostic diagnostic;
    const bool isWritten = written_.isObject() && written_.isMember(details.member);
    const Json::Value &value = isWritten ? Member(written_, details.member) : written_;
    diagnostic.position = details.position.value_or(positions_.Of(value));
    diagnostic.severity = severity;
    diagnostic.member = details.member;
    if (details.found)
        diagnostic.found = *details.found;
    else if (isWritten || details.member.empty())
        diagnostic.found = Excerpt(value);
    diagnostic.hint = details.hint;
    diagnostic.message = details.message;
    diagnostics_.push_back(std::move(diagnostic));
}

} // namespace kest::ctl
