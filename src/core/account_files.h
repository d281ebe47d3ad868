// Account directories and the job files in them. An account directory may lie wherever root has
// linked it to, and what lies in it is its account's to arrange: everything is learnt from the
// directory once it is open, and is read with nothing but the account's own rights.

#ifndef CORE_ACCOUNT_FILES_H
#define CORE_ACCOUNT_FILES_H

#include "base/descriptor.h"
#include "core/job_files.h"
#include "job/cronjob.h"
#include "platform/json_file.h"

#include <cstddef>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace kest {

// Opens whatever `path` leads to, only to name it and what lies in it: a device or a pipe is not
// opened by it. Returns none with errno set on failure.
Descriptor OpenForNaming(const std::string &path);

// Whether `path` is a symbolic link. errno is left as it was.
bool IsLink(const std::string &path);

// Whether a directory of this status may be an account directory. One of root's that others may
// write to may not: its jobs would be root's, and whoever can write to it would have put them
// there. Where the way to it is a link, `isLinked`, the account of the link's target can lead it on
// to any directory, so that one of root's, and one that anybody but its owner may write to, may not
// either.
bool MayBeAccountDirectory(const struct stat &status, bool isLinked);

// An entry of an account directory.
struct AccountFile {
    std::string name;
    // Why it was not read, 0 when it was: an errno, EDQUOT where the quota does not admit it.
    int error = 0;
    std::string text;
};

// What an account directory holds, as far as the quota of its account admits, and the first of what
// it does not.
struct AccountFiles {
    std::vector<AccountFile> files; // in byte order of their names
    std::size_t unread = 0;         // further entries, of later names
    bool more = false;              // there are even more than that
};

// An account during a load, in which it has one quota for all of its directories.
struct AccountLoad {
    JobUser account;
    AccountQuota quota;
    LeftOut leftOut;
    bool failed = false; // a directory of it could not be read: no other one is waited for
};

enum class AccountReading {
    Done,
    NotOpened, // as a directory, by its account
    Failed     // or it took longer than ten seconds
};

// Lists what lies in `directory`, a descriptor that OpenForNaming returned, as far as `quota`, what
// the account has left, admits. Returns false with errno set when that cannot be done.
bool ListAccountFiles(int directory, const AccountQuota &quota, AccountFiles &files);

// Reads the file `path`, looked up in `directory`, into `file` as far as it is one and `left`
// admits it, and charges it.
void ReadAccountFile(int directory, const std::string &path, AccountQuota &left, AccountFile &file);

// Lists and reads what lies in `directory` in a process of its own that has taken on `account` for
// good, so that it is done with its rights. Nothing is taken of `quota`. That process is gone when
// the call returns; for root there is none. Unless it is done, `files` is unspecified, and errno
// tells why.
AccountReading ReadAsAccount(int directory, const JobUser &account, const AccountQuota &quota,
                             AccountFiles &files);

// Parses the text of a file that was read and charges the file and its jobs. Returns 0, or an errno
// as in AccountFile with `document` null.
int ParseAccountFile(AccountFile &file, AccountQuota &quota, JsonOrigin &origin,
                     Json::Value &document);

} // namespace kest

#endif
