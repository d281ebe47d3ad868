#include "core/runtime_document.h"

#include "platform/json_text.h"

#include <algorithm>
#include <functional>
#include <iterator>

std::string RuntimeDocument(const std::vector<CronJob> &jobs, const std::vector<CronJob> &more) {
    if (jobs.empty() && more.empty())
        return "{}";
    std::vector<std::reference_wrapper<const CronJob>> all;
    all.reserve(jobs.size() + more.size());
    std::merge(
        jobs.begin(), jobs.end(), more.begin(), more.end(), std::back_inserter(all),
        [](const CronJob &left, const CronJob &right) { return left.Name() < right.Name(); });
    JsonText text;
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const CronJob &job : all) {
        text.Name(job.Name());
        text.Append(job.Document());
    }
    text.EndObject();
    text.EndObject();
    return text.Take();
}
