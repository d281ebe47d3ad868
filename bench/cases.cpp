#include "bench/cases.h"

#include "base/descriptor.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "core/job_files.h"
#include "core/job_state.h"
#include "core/runtime_document.h"
#include "job/cronjob.h"
#include "job/schedule.h"
#include "log/memorylogger.h"
#include "platform/json_file.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <json/writer.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace kest {

// Required by the job model; nothing is written here.
KEST::MemoryLogger executionLog("/dev/null", "/dev/null", 1024, "/dev/null");

namespace {

constexpr int kJobs = 1000;

// Results go here, so that the compiler does not drop unused computations.
volatile std::size_t sink;

Json::Value Definition(int number) {
    Json::Value config;
    config["name"] = "pkg-backup-job" + std::to_string(10000 + number);
    config["user"] = "root";
    config["period"] = "crontab";
    config["crontab"] = "15,45 ~ 31 2 *"; // never due, like most jobs in most minutes
    config["cmd"] = "/usr/bin/backup --quiet /var/lib/data";
    return config;
}

CronJob Job(int number) {
    Json::Value document;
    document["config"] = Definition(number);
    CronJob job(std::move(document));
    for (const std::string &key : FieldKeys())
        job.GenerateFieldSchedule(key, 17);
    job.NoteLaunch(1700000000);
    job.SetStaged(true);
    return job;
}

std::vector<CronJob> Jobs(int count) {
    std::vector<CronJob> jobs;
    jobs.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        jobs.push_back(Job(i));
    return jobs;
}

std::vector<CronJob> &TheJobs() {
    static std::vector<CronJob> jobs = Jobs(kJobs);
    return jobs;
}

// --- Cycle --------------------------------------------------------------------------------------

void CheckDue() {
    for (CronJob &job : TheJobs())
        sink = job.CheckTrigger() ? 1 : 0;
}

// The same, by comparing the values of the schedule.
void CheckDueByLookUp() {
    const std::time_t now = std::time(nullptr);
    const std::array<std::int32_t, 5> fields = FieldsOf(*std::localtime(&now));
    for (const CronJob &job : TheJobs()) {
        bool due = true;
        for (std::size_t i = 0; i < fields.size() && due; ++i)
            due = Admits(AdmittedBits(job.GetScheduleValues(FieldKeys()[i])), fields[i]);
        sink = due ? 1 : 0;
    }
}

void Classify() {
    for (const CronJob &job : TheJobs())
        sink = static_cast<std::size_t>(StateOf(StateInputOf(job, false, false)));
}

// --- Load ---------------------------------------------------------------------------------------

void DrawSchedules() {
    for (CronJob &job : TheJobs())
        for (const std::string &key : FieldKeys())
            job.GenerateFieldSchedule(key, 17);
}

void MakeJobs() {
    static const Json::Value definition = Definition(0);
    for (int i = 0; i < 100; ++i) {
        Json::Value document;
        document["config"] = definition;
        sink = CronJob(std::move(document)).valid ? 1 : 0;
    }
}

void CopyDefinitions() {
    static const Json::Value definition = Definition(0);
    for (int i = 0; i < 100; ++i) {
        Json::Value document;
        document["config"] = definition;
        sink = document.size();
    }
}

const std::vector<Json::Value> &TheConfigs() {
    static const std::vector<Json::Value> configs = [] {
        std::vector<Json::Value> all;
        for (const CronJob &job : TheJobs())
            all.push_back(job.Config());
        return all;
    }();
    return configs;
}

void Compare() {
    for (const Json::Value &config : TheConfigs())
        sink = JsonContains(config, config) ? 1 : 0;
}

void CompareByEquality() {
    for (const Json::Value &config : TheConfigs())
        sink = config == config ? 1 : 0; // NOLINT(misc-redundant-expression)
}

// A temporary directory of this process in /dev/shm.
class Scratch {
public:
    Scratch() {
        std::string name = "/dev/shm/kestcrond-bench-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("cannot create a directory in /dev/shm");
        path_ = name;
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

const Scratch &TheScratch() {
    static const Scratch scratch;
    return scratch;
}

void ReadJobFile() {
    static const std::string path = [] {
        std::string file = TheScratch().File("job.conf");
        JsonToFile(JsonToString(Definition(0)), file, Durability::Process);
        return file;
    }();
    for (int i = 0; i < 100; ++i) {
        Json::Value definition;
        sink = JsonFromFile(path, definition, kJobFileLimits) ? 1 : 0;
    }
}

// --- Save ---------------------------------------------------------------------------------------

void Render() {
    for (const CronJob &job : TheJobs()) {
        JsonText text;
        job.AppendTo(text);
        sink = text.Size();
    }
}

void RenderByLibrary() {
    Json::StreamWriterBuilder library;
    library["commentStyle"] = "None";
    library["emitUTF8"] = true;
    for (const CronJob &job : TheJobs())
        sink = Json::writeString(library, job.Document()).size();
}

void Save(const std::vector<CronJob> &jobs) {
    const auto write = [&](const JsonSink &to) { JobsToJson(jobs, JobsShown::All, to); };
    if (!JsonToFile(write, TheScratch().File("runtime"), Durability::Process))
        throw std::runtime_error("the runtime document cannot be saved");
}

void WriteAsMuch(const std::string &text) {
    const std::string path = TheScratch().File("bytes");
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file || !WriteAll(file.Get(), text))
        throw std::runtime_error("the bytes cannot be written");
}

void AddSaves(std::vector<Case> &cases, int count) {
    // Live as long as the program, like the jobs of the daemon.
    static std::vector<std::vector<CronJob>> lists;
    static std::vector<std::string> texts;
    lists.reserve(2);
    texts.reserve(2);
    const std::vector<CronJob> &jobs = lists.emplace_back(Jobs(count));
    std::string &text = texts.emplace_back();
    JobsToJson(jobs, JobsShown::All, [&](std::string_view part) { text += part; });
    const std::string size = std::to_string(count);
    cases.push_back({"save_" + size, count, [&jobs] { Save(jobs); }, false});
    cases.push_back({"write_bytes_of_" + size, count, [&text] { WriteAsMuch(text); }, true});
}

std::vector<Case> MakeCases() {
    std::vector<Case> cases{
        {"due_check", kJobs, CheckDue, false},
        {"due_check_by_look_up", kJobs, CheckDueByLookUp, true},
        {"classify", kJobs, Classify, false},
        {"draw_schedule", kJobs, DrawSchedules, false},
        {"definition_to_job", 100, MakeJobs, false},
        {"definition_copied", 100, CopyDefinitions, true},
        {"json_contains", kJobs, Compare, false},
        {"json_equals", kJobs, CompareByEquality, true},
        {"read_job_file", 100, ReadJobFile, false},
        {"render", kJobs, Render, false},
        {"render_by_library", kJobs, RenderByLibrary, true},
    };
    AddSaves(cases, 1000);
    AddSaves(cases, 10000);
    return cases;
}

} // namespace

const std::vector<Case> &Cases() {
    static const std::vector<Case> cases = MakeCases();
    return cases;
}

} // namespace kest
