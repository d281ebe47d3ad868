#include "core/runtime_document.h"

#include "base/json_text.h"

#include <algorithm>

namespace kest {

void JobsToJson(const std::vector<CronJob> &jobs, JobsShown shown, const JsonSink &sink) {
    constexpr std::size_t partSize = std::size_t{64} << 10;
    const auto isShown = [&](const CronJob &job) {
        return shown == JobsShown::All || !job.waitsForProgram;
    };
    if (std::none_of(jobs.begin(), jobs.end(), isShown)) {
        sink("{}");
        return;
    }
    JsonText text;
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const CronJob &job : jobs) {
        if (!isShown(job))
            continue;
        text.Name(job.Name());
        job.AppendTo(text);
        if (text.Size() < partSize)
            continue;
        sink(text.Part());
        text.ForgetPart();
    }
    text.EndObject();
    text.EndObject();
    sink(text.Part());
}

std::size_t DocumentSize(const std::vector<CronJob> &jobs, std::size_t most) {
    // Lines of numbers and their names that are added later.
    constexpr std::size_t lineOfValue = sizeof "\n\t\t\t\t\t-1," - 1;
    constexpr std::size_t otherLines = 512;
    std::size_t toCome = 0;
    JsonText text(most);
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const CronJob &job : jobs) {
        text.Name(job.Name());
        job.AppendNewTo(text);
        toCome += otherLines;
        toCome += job.ItemCount() * lineOfValue;
        if (text.Size() > most)
            break;
    }
    return text.Take().size() + toCome;
}

} // namespace kest
