// Passes a job file to the reader and each definition in it to the job model. No exception is
// thrown; an accepted document survives a save; the schedule of a job has values of its fields, and
// only the schedule determines when the job is due; and an accepted job is accepted again,
// unchanged, from its saved document. Faults are the same whatever their limit, and refer to the
// text of the definition.

#include "base/json_members.h"
#include "base/json_text.h"
#include "core/job_files.h"
#include "job/definition.h"
#include "tests/fuzz/support/checks.h"

#include <algorithm>
#include <vector>

namespace kest {

namespace {

bool AreSame(const DefinitionFault &one, const DefinitionFault &other) {
    return one.kind == other.kind && one.member == other.member && one.rule == other.rule &&
           one.number == other.number && one.offset == other.offset && one.text == other.text &&
           one.item.fault == other.item.fault;
}

// Whether the fault refers to the right place of the definition.
bool IsInPlace(const DefinitionFault &fault, const Json::Value &definition) {
    using Kind = DefinitionFault::Kind;
    if (fault.kind == Kind::Item)
        return TextMember(definition, "crontab")
                   .compare(fault.offset, fault.text.size(), fault.text) == 0;
    if (fault.kind == Kind::FieldCount)
        return TextMember(definition, "crontab") == fault.text && fault.number != 5;
    if (fault.kind == Kind::Argument)
        return fault.number < Member(definition, "cmd_list").size();
    return true;
}

void TryFaults(const Json::Value &definition) {
    const std::vector<DefinitionFault> faults = ParseDefinition(definition).faults;
    for (const std::size_t most : {std::size_t{1}, std::size_t{3}}) {
        const std::vector<DefinitionFault> first = ParseDefinition(definition, most).faults;
        Require(first.size() == std::min(most, faults.size()) &&
                    std::equal(first.begin(), first.end(), faults.begin(), AreSame),
                "a limit does not change the first faults");
    }
    for (const DefinitionFault &fault : faults)
        Require(IsInPlace(fault, definition), "a fault refers to its place");
}

void TryDefinition(const Json::Value &definition) {
    TryFaults(definition);
    Json::Value document;
    document["config"] = definition;
    CronJob job(document);
    TryJob(job);
    std::vector<DefinitionFault> faults;
    const CronJob silent(document, faults);
    Require(silent.valid == job.valid && faults.empty() == job.valid,
            "a job is valid if its definition has no faults");
    if (!job.valid)
        return;
    Require(JsonContains(definition, job.Config()), "the definition is kept");
    Json::Value saved;
    Require(ReadDocument(JsonToString(job.Document()), kOwnFileLimits, saved) &&
                saved == job.Document(),
            "the document of a job is read back unchanged");
    const CronJob restarted(saved);
    Require(restarted.valid && restarted.Document() == saved, "a saved job is restored unchanged");
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
    CronJob whole(document); // as an entry of a runtime document
    TryJob(whole);
    return 0;
}

} // namespace kest
