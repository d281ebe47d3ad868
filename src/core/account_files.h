// Account directories and the job files in them. Root may link an account directory to any place,
// and its account controls its content. Therefore the daemon opens the directory once, checks it by
// its descriptor, and reads it with the rights of the account only.

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

// Opens the object at `path` as a reference only (O_PATH): devices and pipes are not opened. On
// failure, returns an empty descriptor with errno set.
Descriptor OpenPath(const std::string &path);

// Whether `path` is a symbolic link. errno is unchanged.
bool IsLink(const std::string &path);

// Whether a directory with this status is acceptable as an account directory. A directory of root's
// that others can write to is not: its jobs would run as root, and others could place them there.
// When its path is a link (`isLinked`), the account of the link's target could redirect it to any
// directory; then a directory of root's is not acceptable either, nor one that others than its
// owner can write to.
bool MayBeAccountDirectory(const struct stat &status, bool isLinked);

// An entry of an account directory.
struct AccountFile {
    std::string name;
    // 0 when it was read, otherwise an errno value; EDQUOT when it exceeds the quota.
    int error = 0;
    std::string text;
};

// The content of an account directory within the quota of its account, and the first entries beyond
// it.
struct AccountFiles {
    std::vector<AccountFile> files; // in byte order of their names
    std::size_t unread = 0;         // the number of further entries, in name order
    bool more = false;              // there are more entries than were counted
};

// An account during a load. All its directories share one quota.
struct AccountLoad {
    JobUser account;
    AccountQuota quota;
    LeftOut leftOut;
    bool failed = false; // a directory of it could not be read: its others are skipped
};

enum class AccountReading {
    Done,
    NotOpened, // as a directory, by its account
    Failed     // or it took longer than ten seconds
};

// Lists the entries of `directory`, a descriptor from OpenPath, within the remaining `quota`
// of the account. Returns false with errno set on failure.
bool ListAccountFiles(int directory, const AccountQuota &quota, AccountFiles &files);

// Reads the file `path`, relative to `directory`, into `file` if it is a regular file within the
// quota `left`, and charges it.
void ReadAccountFile(int directory, const std::string &path, AccountQuota &left, AccountFile &file);

// Lists and reads the entries of `directory` in a helper process that has irrevocably taken on
// `account`. Does not charge `quota`. The process has ended when the call returns; for root no
// process is started. Unless the result is Done, `files` is unspecified and errno is set.
AccountReading ReadAsAccount(int directory, const JobUser &account, const AccountQuota &quota,
                             AccountFiles &files);

// Parses the text of a file that was read, and charges the file and its jobs. Returns 0, or an
// errno value as in AccountFile; `document` is then null.
int ParseAccountFile(AccountFile &file, AccountQuota &quota, JsonOrigin &origin,
                     Json::Value &document);

} // namespace kest

#endif
