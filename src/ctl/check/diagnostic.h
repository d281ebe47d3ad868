// Diagnostics about job files, and the definition that they are collected for.

#ifndef CTL_CHECK_DIAGNOSTIC_H
#define CTL_CHECK_DIAGNOSTIC_H

#include "ctl/check/json_positions.h"

#include <cstddef>
#include <json/value.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kest::ctl {

enum class Severity {
    Error,  // the daemon does not load the file or the job now, on this system
    Warning // it does, but probably not as intended
};

// What to write instead. A hint without text is absent.
struct Hint {
    const char *label = "";
    std::string text;
};
Hint Expected(const std::string &values); // shown as "expected: VALUES"
Hint Advice(const std::string &advice);   // shown as "write: ADVICE"

struct Diagnostic {
    std::string file;
    Position position;
    Severity severity = Severity::Error;
    std::string job;    // full name; empty for the file as a whole
    std::string member; // empty for the definition as a whole
    std::string found;  // JSON text, shortened; empty if the member is missing
    Hint hint;
    std::string message;
};

// "MESSAGE; expected: VALUES"
std::string MessageWithHint(const Diagnostic &diagnostic);

// The value as JSON text in one line, shortened to 60 bytes.
std::string Excerpt(const Json::Value &value);

// `text` as a JSON string, shortened likewise.
std::string Quoted(const std::string &text);

struct DiagnosticDetails {
    std::string member;
    std::string message;
    Hint hint = {};
    std::optional<Position> position = {}; // default: that of the member or definition
    std::optional<std::string> found = {}; // default: the value of the member
};

// A definition and the diagnostics about it.
class CheckedDefinition {
public:
    // `written` is the definition as written in the file, `config` as the daemon completes it. All
    // arguments must outlive the object.
    CheckedDefinition(const Json::Value &written, const Json::Value &config,
                      const JsonPositions &positions);

    const Json::Value &Written() const { return written_; }
    const Json::Value &Config() const { return config_; }
    const JsonPositions &Positions() const { return positions_; }

    void Add(Severity severity, const DiagnosticDetails &details);

    // The diagnostics so far; their file and job are not set.
    std::vector<Diagnostic> TakeDiagnostics() { return std::move(diagnostics_); }

private:
    const Json::Value &written_;
    const Json::Value &config_;
    const JsonPositions &positions_;
    std::vector<Diagnostic> diagnostics_;
};

} // namespace kest::ctl

#endif
