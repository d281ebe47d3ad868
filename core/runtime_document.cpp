#include "core/runtime_document.h"

#include "platform/json_text.h"

std::string RuntimeDocument(const std::vector<CronJob> &jobs) {
    if (jobs.empty())
        return "{}";
    JsonText text;
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const CronJob &job : jobs) {
        text.Name(job.Name());
        text.Append(job.Document());
    }
    text.EndObject();
    text.EndObject();
    return text.Take();
}
