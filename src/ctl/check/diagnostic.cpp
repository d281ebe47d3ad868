#include "ctl/check/diagnostic.h"

#include "base/json_members.h"

#include <json/writer.h>
#include <memory>
#include <sstream>
#include <utility>

namespace kest::ctl {

namespace {

// Made once: that takes longer than most values take to write.
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

std::string Excerpt(const Json::Value &value) {
    constexpr std::size_t most = 60; // bytes
    const std::string sign = "...";
    std::ostringstream stream;
    OneLineWriter().write(value, &stream);
    std::string text = stream.str();
    if (text.size() <= most)
        return text;
    std::size_t end = most - sign.size();
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
        --end; // never in the middle of a character
    return text.substr(0, end) + sign;
}

std::string Quoted(const std::string &text) {
    return Excerpt(Json::Value(text));
}

CheckedDefinition::CheckedDefinition(const Json::Value &written, const Json::Value &config,
                                     const JsonPlaces &places)
    : written_(written), config_(config), places_(places) {}

void CheckedDefinition::Add(Severity severity, const DiagnosticDetails &details) {
    Diagnostic diagnostic;
    const bool isWritten = written_.isObject() && written_.isMember(details.member);
    const Json::Value &value = isWritten ? Member(written_, details.member) : written_;
    diagnostic.place = details.place.value_or(places_.Of(value));
    diagnostic.severity = severity;
    diagnostic.member = details.member;
    if (details.found)
        diagnostic.found = *details.found;
    else if (isWritten || details.member.empty())
        diagnostic.found = Excerpt(value);
    diagnostic.allowed = details.allowed;
    diagnostic.message = details.message;
    diagnostics_.push_back(std::move(diagnostic));
}

} // namespace kest::ctl
