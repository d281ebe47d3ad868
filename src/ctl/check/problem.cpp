#include "ctl/check/problem.h"

#include "base/json_members.h"

#include <json/writer.h>
#include <memory>
#include <sstream>
#include <utility>

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

Subject::Subject(const Json::Value &written, const Json::Value &config, const JsonPlaces &places)
    : written_(written), config_(config), places_(places) {}

void Subject::Add(Severity severity, const Finding &finding) {
    Problem problem;
    const bool isWritten = written_.isObject() && written_.isMember(finding.member);
    const Json::Value &value = isWritten ? Member(written_, finding.member) : written_;
    problem.place = finding.place.value_or(places_.Of(value));
    problem.severity = severity;
    problem.member = finding.member;
    if (finding.found)
        problem.found = *finding.found;
    else if (isWritten || finding.member.empty())
        problem.found = Excerpt(value);
    problem.allowed = finding.allowed;
    problem.message = finding.message;
    problems_.push_back(std::move(problem));
}
