// A process that copies programs with the rights of one account.

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

// How a copy ended.
struct ProgramCopy {
    enum class Outcome : unsigned char {
        Made,
        NoProgram, // nothing is at the source's path
        Refused,   // what is there cannot be staged
        Failed,    // it could not be copied this time
        Stopped    // it was given up for a stop
    };
    Outcome outcome = Outcome::Failed;
    int error = 0;       // errno
    int targetError = 0; // of a copy that is a link to something that is not there: errno

    // The platform library's last error: code, source file and line.
    int platformError = 0;
    std::array<char, 64> platformFile{};
    int platformLine = 0;
};

// What a copier has to work with.
struct CopierPlace {
    const JobUser *account = nullptr; // null: root

    // The directory that it has in place of the runtime directory, in a mount namespace of its own.
    // Without a path it works in the runtime directory itself.
    std::string workPath;
    int work = -1; // the same directory

    gid_t extraGroup = kNoGroup; // one more group that it belongs to
    std::uint64_t mostBytes = 0; // no file that an account makes is larger
};

class Copier {
public:
    enum class Fault : unsigned char { None, NoProcess, NoNamespace, NoRights };

    // Starts the process. Returns null, with errno set and the reason in `fault`, when it cannot be
    // had as it must be, or `stopRequested` becomes true.
    static std::unique_ptr<Copier> Start(const CopierPlace &place, Fault &fault,
                                         const std::atomic<bool> &stopRequested);

    Copier(const Copier &) = delete;
    Copier &operator=(const Copier &) = delete;
    // Ends the process and the copy program that it runs.
    ~Copier() { End(); }

    // Has `source` copied to the entry `name` of the runtime directory, as the process sees it.
    // With `refusal`, an errno value, a program that is there is refused. Takes twelve seconds at
    // most. An account's copies together take half a minute at most; after that, and when its
    // process was stopped or ended from outside, IsUsable becomes false. Gives up when
    // `stopRequested` becomes true.
    ProgramCopy Copy(const std::string &name, const std::string &source, int refusal,
                     const std::atomic<bool> &stopRequested);
    bool IsUsable() const { return static_cast<bool>(socket_); }

private:
    Copier(Descriptor socket, pid_t process) : socket_(std::move(socket)), process_(process) {}
    bool Receive(void *reply, std::size_t size, const std::atomic<bool> &stopRequested);
    void End();

    Descriptor socket_; // none once it has ended
    pid_t process_;
};

} // namespace kest

#endif
