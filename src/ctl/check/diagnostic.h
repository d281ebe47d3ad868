// What there is to say of a job file, and the definition that is looked at for it.

#ifndef CTL_CHECK_DIAGNOSTIC_H
#define CTL_CHECK_DIAGNOSTIC_H

#include "ctl/check/json_places.h"

#include <cstddef>
#include <json/value.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kest::ctl {

enum class Severity {
    Error,  // the daemon refuses it
    Warning // the daemon takes it, but it is hardly meant so, or will not run
};

struct Diagnostic {
    std::string file;
    Place place;
    Severity severity = Severity::Error;
    std::string job;    // full name; empty: it is about the file
    std::string member; // empty: it is about the definition as a whole
    std::string found;  // as JSON, long ones cut; empty: nothing
    std::string allowed;
    std::string message;
};

// What is found as it is shown: JSON in one line, long ones cut.
std::string Excerpt(const Json::Value &value);

// `text` in quotation marks.
std::string Quoted(const std::string &text);

// What is to be said of a definition.
struct DiagnosticDetails {
    std::string member;
    std::string message;
    std::string allowed = {};
    std::optional<Place> place = {};       // otherwise that of the member, if it is written
    std::optional<std::string> found = {}; // otherwise the member, if it is written
};

// A definition that is looked at.
class CheckedDefinition {
public:
    // `written` is the definition as it stands in its file, `config` as the daemon judges it. All
    // outlive the object.
    CheckedDefinition(const Json::Value &written, const Json::Value &config,
                      const JsonPlaces &places);

    const Json::Value &Written() const { return written_; }
    const Json::Value &Config() const { return config_; }
    const JsonPlaces &Places() const { return places_; }

    void Add(Severity severity, const DiagnosticDetails &details);

    // What was added, without file and job.
    std::vector<Diagnostic> TakeDiagnostics() { return std::move(diagnostics_); }

private:
    const Json::Value &written_;
    const Json::Value &config_;
    const JsonPlaces &places_;
    std::vector<Diagnostic> diagnostics_;
};

} // namespace kest::ctl

#endif
