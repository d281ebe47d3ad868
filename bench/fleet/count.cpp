#include "bench/fleet/count.h"

#include "core/launch.h"

#include <algorithm>
#include <numeric>

namespace kest {

Server::Server(std::int32_t maxDelay, Micros from, Micros to) : maxDelay_(maxDelay), from_(from) {
    for (Seconds &seconds : starts_)
        seconds.resize(static_cast<std::size_t>((to - from) / kSecond));
}

void Server::Take(const Launches &launches) {
    const Micros spacing = LaunchSpacing(maxDelay_, launches.jobs.count()) * kSecond;
    Micros start = launches.time;
    for (std::size_t job = 0; job < kJobs; ++job) {
        if (!launches.jobs[job])
            continue;
        TakeOne(job, start);
        start += spacing;
    }
}

void Server::TakeOne(std::size_t job, Micros time) {
    if (time < from_)
        return;
    const auto second = static_cast<std::size_t>((time - from_) / kSecond);
    if (second < starts_[job].size())
        ++starts_[job][second];
}

namespace {

std::vector<std::uint32_t> ByMinute(const std::vector<std::uint32_t> &seconds) {
    std::vector<std::uint32_t> minutes(seconds.size() / 60);
    for (std::size_t i = 0; i < seconds.size() / 60 * 60; ++i)
        minutes[i / 60] += seconds[i];
    return minutes;
}

Json::Value FiguresOf(const std::vector<std::uint32_t> &seconds) {
    const std::vector<std::uint32_t> minutes = ByMinute(seconds);
    const auto peak = std::max_element(minutes.begin(), minutes.end());
    const auto total = std::accumulate(minutes.begin(), minutes.end(), std::uint64_t{0});
    Json::Value figures;
    figures["total"] = Json::UInt64{total};
    figures["mean"] = static_cast<double>(total) / static_cast<double>(minutes.size());
    figures["peak"] = *peak;
    figures["peak_minute"] = Json::Int64{peak - minutes.begin()};
    figures["second"] = *std::max_element(seconds.begin(), seconds.end());
    return figures;
}

} // namespace

Server::Seconds Server::All() const {
    Seconds all(starts_[0].size());
    for (const Seconds &job : starts_)
        std::transform(all.begin(), all.end(), job.begin(), all.begin(), std::plus<>());
    return all;
}

Json::Value Server::Figures(const Jobs &jobs) const {
    Json::Value figures;
    for (std::size_t job = 0; job < kJobs; ++job)
        figures[jobs[job].word] = FiguresOf(starts_[job]);
    figures["all"] = FiguresOf(All());
    return figures;
}

Json::Value Server::Minutes() const {
    Json::Value minutes(Json::arrayValue);
    for (const std::uint32_t starts : ByMinute(All()))
        minutes.append(starts);
    return minutes;
}

} // namespace kest
