// What a job definition must look like, and what is written into it when the author left it out.

#ifndef JOB_DEFINITION_H
#define JOB_DEFINITION_H

#include <cstdint>
#include <json/value.h>

// The rules that a job document's "config" must satisfy, in order. Returns the text of the first
// one that is broken, null when all hold.
const char *FirstBrokenRule(const Json::Value &document);

// Writes the defaults for what is absent: `now`, in seconds since the epoch, as the document's
// "startup"; "assure_execute", "assure_execute_action" and "run_on_passive" into its "config".
// The document has passed the rules.
void WriteDefaults(Json::Value &document, std::int64_t now);

#endif
