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

std::size_t DocumentSize(const std::map<std::string, CronJob> &jobs, std::size_t most) {
    // Numbers and their names that are yet to come, each in a line of its own.
    constexpr std::size_t lineOfValue = sizeof "\n\t\t\t\t\t-1," - 1;
    constexpr std::size_t otherLines = 512;
    std::size_t toCome = 0;
    JsonText text(most);
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const auto &[name, job] : jobs) {
        text.Name(name);
        text.Append(job.Document());
        toCome += otherLines;
        for (const auto &[key, items] : job.cronFields)
            toCome += items.size() * lineOfValue;
    }
    return text.Take().size() + toCome;
}
