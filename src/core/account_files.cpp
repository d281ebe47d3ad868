#include "core/account_files.h"

#include "base/errno_guard.h"
#include "base/exit_statuses.h"
#include "core/account_record.h"
#include "job/account_rights.h"
#include "platform/json_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace kest {

Descriptor OpenPath(const std::string &path) {
    return Descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
}

bool IsLink(const std::string &path) {
    const ErrnoGuard errnoGuard;
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool MayBeAccountDirectory(const struct stat &status, bool isLinked) {
    const bool isRoots = status.st_uid == 0;
    const bool isOpenToOthers = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return !S_ISDIR(status.st_mode) ||
           (isLinked ? !isRoots && !isOpenToOthers : !isRoots || !isOpenToOthers);
}

// --- Reading ------------------------------------------------------------------------------------

namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

Directory OpenForReading(int directory) {
    Descriptor opened(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Directory stream(opened ? fdopendir(opened.Get()) : nullptr, closedir);
    if (stream)
        static_cast<void>(opened.Release());
    return stream;
}

// Lists the first `most` names and counts the others, which take no memory.
void ListFirst(DIR *directory, std::size_t most, AccountFiles &files) {
    std::vector<std::string> first; // a heap with the last name in front
    std::size_t entries = 0;
    for (const dirent *entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        files.more = ++entries > kMostEntries;
        if (files.more)
            break;
        if (!IsJobFileName(entry->d_name))
            continue;
        first.emplace_back(entry->d_name);
        std::push_heap(first.begin(), first.end());
        if (first.size() <= most)
            continue;
        std::pop_heap(first.begin(), first.end());
        first.pop_back();
        ++files.unread;
    }
    std::sort_heap(first.begin(), first.end());
    for (std::string &name : first)
        files.files.push_back({std::move(name), 0, {}});
}

} // namespace

bool ListAccountFiles(int directory, const AccountQuota &quota, AccountFiles &files) {
    const Directory opened = OpenForReading(directory);
    files = {};
    if (opened)
        ListFirst(opened.get(), MostFiles(quota), files);
    return static_cast<bool>(opened);
}

namespace {

bool ReadText(int directory, const std::string &path, const AccountQuota &left, std::string &text) {
    const Descriptor opened = OpenRegularFileAt(directory, path, {1, kJobFileLimits.bytes});
    struct stat status {};
    if (!opened || fstat(opened.Get(), &status) == -1)
        return false;
    if (static_cast<std::uintmax_t>(status.st_size) <= left.bytes)
        return ReadAll(opened.Get(), left.bytes, text);
    errno = EDQUOT;
    return false;
}

} // namespace

void ReadAccountFile(int directory, const std::string &path, AccountQuota &left,
                     AccountFile &file) {
    if (left.bytes < kLeastCharge) {
        file.error = EDQUOT;
        return;
    }
    file.error = ReadText(directory, path, left, file.text) ? 0 : errno;
    if (file.error != 0)
        file.text.clear();
    if (!ChargeFile(left, file.text.size()))
        file.error = EDQUOT;
}

int ParseAccountFile(AccountFile &file, AccountQuota &quota, JsonOrigin &origin,
                     Json::Value &document) {
    document = Json::Value();
    if (!ChargeFile(quota, file.text.size()))
        return EDQUOT;
    if (file.error != 0)
        return file.error;
    origin = {std::move(file.text), {}};
    if (!JsonFromText(origin, kJobFileLimits.depth, document))
        return errno;
    if (ChargeJobs(quota, origin.text.size(), CountOfDefinitions(document)))
        return 0;
    document = Json::Value();
    return EDQUOT;
}

namespace {

AccountReading ReadFiles(int directory, const AccountQuota &quota, AccountFiles &files) {
    if (!ListAccountFiles(directory, quota, files))
        return AccountReading::NotOpened;
    AccountQuota left = quota;
    for (AccountFile &file : files.files)
        ReadAccountFile(directory, file.name, left, file);
    return AccountReading::Done;
}

} // namespace

// --- The process --------------------------------------------------------------------------------

namespace {

// Memory that is shared with a helper process, for its result.
class SharedMemory {
public:
    explicit SharedMemory(std::size_t size)
        : size_(size), memory_(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;
    ~SharedMemory() {
        const ErrnoGuard errnoGuard;
        if (*this)
            munmap(memory_, size_);
    }

    explicit operator bool() const { return memory_ != MAP_FAILED; }
    char *Begin() const { return static_cast<char *>(memory_); }
    std::string_view Content() const { return {Begin(), size_}; }

private:
    std::size_t size_;
    void *memory_;
};

// Uses the time-out of a socket, which does not depend on any clock that can be set.
bool SetDeadline(int socket, std::time_t seconds) {
    const timeval timeout{seconds, 0};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
}

ssize_t ReceiveByte(int socket) {
    char byte = 0;
    ssize_t received = 0;
    do
        received = recv(socket, &byte, sizeof byte, 0);
    while (received == -1 && errno == EINTR);
    return received;
}

// Waits for the process at the other end of `socket`. Returns true when it has finished in time and
// ended; otherwise errno is set.
bool AwaitReader(int socket, pid_t reader) {
    constexpr std::time_t timeout = 10; // seconds
    const ssize_t said = SetDeadline(socket, timeout) ? ReceiveByte(socket) : -1;
    const int error = said == 0 ? ECHILD : errno == EAGAIN ? ETIMEDOUT : errno;
    kill(reader, SIGKILL);
    // The process closes its end of the socket when it ends, unless it hangs in the kernel.
    const bool gone = SetDeadline(socket, 1) && ReceiveByte(socket) == 0;
    while (gone && waitpid(reader, nullptr, 0) == -1 && errno == EINTR)
        continue;
    if (said == 1 && gone)
        return true;
    errno = said == 1 ? ETIMEDOUT : error;
    return false;
}

// The work of the process that has taken on the account. The daemon's data that is still in its
// memory is protected: the process cannot be traced and leaves no core dump.
[[noreturn]] void ReadInChild(int directory, const JobUser &account, const AccountQuota &quota,
                              char *memory, int socket, pid_t parent) {
    try {
        AccountFiles files;
        AccountReading reading = AccountReading::Failed;
        if (BecomeAccount(account.name, account.uid, account.gid) &&
            prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 &&
            prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0 && getppid() == parent)
            reading = ReadFiles(directory, quota, files);
        const std::string record = RecordOf(reading, errno, files);
        record.copy(memory, LongestRecord(quota));
        const char done = 1;
        send(socket, &done, sizeof done, MSG_NOSIGNAL);
    } catch (const std::exception &) {
        // Out of memory. The missing result reports the failure.
    }
    _exit(0);
}

} // namespace

AccountReading ReadAsAccount(int directory, const JobUser &account, const AccountQuota &quota,
                             AccountFiles &files) {
    if (account.uid == 0)
        return ReadFiles(directory, quota, files);
    const SharedMemory memory(LongestRecord(quota));
    int ends[2] = {-1, -1};
    if (!memory || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
        return AccountReading::Failed;
    const Descriptor ours(ends[0]);
    Descriptor theirs(ends[1]);
    const ChildStatusGuard statuses;
    const pid_t parent = getpid();
    const pid_t reader = fork();
    if (reader == 0)
        ReadInChild(directory, account, quota, memory.Begin(), theirs.Get(), parent);
    theirs.Close();
    if (reader == -1 || !AwaitReader(ours.Get(), reader))
        return AccountReading::Failed;
    return ParseRecord(memory.Content(), quota, files);
}

} // namespace kest
