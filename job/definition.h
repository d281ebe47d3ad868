// What a job definition must look like, and what is written into it when the author left it out.

#ifndef JOB_DEFINITION_H
#define JOB_DEFINITION_H

#include <array>
#include <cstdint>
#include <json/value.h>

// A rule that a definition must satisfy.
struct DefinitionRule {
    bool (*broken)(const Json::Value &config);
    const char *member; // the one that it is about; empty: the definition as a whole
    const char *text;
};

// The rules in their order.
const std::array<DefinitionRule, 7> &DefinitionRules();

// The text of the first rule that a job document's "config" breaks, null when all hold.
const char *FirstBrokenRule(const Json::Value &document);

// Writes the defaults for what is absent: `now`, in seconds since the epoch, as the document's
// "startup"; "assure_execute", "assure_execute_action" and "run_on_passive" into its "config".
// The document has passed the rules.
void WriteDefaults(Json::Value &document, std::int64_t now);

// The first of the two members that are converted, "assure_execute" and "run_on_passive", that
// cannot be; null when both can. Their defaults are written.
const char *FirstUnusableSetting(const Json::Value &config);

#endif
