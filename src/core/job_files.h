// Job files: their places, their quotas, and the names of the jobs in them.

#ifndef CORE_JOB_FILES_H
#define CORE_JOB_FILES_H

#include "base/paths.h"
#include "platform/json_file.h"

#include <array>
#include <cstddef>
#include <json/value.h>
#include <string>

namespace kest {

// The four sources of job files, in the order in which they are read.
struct JobSource {
    const char *label;
    const char *directory;
    bool perAccount;     // one subdirectory per account, instead of job files
    const char *failure; // the message when the directory itself cannot be read
};
constexpr std::array<JobSource, 4> kJobSources{{
    {"builtin", kBuiltinJobs, false, "js built-in job (/usr/kest/share/kestcron.d) loaded failed"},
    {"builtin-dyn", kBuiltinDynamicJobs, false,
     "js built-in dynamic job (/usr/kest/etc/kestcron.d) loaded failed"},
    {"pkg", kPackageJobs, false, "js pkg job (/usr/local/etc/kestcron.d) loaded failed"},
    {"pkg_nonroot", kAccountJobs, true,
     "js ser job (/usr/local/etc/kestcron_nonroot.d) loaded failed"},
}};

// Package authors write job files.
constexpr JsonLimits kJobFileLimits{std::size_t{1} << 20, 64};

// A directory of job files.
struct JobDirectory {
    std::string path;
    std::string label;
    std::string account; // of an account directory: its jobs always run as this account
};

// Whether a directory entry with this name is read: hidden entries are not.
bool IsJobFileName(const std::string &name);

// The remaining quota of one account for all its job files. It starts at the size limit of one job
// file, so that no account can make the daemon use memory, copy programs or log errors without
// bound. Files are charged in the order in which they are read. A file that does not fit is skipped
// as a whole; a smaller one after it may still fit.
struct AccountQuota {
    std::size_t bytes = std::size_t{1} << 20;         // of text
    std::size_t documentBytes = std::size_t{4} << 20; // of the runtime document
};
// Each entry of a directory and each job is charged at least this many bytes.
constexpr std::size_t kLeastCharge = 1024;

// Charges an entry of `size` bytes, 0 when it could not be read. Returns false when the quota is
// too small; the entry is then charged with the least charge, as far as the quota allows.
bool ChargeFile(AccountQuota &quota, std::size_t size);

// Charge the jobs of a file of `size` bytes, which was charged already, or their size in the
// runtime document. Each returns false and charges nothing when they do not fit.
bool ChargeJobs(AccountQuota &quota, std::size_t size, std::size_t jobs);
bool ChargeDocument(AccountQuota &quota, std::size_t documentBytes);

// The names of the entries that exceed the quota of an account, for a single message.
class LeftOut {
public:
    static constexpr std::size_t kMostNames = 10;

    void Add(const std::string &name);
    // Adds the number of further entries; `more`: there are more than `count`.
    void AddUnnamed(std::size_t count, bool more);
    bool Empty() const { return count_ == 0; }
    // "a, b and 5 more": the first ten names and how many follow.
    std::string Text() const;

private:
    std::string names_;
    std::size_t count_ = 0;
    std::size_t named_ = 0;
    bool more_ = false;
};

// The definitions in a job file: its array, or its single object, whose job is named "default". An
// empty array for any other document.
Json::Value DefinitionsOf(Json::Value document);
// The number of these definitions.
std::size_t CountOfDefinitions(const Json::Value &document);

// Sets the full job name of a definition and, for an account directory, its account. `fileBaseName`
// is that of its file. Returns false and changes nothing when the definition has no name.
bool NameDefinition(Json::Value &definition, const JobDirectory &directory,
                    const std::string &fileBaseName);

// The part of a job file's name that becomes part of its job names: the name without any ".conf" in
// it ("a.conf.conf" gives "a", "my.config" gives "myig").
std::string FileBaseName(const std::string &fileName);

// Joins `source`, `account` unless it is empty, `fileBaseName` and `name` with "-".
std::string FullJobName(const std::string &source, const std::string &account,
                        const std::string &fileBaseName, const std::string &name);

} // namespace kest

#endif
