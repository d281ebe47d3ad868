#include "core/crondaemon.h"
#include "base/descriptor.h"
#include "base/json_members.h"
#include "core/account_files.h"
#include "core/job_files.h"
#include "core/runtime_document.h"
#include "job/account.h"
#include "log/error_log.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <iterator>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <utility>

namespace kest {

namespace {

std::string PathIn(const std::string &directory, const std::string &name) {
    return directory + "/" + name;
}

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

// Returns null, with a message, when the directory cannot be opened.
Directory OpenDirectory(const std::string &path) {
    Directory directory(opendir(path.c_str()), closedir);
    if (!directory)
        LOG_ERROR("open directory failed.");
    return directory;
}

// The names of the entries that are not hidden, in byte order.
std::vector<std::string> NamesIn(const Directory &directory) {
    std::vector<std::string> names;
    while (const dirent *entry = readdir(directory.get()))
        if (IsJobFileName(entry->d_name))
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

// Parses each definition and adds the accepted jobs to the job set. Returns false when any
// definition was rejected.
bool AddJobDefinitions(JobSet &jobSet, Json::Value definitions) {
    bool allAccepted = true;
    for (Json::Value &definition : definitions) {
        Json::Value document;
        document["config"] = std::move(definition);
        CronJob job(std::move(document));
        if (job.valid)
            jobSet.push_back(std::move(job));
        else
            allAccepted = false;
    }
    return allAccepted;
}

// The definitions in the document of a job file, with their full job names.
Json::Value NamedDefinitions(Json::Value document, const JobDirectory &directory,
                             const std::string &fileName) {
    const std::string base = FileBaseName(fileName);
    Json::Value definitions = DefinitionsOf(std::move(document));
    for (Json::Value &definition : definitions)
        if (!NameDefinition(definition, directory, base))
            LOG_ERROR("Job (%s) must have a name!", base.c_str());
    return definitions;
}

void LoadJobFile(JobSet &jobSet, const JobDirectory &directory, const std::string &fileName) {
    const std::string path = PathIn(directory.path, fileName);
    Json::Value document;
    if (!JsonFromFile(path, document, kJobFileLimits))
        LOG_ERROR("JSON file read error: %s", path.c_str());
    else if (!AddJobDefinitions(jobSet, NamedDefinitions(std::move(document), directory, fileName)))
        LOG_ERROR("Job JSON format error: %s", path.c_str());
}

// Returns false and adds nothing when the file exceeds the quota of the account.
bool LoadAccountFile(JobSet &jobSet, const JobDirectory &directory, AccountFile file,
                     AccountQuota &quota) {
    const std::string path = PathIn(directory.path, file.name);
    JsonOrigin origin;
    Json::Value document;
    if (const int error = ParseAccountFile(file, quota, origin, document)) {
        errno = error;
        if (error != EDQUOT)
            LOG_ERROR("JSON file read error: %s", path.c_str());
        return error != EDQUOT;
    }
    JobSet jobs;
    const bool allAccepted =
        AddJobDefinitions(jobs, NamedDefinitions(std::move(document), directory, file.name));
    SortByName(jobs);
    if (!ChargeDocument(quota, DocumentSize(jobs, quota.documentBytes)))
        return false;
    std::move(jobs.begin(), jobs.end(), std::back_inserter(jobSet));
    if (!allAccepted)
        LOG_ERROR("Job JSON format error: %s", path.c_str());
    return true;
}

// Each of these loads one directory and returns whether the directory could be read. Faulty files
// and jobs are reported and skipped.
bool LoadJobDirectory(JobSet &jobSet, const std::string &directory, const std::string &label) {
    KESTFSMkdirP(directory.c_str(), nullptr, 1, 0, 0, 0750);
    const Directory opened = OpenDirectory(directory);
    if (!opened)
        return false;
    for (const std::string &name : NamesIn(opened))
        LoadJobFile(jobSet, {directory, label, {}}, name);
    return true;
}

// Reads the directory `opened`, whatever its path leads to by now.
bool LoadUserJobDirectory(JobSet &jobSet, AccountLoad &load, int opened,
                          const JobDirectory &directory) {
    AccountFiles files;
    const AccountReading reading = ReadAsAccount(opened, load.account, load.quota, files);
    load.failed = reading == AccountReading::Failed;
    if (reading == AccountReading::NotOpened)
        LOG_ERROR("open directory failed.");
    if (reading != AccountReading::Done)
        return false;
    const std::string inSource = directory.path.substr(directory.path.rfind('/') + 1);
    for (AccountFile &file : files.files) {
        const std::string name = PathIn(inSource, file.name);
        if (!LoadAccountFile(jobSet, directory, std::move(file), load.quota))
            load.leftOut.Add(name);
    }
    load.leftOut.AddUnnamed(files.unread, files.more);
    return true;
}

} // namespace

JobSet CronDaemon::LoadSources() {
    JobSet jobSet;
    for (const JobSource &source : kJobSources) {
        const bool loaded = source.perAccount
                                ? LoadNonRootJobDirectories(jobSet, source.directory, source.label)
                                : LoadJobDirectory(jobSet, source.directory, source.label);
        if (!loaded)
            LOG_ERROR("%s", source.failure);
    }
    return jobSet;
}

bool CronDaemon::LoadNonRootJobDirectories(JobSet &jobSet, const std::string &directory,
                                           const std::string &label) {
    if (KESTFSMkdirP(directory.c_str(), nullptr, 1, 0, 0, 0755) != 0) {
        LOG_ERROR("create directory failed.");
        return false;
    }
    const Directory opened = OpenDirectory(directory);
    if (!opened)
        return false;
    // Watches before reading, so that a directory that is added meanwhile is either listed or
    // reported as an event.
    if (!AddWatch(directory)) {
        LOG_ERROR("Failed to register %s", directory.c_str());
        return false;
    }
    AccountLoads loads;
    for (const std::string &name : NamesIn(opened)) {
        // Each account may take ten seconds.
        if (stopRequested) {
            loadCancelled = true;
            break;
        }
        LoadAccount(jobSet, PathIn(directory, name), label, loads);
    }
    for (const auto &[uid, load] : loads)
        if (!load.leftOut.Empty())
            LOG_ERROR("Quota of %s exceeded, left out: %s", load.account.name.c_str(),
                      load.leftOut.Text().c_str());
    return true;
}

namespace {

// The account that owns `directory`, opened at `path`. Returns an invalid account, with a message,
// on failure.
JobUser OwnerOf(const Descriptor &directory, const std::string &path) {
    JobUser account;
    struct stat status {};
    if (!directory || fstat(directory.Get(), &status) == -1) {
        LOG_ERROR("stat error: %s", path.c_str());
        return account;
    }
    if (!MayBeAccountDirectory(status, IsLink(path))) {
        errno = EPERM;
        return account;
    }
    const passwd *owner = getpwuid(status.st_uid);
    if (owner == nullptr) {
        LOG_ERROR("get uid error: %d", static_cast<int>(status.st_uid));
        return account;
    }
    account = {true, owner->pw_name, owner->pw_uid, owner->pw_gid};
    return account;
}

} // namespace

void CronDaemon::LoadAccount(JobSet &jobSet, const std::string &path, const std::string &label,
                             AccountLoads &loads) {
    const Descriptor directory = OpenPath(path);
    const JobUser account = OwnerOf(directory, path);
    if (!account.valid) {
        LOG_ERROR("Failed to dir user: %s", path.c_str());
        return;
    }
    if (!AddWatch(path, directory.Get())) {
        LOG_ERROR("Failed to register %s", path.c_str());
        return;
    }
    AccountLoad &load = loads[account.uid];
    load.account = account;
    if (load.failed ||
        !LoadUserJobDirectory(jobSet, load, directory.Get(), {path, label, account.name}))
        LOG_ERROR("Failed to load %s config", path.c_str());
}

} // namespace kest
