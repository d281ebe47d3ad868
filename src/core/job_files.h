// Job files: where they lie, and how what is written in them becomes definitions.

#ifndef CORE_JOB_FILES_H
#define CORE_JOB_FILES_H

#include <array>
#include <cstddef>
#include <json/value.h>
#include <string>

namespace kest {

// The four places that job files come from, in the order in which they are read.
struct JobSource {
    const char *label;
    const char *directory;
    bool perAccount;     // one subdirectory per account, instead of job files
    const char *failure; // what is said when the directory as a whole cannot be read
};
constexpr std::array<JobSource, 4> kJobSources{{
    {"builtin", "/usr/kest/share/kestcron.d", false,
     "js built-in job (/usr/kest/share/kestcron.d) loaded failed"},
    {"builtin-dyn", "/usr/kest/etc/kestcron.d", false,
     "js built-in dynamic job (/usr/kest/etc/kestcron.d) loaded failed"},
    {"pkg", "/usr/local/etc/kestcron.d", false,
     "js pkg job (/usr/local/etc/kestcron.d) loaded failed"},
    {"pkg_nonroot", "/usr/local/etc/kestcron_nonroot.d", true,
     "js ser job (/usr/local/etc/kestcron_nonroot.d) loaded failed"},
}};

// A directory of job files.
struct JobDirectory {
    std::string path;
    std::string label;
    std::string account; // of a package account: its jobs run as that, whatever they say
};

// Whether a directory entry of this name is read: hidden ones are not.
bool IsJobFileName(const std::string &name);

// What the job files of one account may still take, wherever they lie. It begins as much as one
// file of any other source may have, so that no account can make the daemon grow, copy programs or
// log errors without end. Files are charged in the order in which they are read; one that does not
// fit is left out as a whole, and a smaller one behind it may still fit.
struct AccountQuota {
    std::size_t bytes = std::size_t{1} << 20;         // of text
    std::size_t documentBytes = std::size_t{4} << 20; // of the runtime document
};
// Each entry of a directory, and each job, counts as at least this many bytes of text.
constexpr std::size_t kLeastCharge = 1024;

// Charges an entry of `size` bytes, 0 when it could not be read. Returns false when there is not so
// much left; it is then charged as an entry, as far as anything is left.
bool ChargeFile(AccountQuota &quota, std::size_t size);

// Charges the jobs of a file of `size` bytes, which is charged itself already, or what they take in
// the runtime document. Each returns false and charges nothing when they do not fit.
bool ChargeJobs(AccountQuota &quota, std::size_t size, std::size_t jobs);
bool ChargeDocument(AccountQuota &quota, std::size_t documentBytes);

// Names of what the quota of an account leaves out, for one message of all of it.
class LeftOut {
public:
    static constexpr std::size_t kMostNames = 10;

    void Add(const std::string &name);
    // What comes behind names that were added; `more`: there is even more than that.
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

// The definitions in a job file: its array, or its one object, which is named after the file alone.
// An empty array for any other document.
Json::Value DefinitionsOf(Json::Value document);
// How many those are.
std::size_t CountOfDefinitions(const Json::Value &document);

// Gives the definition its full job name, and the account of a package account's directory.
// `fileBaseName` is that of its file. Returns false and changes nothing when it has no name to
// begin with.
bool NameDefinition(Json::Value &definition, const JobDirectory &directory,
                    const std::string &fileBaseName);

// The part of a job file's name that goes into its jobs' names: every ".conf" is taken out,
// wherever it stands ("a.conf.conf" gives "a", "my.config" gives "myig").
std::string FileBaseName(const std::string &fileName);

// The prefix and the name joined with "-": `source`, `account` unless it is empty, `fileBaseName`,
// `name`.
std::string FullJobName(const std::string &source, const std::string &account,
                        const std::string &fileBaseName, const std::string &name);

} // namespace kest

#endif
