#include "job/staging.h"

#include "job/runtime_directory.h"
#include "platform/errno_kept.h"
#include "platform/kestcore.h"
#include "platform/kestrandom.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <filesystem>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// Inside the runtime directory. No job has such a name, since all begin with the label of a source.
constexpr const char *kArea = ".staging";
constexpr const char *kAreaPath = "/tmp/kestcrond/.staging";
// Inside that.
constexpr const char *kTaken = "taken";
constexpr const char *kPrevious = "previous";

std::string PathOf(const std::string &entry) {
    return std::string(kRuntimeDirectory) + "/" + entry;
}

std::string PathInArea(const std::string &entry) {
    return std::string(kAreaPath) + "/" + entry;
}

Descriptor OpenDirectoryAt(const Descriptor &directory, const std::string &name) {
    return Descriptor(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Removes whatever has this name, a directory with all that is in it.
void RemoveEntry(const Descriptor &directory, const std::string &name, const std::string &path) {
    const ErrnoKept kept;
    if (unlinkat(directory.Get(), name.c_str(), 0) == 0 || errno != EISDIR)
        return;
    // Taken from its owner first, who could otherwise put things in as fast as they are removed.
    const Descriptor entry = OpenDirectoryAt(directory, name);
    if (entry && fchown(entry.Get(), 0, 0) == 0 && fchmod(entry.Get(), 0700) == 0) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
}

// Makes a directory that only its owner can enter.
Descriptor MakeDirectoryAt(const Descriptor &directory, const std::string &name, uid_t uid,
                           gid_t gid) {
    if (mkdirat(directory.Get(), name.c_str(), 0700) == -1)
        return {};
    Descriptor made = OpenDirectoryAt(directory, name);
    return made && fchown(made.Get(), uid, gid) == 0 ? std::move(made) : Descriptor();
}

// Why a job of this name cannot have a program from `source`: an errno value, 0 when it can. A name
// is one entry of the runtime directory, never a way out of it, and neither is cut at a zero byte.
int RefusalOf(const std::string &name, const std::string &source) {
    const auto hasZero = [](const std::string &text) {
        return text.find('\0') != std::string::npos;
    };
    if (hasZero(name) || hasZero(source) || name.find('/') != std::string::npos)
        return EINVAL;
    return name.size() > NAME_MAX ? ENAMETOOLONG : 0;
}

// A group that nobody is in.
gid_t UnusedGroup() {
    KEST::RANDOM::KESTRandom random;
    constexpr std::int32_t first = 1 << 30;
    return static_cast<gid_t>(random.random(first, std::numeric_limits<std::int32_t>::max()));
}

ProgramCopy Failure(int error) {
    ProgramCopy copy;
    copy.error = error;
    return copy;
}

} // namespace

Staging::Staging(const std::atomic<bool> &stopRequested) : stopRequested_(stopRequested) {
    const ErrnoKept kept;
    runtime_ = OpenRuntimeDirectory(O_RDONLY);
    if (runtime_) {
        RemoveEntry(runtime_, kArea, kAreaPath); // left behind by a crash
        area_ = MakeDirectoryAt(runtime_, kArea, 0, 0);
    }
    areaError_ = errno;
}

Staging::~Staging() {
    const ErrnoKept kept;
    workshops_.clear();
    if (area_)
        RemoveEntry(runtime_, kArea, kAreaPath);
    if (isClosed_ && fchown(runtime_.Get(), 0, 0) == 0)
        fchmod(runtime_.Get(), 0755);
}

// While it is closed, a group may make entries there, and remove none but its own.
void Staging::CloseRuntimeDirectory(gid_t group) {
    constexpr mode_t forRoot = 0700;
    constexpr mode_t forGroup = 01730;
    isClosed_ = true;
    if (fchmod(runtime_.Get(), forRoot) == 0 && fchown(runtime_.Get(), 0, group) == 0 && group != 0)
        fchmod(runtime_.Get(), forGroup);
}

// Returns false when there are no mount namespaces to be had.
bool Staging::OpenInNamespace(Workshop &workshop, const JobUser *account) {
    const uid_t uid = account == nullptr ? 0 : account->uid;
    const std::string name = std::to_string(uid);
    workshop.directory = MakeDirectoryAt(area_, name, uid, account == nullptr ? 0 : account->gid);
    if (!workshop.directory)
        return true;
    Copier::Fault fault = Copier::Fault::None;
    const CopierPlace place{account, PathInArea(name), workshop.directory.Get(), kNoGroup};
    workshop.copier = Copier::Start(place, fault);
    return fault != Copier::Fault::NoNamespace;
}

void Staging::OpenWorkshop(Workshop &workshop, const JobUser *account) {
    if (!isClosed_ && OpenInNamespace(workshop, account))
        return;
    workshop.directory.Close();
    workshop.group = account == nullptr ? 0 : UnusedGroup();
    CloseRuntimeDirectory(0);
    Copier::Fault fault = Copier::Fault::None;
    workshop.copier =
        Copier::Start({account, {}, -1, account == nullptr ? kNoGroup : workshop.group}, fault);
}

// Null, with errno set, when there is none. An account whose process could not be had, or was ended
// from outside, gets no other one in the same load.
Staging::Workshop *Staging::WorkshopFor(const JobUser *account) {
    if (!area_) {
        errno = areaError_;
        return nullptr;
    }
    const uid_t uid = account == nullptr ? 0 : account->uid;
    const auto [found, isNew] = workshops_.try_emplace(uid);
    Workshop &workshop = found->second;
    if (workshop.copier && workshop.copier->IsUsable())
        return &workshop;
    if (!isNew && account != nullptr) {
        errno = ECHILD;
        return nullptr;
    }
    if (!isNew)
        RemoveEntry(area_, std::to_string(uid), PathInArea(std::to_string(uid)));
    OpenWorkshop(workshop, account);
    return workshop.copier ? &workshop : nullptr;
}

ProgramCopy Staging::Copy(const std::string &name, const std::string &source,
                          const JobUser *account) {
    isOfAccount_ = account != nullptr && account->uid != 0;
    const JobUser *rights = isOfAccount_ ? account : nullptr;
    Workshop *workshop = WorkshopFor(rights);
    if (workshop == nullptr)
        return Failure(errno);
    const int refusal = RefusalOf(name, source);
    if (refusal != 0) // nothing below may be done with such a name
        return workshop->copier->Copy(name, source, refusal, stopRequested_);
    if (isClosed_) {
        CloseRuntimeDirectory(workshop->group);
        RemoveEntry(area_, kPrevious, PathInArea(kPrevious));
        renameat(runtime_.Get(), name.c_str(), area_.Get(), kPrevious);
    }
    ProgramCopy copy = workshop->copier->Copy(name, source, 0, stopRequested_);
    const bool taken = TakeIn(*workshop, name, rights);
    const int error = errno;
    if (isClosed_) {
        CloseRuntimeDirectory(0);
        renameat(area_.Get(), kPrevious, runtime_.Get(), name.c_str());
    }
    targetError_ = copy.targetError;
    if (copy.outcome == ProgramCopy::Outcome::Made && !taken)
        return Failure(error);
    return copy;
}

// Moves what the copier has made to where only root reaches it, and looks there whether it is what
// it should be: the source may have become something else since it was looked at, and an account
// can do what it likes in its workshop.
bool Staging::TakeIn(const Workshop &workshop, const std::string &name, const JobUser *account) {
    copy_.Close();
    RemoveEntry(area_, kTaken, PathInArea(kTaken));
    const int from = workshop.directory ? workshop.directory.Get() : runtime_.Get();
    if (renameat(from, name.c_str(), area_.Get(), kTaken) == -1)
        return false;
    struct stat status {};
    if (fstatat(area_.Get(), kTaken, &status, AT_SYMLINK_NOFOLLOW) == -1 || S_ISLNK(status.st_mode))
        return S_ISLNK(status.st_mode);
    if (S_ISREG(status.st_mode))
        copy_ =
            Descriptor(openat(area_.Get(), kTaken, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (copy_ && fstat(copy_.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_nlink == 1 && (account == nullptr || status.st_uid == account->uid))
        return true;
    copy_.Close();
    errno = EINVAL;
    return false;
}

Staging::Step Staging::GiveTo(const JobUser &user) const {
    struct stat status {};
    if (!copy_) // a link: its target is somebody else's
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
    RemoveEntry(area_, kTaken, PathInArea(kTaken));
    return true;
}

Staging::Step Staging::PutInPlace(const std::string &name, const JobUser &user) {
    // With its own rights: whether something is there may not be for the account to know.
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
    return copy_ || isOfAccount_ || stat(PathOf(name).c_str(), &status) == 0 ? Step::None
                                                                             : Step::Stat;
}

void Staging::Remove(const std::function<bool(const std::string &name)> &isUnused) {
    const ErrnoKept kept;
    Descriptor listed = OpenDirectoryAt(runtime_, ".");
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(fdopendir(listed.Get()), closedir);
    if (entries)
        listed.Release(); // it is closed with the list
    std::vector<std::string> unused;
    while (const dirent *entry = entries ? readdir(entries.get()) : nullptr)
        if (isUnused(entry->d_name))
            unused.emplace_back(entry->d_name);
    for (const std::string &name : unused)
        RemoveEntry(runtime_, name, PathOf(name));
}
