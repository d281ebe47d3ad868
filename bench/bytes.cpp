// Prints the size of a loaded job in bytes, and that of its document as JSON. Usage: job_bytes

#include "job/cronjob.h"
#include "log/memorylogger.h"

#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <string>
#include <vector>

namespace kest {

KEST::MemoryLogger executionLog("/dev/null", "/dev/null", 1024, "/dev/null");

namespace {

constexpr int kJobs = 1000;

std::size_t Used() {
    return mallinfo2().uordblks;
}

// A job as a load creates it from a file, with a command of two words.
CronJob Job(int number) {
    Json::Value document;
    Json::Value &config = document["config"];
    config["name"] = "pkg-backup-job" + std::to_string(10000 + number);
    config["user"] = "root";
    config["period"] = "crontab";
    config["crontab"] = "15 3 * * *";
    config["cmd"] = "/usr/bin/backup --quiet";
    CronJob job(std::move(document));
    for (const std::string &key : FieldKeys())
        job.GenerateFieldSchedule(key, 17);
    job.SetStaged(true);
    return job;
}

void Print(const std::string &part, std::size_t bytes) {
    std::printf("%-28s%7zu\n", part.c_str(), bytes / kJobs);
}

void PrintSizes() {
    Job(0); // creates objects that are created only once
    std::vector<CronJob> jobs;
    jobs.reserve(kJobs);
    const std::size_t before = Used();
    for (int i = 0; i < kJobs; ++i)
        jobs.push_back(Job(i));
    Print("a job on the heap", Used() - before);
    Print("and in the list", sizeof(CronJob) * kJobs);
    const std::size_t asObjects = Used();
    std::vector<Json::Value> documents;
    documents.reserve(kJobs);
    for (const CronJob &job : jobs)
        documents.push_back(job.Document());
    Print("its document as JSON", Used() - asObjects);
}

} // namespace

} // namespace kest

int main() {
    kest::PrintSizes();
    return 0;
}
