// Job files: where they lie, and how what is written in them becomes definitions.

#ifndef CORE_JOB_FILES_H
#define CORE_JOB_FILES_H

#include "platform/json_file.h"

#include <array>
#include <cstddef>
#include <json/value.h>
#include <string>

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

// Takes what a file just read needs, its `size` in bytes or kRoomOfJob for each of its jobs if that
// is more, from what the next file of the directory may have. All files of an account together have
// the room of one, so that no account can make the daemon grow, or copy programs, without end.
// Returns whether there was so much room; if not, the file is refused.
bool TakeRoom(JsonLimits &room, const JobDirectory &directory, std::size_t size, std::size_t jobs);
constexpr std::size_t kRoomOfJob = 1024;

// The definitions in a job file: its array, or its one object, which is named after the file alone.
// An empty array for any other document.
Json::Value DefinitionsOf(Json::Value document);

// Gives the definition its full job name, and the account of a package account's directory.
// `fileBaseName` is that of its file. Returns false and changes nothing when it has no name to
// begin with.
bool NameDefinition(Json::Value &definition, const JobDirectory &directory,
                    const std::string &fileBaseName);

#endif
