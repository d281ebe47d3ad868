// Staging: copying the programs of jobs into the runtime directory.
//
// The copy program runs with the staged path as its target, but in a mount namespace in which the
// runtime directory is a work directory of its own. A copy leaves this directory only as a complete
// regular file or link with its final owner and mode, and is renamed over the previous copy, so
// that a copy that can be run always exists. Without mount namespaces, the runtime directory itself
// is closed to all other accounts during a load.

#ifndef JOB_STAGING_H
#define JOB_STAGING_H

#include "job/copier.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>

namespace kest {

// Stages the programs of one load. The destructor ends its helper processes.
class Staging {
public:
    // The step that failed when a copy was put into place. errno is set.
    enum class Step : unsigned char { None, Stat, Chown, Chmod, Rename };

    // Cancels the current copy when `stopRequested` becomes true.
    explicit Staging(const std::atomic<bool> &stopRequested);
    Staging(const Staging &) = delete;
    Staging &operator=(const Staging &) = delete;
    ~Staging();

    // Copies the program at `source`, with the rights of `account` or, when it is null, of root,
    // and keeps the copy for PutInPlace. A copy takes at most ten seconds; all copies of one
    // account in one load take at most half a minute and a quarter of the file system. A program
    // that the account may execute but not read becomes a link.
    ProgramCopy Copy(const std::string &name, const std::string &source, const JobUser *account);

    // Gives the latest copy to `user`, with mode 0700, and makes it the staged program `name`. The
    // target of a link keeps its owner and mode. Returns the step that failed; the previous copy
    // then still exists, unless a dangling link of root's has replaced it (Stat).
    Step PutInPlace(const std::string &name, const JobUser &user);

    // Removes the staged programs for which `isUnused` returns true.
    void Remove(const std::function<bool(const std::string &name)> &isUnused);

private:
    // The work directory and helper process of an account.
    struct WorkArea {
        Descriptor directory; // empty: the runtime directory itself
        gid_t group = 0;      // that may then create entries there
        std::unique_ptr<Copier> copier;
    };
    // The resources that an account has used.
    struct Account {
        unsigned workAreas = 0;
        std::uint64_t bytes = 0;
    };

    ProgramCopy TryCopy(const std::string &name, const std::string &source, const JobUser *account);
    WorkArea *WorkAreaFor(const JobUser *account);
    WorkArea *WorkAreaOfAccount(const JobUser &account);
    WorkArea *WorkAreaOfRoot();
    void OpenWorkArea(WorkArea &workArea, const JobUser *account);
    bool OpenInNamespace(WorkArea &workArea, const JobUser *account);
    void CloseRuntimeDirectory(gid_t group);
    bool MoveToArea(int from, const std::string &name);
    bool TakeIn(const WorkArea &workArea, const std::string &name, const JobUser *account);
    bool IsProgramOf(const JobUser *account);
    Step GiveTo(const JobUser &user) const;
    bool ReplaceProgram(const std::string &name);
    void Clear(const Descriptor &directory, const std::string &name);

    const std::atomic<bool> &stopRequested_;
    Descriptor runtime_; // the runtime directory
    Descriptor area_;    // the directory in it that only root can enter
    int areaError_ = 0;  // errno when area_ is empty
    bool isClosed_ = false;
    WorkArea ofRoot_;
    WorkArea ofAccount_; // of the latest account
    uid_t account_ = 0;
    std::map<uid_t, Account> accounts_;
    std::uint64_t mostBytes_ = std::numeric_limits<std::uint64_t>::max(); // of an account's copies
    unsigned leftOver_ = 0;
    Descriptor copy_; // the latest copy, unless it is a link
    int targetError_ = 0;
    bool isOfAccount_ = false;
};

} // namespace kest

#endif
