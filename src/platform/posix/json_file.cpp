#include "platform/json_file.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <json/reader.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using kest::Descriptor;
using kest::ErrnoGuard;
using kest::OpenRegularFile;
using kest::ReadAll;
using kest::WriteAll;

namespace {

// Constructing a reader takes longer than reading a job.
Json::CharReader &ReaderOfDepth(int depth) {
    static std::map<int, std::unique_ptr<Json::CharReader>> readers;
    std::unique_ptr<Json::CharReader> &reader = readers[depth];
    if (!reader) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["allowTrailingCommas"] = false;
        builder["failIfExtra"] = true;
        builder["stackLimit"] = depth;
        reader.reset(builder.newCharReader());
    }
    return *reader;
}

bool Parse(JsonOrigin &origin, int depth, Json::Value &value) {
    const std::string &text = origin.text;
    // The library treats a NUL as the end and would ignore what follows it.
    if (text.find('\0') != std::string::npos) {
        origin.fault = "There is a zero byte in the text.";
        return false;
    }
    try {
        return ReaderOfDepth(depth).parse(text.data(), text.data() + text.size(), &value,
                                          &origin.fault);
    } catch (const std::bad_alloc &) {
        throw;
    } catch (const std::exception &) {
        origin.fault = "Values are nested deeper than " + std::to_string(depth) + " levels.";
        return false;
    }
}

// Resolves `path` when it is a link, so that replacing the file keeps the link. The file need not
// exist.
std::string FollowLinks(std::string path) {
    const ErrnoGuard errnoGuard;
    constexpr int mostLinks = 40; // as many as the kernel follows
    std::array<char, PATH_MAX> target{};
    for (int i = 0; i < mostLinks; ++i) {
        const ssize_t length = readlink(path.c_str(), target.data(), target.size());
        if (length <= 0)
            break;
        if (target[0] != '/')
            path.erase(path.rfind('/') + 1);
        else
            path.clear();
        path.append(target.data(), static_cast<std::size_t>(length));
    }
    return path;
}

void Discard(const std::string &path) {
    const ErrnoGuard errnoGuard;
    unlink(path.c_str());
}

// The file that the document replaces.
struct OldFile {
    bool exists = false;
    struct stat status {};
};

// Returns false with errno set when something other than a regular file exists: a device must not
// be replaced by a document.
bool StatOldFile(const std::string &path, OldFile &old) {
    const int previousError = errno;
    old.exists = lstat(path.c_str(), &old.status) == 0;
    errno = previousError;
    if (!old.exists || S_ISREG(old.status.st_mode))
        return true;
    errno = S_ISDIR(old.status.st_mode) ? EISDIR : EINVAL;
    return false;
}

bool SetOwnerAndMode(int file, const OldFile &old) {
    if (!old.exists)
        return fchmod(file, 0644) == 0;
    // The mode comes last, because a change of owner clears some of its bits.
    return fchown(file, old.status.st_uid, old.status.st_gid) == 0 &&
           fchmod(file, old.status.st_mode & 07777) == 0;
}

using Writer = std::function<void(const JsonSink &sink)>;

// Returns false with errno set as soon as a part cannot be written.
bool WriteParts(int file, const Writer &write) {
    int error = 0;
    const auto take = [&](std::string_view part) {
        if (error == 0 && !WriteAll(file, part))
            error = errno;
    };
    write(take);
    take("\n");
    errno = error != 0 ? error : errno;
    return error == 0;
}

bool WriteNewFile(const std::string &path, const Writer &write, const OldFile &old,
                  Durability durability) {
    Discard(path); // left behind by a crash
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file || !SetOwnerAndMode(file.Get(), old) || !WriteParts(file.Get(), write))
        return false;
    if (durability == Durability::Reboot && fsync(file.Get()) == -1)
        return false;
    return close(file.Release()) == 0;
}

// Writes the document to `fresh` and renames it to `target`. Removes `fresh` on failure.
bool ReplaceFile(const std::string &fresh, const std::string &target, const Writer &write,
                 const OldFile &old, Durability durability) {
    try {
        if (WriteNewFile(fresh, write, old, durability) &&
            rename(fresh.c_str(), target.c_str()) == 0)
            return true;
    } catch (const std::bad_alloc &) {
        Discard(fresh);
        throw;
    }
    Discard(fresh);
    return false;
}

// Whether the error prevents a file from being replaced but not from being overwritten: it is a
// mount point, its directory is read-only, or the new file cannot get the owner of the old one.
bool MustOverwrite(int error) {
    return error == EBUSY || error == EROFS || error == EACCES || error == EPERM || error == EXDEV;
}

// Overwrites the document at `path`. The old document is kept when there is no space for the new
// one; a crash in the middle leaves parts of both.
bool OverwriteFile(const std::string &path, const Writer &write, Durability durability) {
    Descriptor file(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) == -1)
        return false;
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        errno = EPERM;
        return false;
    }
    off_t size = 1; // the newline
    write([&](std::string_view part) { size += static_cast<off_t>(part.size()); });
    if (fallocate(file.Get(), FALLOC_FL_KEEP_SIZE, 0, size) == -1 && errno != EOPNOTSUPP &&
        errno != ENOSYS)
        return false;
    if (!WriteParts(file.Get(), write) || ftruncate(file.Get(), size) == -1)
        return false;
    if (durability == Durability::Reboot && fsync(file.Get()) == -1)
        return false;
    return close(file.Release()) == 0;
}

void FlushDirectoryOf(const std::string &path) {
    const Descriptor directory(
        open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory)
        fsync(directory.Get());
}

} // namespace

bool JsonFromFile(const std::string &path, Json::Value &value, const JsonLimits &limits,
                  JsonOrigin *origin) {
    value = Json::Value();
    JsonOrigin unused;
    JsonOrigin &read = origin != nullptr ? *origin : unused;
    read = {};
    // Empty files are not documents. Kernel files that block their reader look empty too.
    const Descriptor file = OpenRegularFile(path, {1, limits.bytes});
    return file && ReadAll(file.Get(), limits.bytes, read.text) &&
           JsonFromText(read, limits.depth, value);
}

bool JsonFromText(JsonOrigin &origin, int depth, Json::Value &value) {
    if (Parse(origin, depth, value))
        return true;
    value = Json::Value();
    errno = EBADMSG;
    return false;
}

bool JsonToFile(const Writer &write, const std::string &path, Durability durability) {
    const std::string target = FollowLinks(path);
    const std::string fresh = target + ".new";
    OldFile old;
    if (!StatOldFile(target, old))
        return false;
    if (!ReplaceFile(fresh, target, write, old, durability))
        return old.exists && MustOverwrite(errno) && OverwriteFile(target, write, durability);
    if (durability == Durability::Reboot)
        FlushDirectoryOf(target);
    return true;
}
