// Feeds a job file to the reader and each definition in it to the job model. Beyond that nothing is
// thrown: what the reader takes survives being saved, the schedule of a job lies in its fields and
// decides alone when the job is due, and an accepted job is accepted again, unchanged, when its
// saved document comes back at the next start.

#include "core/json_contains.h"
#include "job/json_members.h"
#include "tests/fuzz/support/checks.h"

namespace {

void TryDefinition(const Json::Value &definition) {
    Json::Value document;
    document["config"] = definition;
    CronJob job(document);
    TryJob(job);
    if (!job.valid)
        return;
    Require(JsonContains(definition, Member(job._jsJob, "config")), "what was defined stays");
    Json::Value saved;
    Require(ReadDocument(JsonToString(job._jsJob), kOwnFileLimits, saved) && saved == job._jsJob,
            "a job's document is read back the same");
    const CronJob restarted(saved);
    Require(restarted.valid && restarted._jsJob == saved, "a saved job comes back unchanged");
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
