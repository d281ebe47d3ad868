#include "job/staging.h"

#include "base/errno_guard.h"
#include "job/runtime_directory.h"
#include "platform/kestcore.h"
#include "platform/kestrandom.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <limits>
#include <new>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kest {

namespace {

// Inside the runtime directory. No job has this name, because full job names begin with the label
// of a source.
constexpr const char *kArea = ".staging";
// Inside that.
constexpr const char *kTaken = "taken";
constexpr const char *kPrevious = "previous";

std::string PathInArea(const std::string &entry) {
    return StagedPath(kArea) + "/" + entry;
}

Descriptor OpenDirectoryAt(const Descriptor &directory, const std::string &name) {
    return Descriptor(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

using DirectoryList = std::unique_ptr<DIR, int (*)(DIR *)>;

DirectoryList ListOf(const Descriptor &directory, const std::string &name) {
    Descriptor listed = OpenDirectoryAt(directory, name);
    DirectoryList list(fdopendir(listed.Get()), closedir);
    if (list)
        listed.Release(); // closed with the list
    return list;
}

bool IsDotName(const std::string &name) {
    return name == "." || name == "..";
}

// Removes all entries of the directory `name` except directories, which it moves up beside `name`
// and adds to `moved`. Only one directory is open at a time, whatever the depth. Changes the owner
// to root first, so that the account cannot add entries meanwhile.
void Flatten(const Descriptor &directory, const std::string &name, std::size_t &steps,
             std::vector<std::string> &moved) {
    const Descriptor entry = OpenDirectoryAt(directory, name);
    if (!entry || fchown(entry.Get(), 0, 0) == -1 || fchmod(entry.Get(), 0700) == -1)
        return;
    const DirectoryList list = ListOf(directory, name);
    while (const dirent *inner = list && steps > 0 ? readdir(list.get()) : nullptr) {
        if (IsDotName(inner->d_name))
            continue;
        --steps;
        if (unlinkat(entry.Get(), inner->d_name, 0) == 0 || errno != EISDIR)
            continue;
        const std::string up = kArea + std::string(".") + std::to_string(steps);
        if (renameat(entry.Get(), inner->d_name, directory.Get(), up.c_str()) == 0)
            moved.push_back(up);
    }
}

// Removes the entry `name`, a directory with its content, in a bounded number of steps: an account
// may have created more entries than can be removed in a load.
void RemoveEntry(const Descriptor &directory, const std::string &name) {
    const ErrnoGuard errnoGuard;
    if (unlinkat(directory.Get(), name.c_str(), 0) == 0 || errno != EISDIR)
        return;
    std::size_t steps = 100000;
    for (std::vector<std::string> names{name}; !names.empty() && steps > 0;) {
        const std::string last = names.back();
        const std::size_t count = names.size();
        const std::size_t before = --steps;
        Flatten(directory, last, steps, names);
        const bool isRemoved = unlinkat(directory.Get(), last.c_str(), AT_REMOVEDIR) == 0;
        if (isRemoved || steps == before)
            names.erase(names.begin() + static_cast<std::ptrdiff_t>(count) - 1);
    }
}

// Creates a directory that only its owner can enter.
Descriptor MakeDirectoryAt(const Descriptor &directory, const std::string &name, uid_t uid,
                           gid_t gid) {
    if (mkdirat(directory.Get(), name.c_str(), 0700) == -1)
        return {};
    Descriptor made = OpenDirectoryAt(directory, name);
    return made && fchown(made.Get(), uid, gid) == 0 ? std::move(made) : Descriptor();
}

// Returns 0 when a job with this name can have a program from `source`, otherwise an errno value. A
// name must be one entry of the runtime directory, and neither text may contain a NUL.
int RefusalOf(const std::string &name, const std::string &source) {
    const auto hasZero = [](const std::string &text) {
        return text.find('\0') != std::string::npos;
    };
    if (hasZero(name) || hasZero(source) || name.find('/') != std::string::npos)
        return EINVAL;
    return name.size() > NAME_MAX ? ENAMETOOLONG : 0;
}

// A group without members.
gid_t UnusedGroup() {
    KEST::RANDOM::KESTRandom random;
    constexpr std::int32_t first = 1 << 30;
    return static_cast<gid_t>(random.random(first, std::numeric_limits<std::int32_t>::max()));
}

} // namespace

Staging::Staging(const std::atomic<bool> &stopRequested) : stopRequested_(stopRequested) {
    const ErrnoGuard errnoGuard;
    runtime_ = OpenRuntimeDirectory(O_RDONLY);
    struct statvfs status {};
    if (runtime_ && fstatvfs(runtime_.Get(), &status) == 0 && status.f_blocks != 0)
        mostBytes_ = std::uint64_t{status.f_blocks} * status.f_frsize / 4;
    if (runtime_) {
        Remove([](const std::string &name) { // left by a crash, or too large to remove in one load
            return name.rfind(kArea, 0) == 0;
        });
        Clear(runtime_, kArea);
        area_ = MakeDirectoryAt(runtime_, kArea, 0, 0);
    }
    areaError_ = errno;
}

Staging::~Staging() {
    const ErrnoGuard errnoGuard;
    if (isClosed_ && fchown(runtime_.Get(), 0, 0) == 0)
        fchmod(runtime_.Get(), 0755);
    ofAccount_ = {};
    ofRoot_ = {};
    try {
        if (area_)
            RemoveEntry(runtime_, kArea);
    } catch (const std::bad_alloc &) {
        // The next load removes it.
        return;
    }
}

// Makes a name available. An entry that cannot be removed in the given number of steps is renamed.
void Staging::Clear(const Descriptor &directory, const std::string &name) {
    const ErrnoGuard errnoGuard;
    RemoveEntry(directory, name);
    for (unsigned tries = 0; tries < 1000; ++tries) {
        const std::string other = kArea + std::string("-") + std::to_string(++leftOver_);
        if (renameat2(directory.Get(), name.c_str(), directory.Get(), other.c_str(),
                      RENAME_NOREPLACE) == 0 ||
            errno != EEXIST)
            return;
    }
}

// While the directory is closed, members of a group may create entries there and remove only their
// own.
void Staging::CloseRuntimeDirectory(gid_t group) {
    constexpr mode_t forRoot = 0700;
    constexpr mode_t forGroup = 01730;
    isClosed_ = true;
    if (fchmod(runtime_.Get(), forRoot) == 0 && fchown(runtime_.Get(), 0, group) == 0 && group != 0)
        fchmod(runtime_.Get(), forGroup);
}

// Returns false when mount namespaces are not available.
bool Staging::OpenInNamespace(WorkArea &workArea, const JobUser *account) {
    const uid_t uid = account == nullptr ? 0 : account->uid;
    const std::string name = std::to_string(uid);
    Clear(area_, name);
    workArea.directory = MakeDirectoryAt(area_, name, uid, account == nullptr ? 0 : account->gid);
    if (!workArea.directory)
        return true;
    Copier::Fault fault = Copier::Fault::None;
    const CopierPlace place{account, PathInArea(name), workArea.directory.Get(), kNoGroup,
                            mostBytes_};
    workArea.copier = Copier::Start(place, fault, stopRequested_);
    return fault != Copier::Fault::NoNamespace;
}

void Staging::OpenWorkArea(WorkArea &workArea, const JobUser *account) {
    workArea = {};
    if (!isClosed_ && OpenInNamespace(workArea, account))
        return;
    workArea.directory.Close();
    workArea.group = account == nullptr ? 0 : UnusedGroup();
    CloseRuntimeDirectory(0);
    Copier::Fault fault = Copier::Fault::None;
    const CopierPlace place{
        account, {}, -1, account == nullptr ? kNoGroup : workArea.group, mostBytes_};
    workArea.copier = Copier::Start(place, fault, stopRequested_);
}

Staging::WorkArea *Staging::WorkAreaOfRoot() {
    if (!ofRoot_.copier || !ofRoot_.copier->IsUsable())
        OpenWorkArea(ofRoot_, nullptr);
    return ofRoot_.copier ? &ofRoot_ : nullptr;
}

// Only one account has a work area at a time. Jobs of two accounts alternate in name order only
// when the name of one account begins with the name of the other; this is allowed a few times. An
// account whose helper process could not be started or was ended from outside gets no other one in
// the same load.
Staging::WorkArea *Staging::WorkAreaOfAccount(const JobUser &account) {
    constexpr unsigned most = 8;
    unsigned &workAreas = accounts_[account.uid].workAreas;
    if (account_ != account.uid && workAreas < most) {
        ++workAreas;
        account_ = account.uid;
        OpenWorkArea(ofAccount_, &account);
    }
    if (account_ == account.uid && ofAccount_.copier && ofAccount_.copier->IsUsable())
        return &ofAccount_;
    workAreas = most;
    errno = ECHILD;
    return nullptr;
}

// Returns null with errno set on failure.
Staging::WorkArea *Staging::WorkAreaFor(const JobUser *account) {
    if (area_)
        return account == nullptr ? WorkAreaOfRoot() : WorkAreaOfAccount(*account);
    errno = areaError_;
    return nullptr;
}

ProgramCopy Staging::Copy(const std::string &name, const std::string &source,
                          const JobUser *account) {
    ProgramCopy copy = TryCopy(name, source, account);
    // A copy that fails during a stop counts as cancelled: the stop came while the copier started,
    // or its signal reached the copy program too.
    if (stopRequested_ && copy.outcome == ProgramCopy::Outcome::Failed)
        copy.outcome = ProgramCopy::Outcome::Stopped;
    return copy;
}

ProgramCopy Staging::TryCopy(const std::string &name, const std::string &source,
                             const JobUser *account) {
    isOfAccount_ = account != nullptr && account->uid != 0;
    const JobUser *rights = isOfAccount_ ? account : nullptr;
    WorkArea *workArea = WorkAreaFor(rights);
    if (workArea == nullptr)
        return {ProgramCopy::Outcome::Failed, errno};
    const int refusal = RefusalOf(name, source);
    if (refusal != 0) // the name must not be used below
        return workArea->copier->Copy(name, source, refusal, stopRequested_);
    if (isClosed_) {
        CloseRuntimeDirectory(workArea->group);
        Clear(area_, kPrevious);
        renameat(runtime_.Get(), name.c_str(), area_.Get(), kPrevious);
    }
    ProgramCopy copy = workArea->copier->Copy(name, source, 0, stopRequested_);
    const bool taken = TakeIn(*workArea, name, rights);
    const int error = errno;
    if (isClosed_) {
        CloseRuntimeDirectory(0);
        renameat(area_.Get(), kPrevious, runtime_.Get(), name.c_str());
    }
    targetError_ = copy.targetError;
    if (copy.outcome == ProgramCopy::Outcome::Made && !taken)
        return {ProgramCopy::Outcome::Failed, error};
    return copy;
}

// Removes an entry that an earlier failure left there only when it is in the way.
bool Staging::MoveToArea(int from, const std::string &name) {
    const int error = errno;
    if (renameat2(from, name.c_str(), area_.Get(), kTaken, RENAME_NOREPLACE) == 0)
        return true;
    if (errno == ENOENT)
        return false;
    errno = error; // a success leaves it unchanged: later messages include it
    Clear(area_, kTaken);
    return renameat(from, name.c_str(), area_.Get(), kTaken) == 0;
}

// Moves the copy to a directory that only root can enter, and checks it there: the source may have
// changed since it was checked, and an account has full access to its work area.
bool Staging::TakeIn(const WorkArea &workArea, const std::string &name, const JobUser *account) {
    copy_.Close();
    const int from = workArea.directory ? workArea.directory.Get() : runtime_.Get();
    if (!MoveToArea(from, name))
        return false;
    struct stat status {};
    if (fstatat(area_.Get(), kTaken, &status, AT_SYMLINK_NOFOLLOW) == -1)
        return false;
    if (S_ISREG(status.st_mode))
        copy_ =
            Descriptor(openat(area_.Get(), kTaken, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (S_ISLNK(status.st_mode) || IsProgramOf(account))
        return true;
    copy_.Close();
    return false;
}

// Whether the copy is a regular file with a single name and, for an `account`, belongs to it and is
// within its quota.
bool Staging::IsProgramOf(const JobUser *account) {
    struct stat status {};
    if (!copy_ || fstat(copy_.Get(), &status) == -1 || !S_ISREG(status.st_mode) ||
        status.st_nlink != 1 || (account != nullptr && status.st_uid != account->uid)) {
        errno = EINVAL;
        return false;
    }
    if (account == nullptr)
        return true;
    std::uint64_t &bytes = accounts_[account->uid].bytes;
    bytes += static_cast<std::uint64_t>(status.st_size);
    errno = EDQUOT;
    return bytes <= mostBytes_;
}

Staging::Step Staging::GiveTo(const JobUser &user) const {
    struct stat status {};
    if (!copy_) // a link, whose target must not change
        return fchownat(area_.Get(), kTaken, user.uid, user.gid, AT_SYMLINK_NOFOLLOW) == 0
                   ? Step::None
                   : Step::Chown;
    if (fstat(copy_.Get(), &status) == -1)
        return Step::Stat;
    if ((status.st_uid != user.uid || status.st_gid != user.gid) &&
        fchown(copy_.Get(), user.uid, user.gid) == -1)
        return Step::Chown;
    return fchmod(copy_.Get(), 0700) == 0 ? Step::None : Step::Chmod;
}

bool Staging::ReplaceProgram(const std::string &name) {
    if (renameat(area_.Get(), kTaken, runtime_.Get(), name.c_str()) == 0)
        return true;
    // A directory is not replaced; the two change places.
    if (renameat2(area_.Get(), kTaken, runtime_.Get(), name.c_str(), RENAME_EXCHANGE) == -1)
        return false;
    RemoveEntry(area_, kTaken);
    return true;
}

Staging::Step Staging::PutInPlace(const std::string &name, const JobUser &user) {
    // Checked with the rights of the account: it must not learn whether a file exists that it
    // cannot reach.
    if (isOfAccount_ && targetError_ != 0) {
        errno = targetError_;
        return Step::Stat;
    }
    const Step step = GiveTo(user);
    if (step != Step::None)
        return step;
    if (!ReplaceProgram(name))
        return Step::Rename;
    struct stat status {};
    return copy_ || isOfAccount_ || stat(StagedPath(name).c_str(), &status) == 0 ? Step::None
                                                                                 : Step::Stat;
}

void Staging::Remove(const std::function<bool(const std::string &name)> &isUnused) {
    const ErrnoGuard errnoGuard;
    std::vector<std::string> unused;
    const DirectoryList entries = ListOf(runtime_, ".");
    while (const dirent *entry = entries ? readdir(entries.get()) : nullptr)
        if (isUnused(entry->d_name))
            unused.emplace_back(entry->d_name);
    for (const std::string &name : unused)
        RemoveEntry(runtime_, name);
}

} // namespace kest
