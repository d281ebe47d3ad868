// Staging: copying the programs of jobs into the runtime directory.
//
// The copy program runs with the staged path as its target, but in a mount namespace in which the
// runtime directory is a work directory of its own. A copy leaves that directory only as a finished
// regular file or link with its final owner and mode, and is renamed over the copy before it, so
// that there is always one that can be run. Where a mount namespace cannot be had, the runtime
// directory itself is closed to everybody else while a load lasts.

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

// One load's way into the runtime directory. Its processes end with it.
class Staging {
public:
    // What can fail when a copy is put into place. errno is set.
    enum class Step : unsigned char { None, Stat, Chown, Chmod, Rename };

    // A copy in the making is given up when `stopRequested` becomes true.
    explicit Staging(const std::atomic<bool> &stopRequested);
    Staging(const Staging &) = delete;
    Staging &operator=(const Staging &) = delete;
    ~Staging();

    // Copies the program at `source`, with the rights of `account` or, when it is null, of root,
    // and keeps the copy for PutInPlace. Takes ten seconds at most, and all copies of one account
    // in one load half a minute and a quarter of the file system. What an account may run but not
    // read becomes a link to it.
    ProgramCopy Copy(const std::string &name, const std::string &source, const JobUser *account);

    // Gives the latest copy to `user`, with mode 0700, and makes it the staged program `name`. The
    // target of a link keeps its owner and mode. Returns the step that failed; the copy before it
    // is then still there, unless a link of root's that leads nowhere has replaced it (Stat).
    Step PutInPlace(const std::string &name, const JobUser &user);

    // Removes the staged programs for which `isUnused` returns true.
    void Remove(const std::function<bool(const std::string &name)> &isUnused);

private:
    // Where an account's programs are copied, and by whom.
    struct Workshop {
        Descriptor directory; // none: the runtime directory itself
        gid_t group = 0;      // that may then make entries there
        std::unique_ptr<Copier> copier;
    };
    // What an account has used up.
    struct Account {
        unsigned workshops = 0;
        std::uint64_t bytes = 0;
    };

    ProgramCopy TryCopy(const std::string &name, const std::string &source, const JobUser *account);
    Workshop *WorkshopFor(const JobUser *account);
    Workshop *WorkshopOfAccount(const JobUser &account);
    Workshop *WorkshopOfRoot();
    void OpenWorkshop(Workshop &workshop, const JobUser *account);
    bool OpenInNamespace(Workshop &workshop, const JobUser *account);
    void CloseRuntimeDirectory(gid_t group);
    bool MoveToTaken(int from, const std::string &name);
    bool TakeIn(const Workshop &workshop, const std::string &name, const JobUser *account);
    bool IsProgramOf(const JobUser *account);
    Step GiveTo(const JobUser &user) const;
    bool ReplaceProgram(const std::string &name);
    void Clear(const Descriptor &directory, const std::string &name);

    const std::atomic<bool> &stopRequested_;
    Descriptor runtime_; // the runtime directory
    Descriptor area_;    // the directory in it that only root can enter
    int areaError_ = 0;  // why there is none: errno
    bool isClosed_ = false;
    Workshop ofRoot_;
    Workshop ofAccount_; // of the account that asked last
    uid_t account_ = 0;
    std::map<uid_t, Account> accounts_;
    std::uint64_t mostBytes_ = std::numeric_limits<std::uint64_t>::max(); // of an account's copies
    unsigned leftOver_ = 0;
    Descriptor copy_; // the latest one, unless it is a link
    int targetError_ = 0;
    bool isOfAccount_ = false;
};

} // namespace kest

#endif
