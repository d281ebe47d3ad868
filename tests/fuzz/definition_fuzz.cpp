// Feeds a job file to the reader and each definition in it to the job model. Beyond that nothing is
// thrown: what the reader takes survives being saved, the schedule of a job lies in its fields and
// decides alone when the job is due, and an accepted job is accepted again, unchanged, when its
// saved document comes back at the next start.

#include "core/json_contains.h"
#include "job/json_members.h"
#include "platform/json_text.h"
#include "tests/fuzz/support/checks.h"

namespace {

void TryDefinition(const Json::Value &definition) {
    Json::Value document;
    document["config"] = definition;
    CronJob job(document);
    TryJob(job);
    if (!job.valid)
        return;
    Require(JsonContains(definition, Member(job.Document(), "config")), "what was defined stays");
    Json::Value saved;
    Require(ReadDocument(JsonToString(job.Document()), kOwnFileLimits, saved) &&
                saved == job.Document(),
            "a job's document is read back the same");
    const CronJob restarted(saved);
    Require(restarted.valid && restarted.Document() == saved, "a saved job comes back unchanged");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Json::Value document;
    if (!ReadDocument(StartInput(data, size), kJobFileLimits, document))
        return 0;
    TryDefinition(document);
    if (document.isArray())
        for (const Json::Value &definition : document)
            TryDefinition(definition);
    CronJob whole(document); // as it would stand in a runtime document
    TryJob(whole);
    return 0;
}
