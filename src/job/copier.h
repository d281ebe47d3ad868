// A helper process that copies programs with the rights of one account.

#ifndef JOB_COPIER_H
#define JOB_COPIER_H

#include "base/descriptor.h"
#include "job/account.h"
#include "job/account_rights.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>

namespace kest {

// The result of a copy.
struct ProgramCopy {
    enum class Outcome : unsigned char {
        Made,
        NoProgram, // the source does not exist
        Refused,   // the source cannot be staged
        Failed,    // a temporary failure
        Stopped    // cancelled because of a stop
    };
    Outcome outcome = Outcome::Failed;
    int error = 0;       // errno
    int targetError = 0; // errno for the target of a copy that is a dangling link

    // The platform library's last error: code, source file and line.
    int platformError = 0;
    std::array<char, 64> platformFile{};
    int platformLine = 0;
};

// The settings of a copier.
struct CopierPlace {
    const JobUser *account = nullptr; // null: root

    // The directory that the process sees in place of the runtime directory, in its own mount
    // namespace. When empty, it works in the runtime directory itself.
    std::string workPath;
    int work = -1; // the same directory

    gid_t extraGroup = kNoGroup; // an additional group of the process
    std::uint64_t mostBytes = 0; // the largest file that an account can create
};

class Copier {
public:
    enum class Fault : unsigned char { None, NoProcess, NoNamespace, NoRights };

    // Starts the process. Returns null with errno and `fault` set when it cannot be started or
    // cannot take on what `place` demands, or when `stopRequested` becomes true.
    static std::unique_ptr<Copier> Start(const CopierPlace &place, Fault &fault,
                                         const std::atomic<bool> &stopRequested);

    Copier(const Copier &) = delete;
    Copier &operator=(const Copier &) = delete;
    // Ends the process and the copy program that it runs.
    ~Copier() { End(); }

    // Copies `source` to the entry `name` of the runtime directory that the process sees. When
    // `refusal`, an errno value, is not 0, a source that exists is refused. Takes at most twelve
    // seconds, and all copies of an account together at most half a minute. After that time, and
    // when the process was stopped or ended from outside, IsUsable returns false. Cancels the copy
    // when `stopRequested` becomes true.
    ProgramCopy Copy(const std::string &name, const std::string &source, int refusal,
                     const std::atomic<bool> &stopRequested);
    bool IsUsable() const { return static_cast<bool>(socket_); }

private:
    Copier(Descriptor socket, pid_t process) : socket_(std::move(socket)), process_(process) {}
    bool Receive(void *reply, std::size_t size, const std::atomic<bool> &stopRequested);
    void End();

    Descriptor socket_; // empty when the process has ended
    pid_t process_;
};

} // namespace kest

#endif
