#include "ctl/check/system_state.h"

#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "job/account.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/stat.h>
#include <sys/utsname.h>

namespace kest::ctl {

namespace {

// --- Architecture -------------------------------------------------------------------------------

std::optional<Architecture> RunningArchitecture() {
    std::optional<Architecture> architecture =
        ArchitectureOf(ReadHead("/proc/self/exe", kProgramHead));
    struct utsname kernel {};
    // A 32-bit system may have a 64-bit kernel.
    if (architecture && uname(&kernel) == 0 &&
        std::string(kernel.machine).find("64") != std::string::npos)
        architecture->is64 = true;
    return architecture;
}

// That of a program which every system has.
std::optional<Architecture> ArchitectureOfImage(const Appliance &appliance) {
    constexpr std::array<const char *, 5> programs{"/usr/sbin/kestcrond", "/bin/sh", "/bin/busybox",
                                                   "/usr/bin/env", "/sbin/init"};
    for (const char *program : programs)
        if (const auto architecture =
                ArchitectureOf(ReadHead(appliance.Locate(program), kProgramHead)))
            return architecture;
    return std::nullopt;
}

// The entries of binfmt_misc; none without it.
std::vector<std::string> FormatsOfKernel() {
    constexpr std::size_t most = 100;
    const std::string directory = "/proc/sys/fs/binfmt_misc/";
    std::vector<std::string> formats;
    try {
        for (const std::string &name : NamesIn(directory))
            if (formats.size() < most && name != "register" && name != "status")
                formats.push_back(ReadFile(std::string(directory).append(name)));
    } catch (const Failure &) {
        return {};
    }
    return formats;
}

// --- Files --------------------------------------------------------------------------------------

bool IsExecutable(const struct stat &status) {
    return (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

Interpreter InspectInterpreter(const std::string &file) {
    Interpreter interpreter;
    struct stat status {};
    if (stat(file.c_str(), &status) == -1)
        interpreter.state = errno == ENOENT || errno == ENOTDIR || errno == ELOOP
                                ? Interpreter::State::Missing
                                : Interpreter::State::Unknown;
    else if (!S_ISREG(status.st_mode))
        interpreter.state = Interpreter::State::NotRegular;
    else if (!IsExecutable(status))
        interpreter.state = Interpreter::State::NotExecutable;
    else
        interpreter = {Interpreter::State::Executable, ReadHead(file, kProgramHead)};
    return interpreter;
}

// The daemon resolves a relative path from "/".
std::string FromRoot(const std::string &path) {
    return path.front() == '/' ? path : "/" + path;
}

} // namespace

SystemState::SystemState(const Appliance &appliance)
    : appliance_(appliance),
      architecture_(appliance.IsLocal() ? RunningArchitecture() : ArchitectureOfImage(appliance)) {
    if (appliance.IsLocal())
        formats_ = FormatsOfKernel();
}

Account SystemState::AccountOf(const Json::Value &config) {
    Account account{kest::AccountOf(config).value_or(""), false};
    const auto [entry, isNew] = accounts_.try_emplace(account.name, false);
    if (isNew)
        entry->second = !appliance_.HasAccounts() || appliance_.HasAccount(account.name);
    account.exists = entry->second;
    return account;
}

const Program &SystemState::ProgramAt(const std::string &path, const std::string &account) {
    const auto [entry, isNew] = programs_.try_emplace({path, account});
    if (isNew)
        entry->second = Inspect(path, account);
    return entry->second;
}

Program SystemState::Inspect(const std::string &path, const std::string &account) {
    Program program;
    const std::string file = appliance_.Locate(path);
    struct stat status {};
    if (stat(file.c_str(), &status) == 0) {
        program.exists = true;
        program.regular = S_ISREG(status.st_mode);
        program.empty = status.st_size == 0;
    }
    const auto slash = path.rfind('/');
    const std::string itself = appliance_.Locate(path.substr(0, slash + 1)) + path.substr(slash);
    program.link = ReadLink(itself);
    if (program.regular && !program.empty)
        program.startFault = StartFaultAt(file, !program.link.empty());
    for (auto end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, std::max<std::size_t>(end, 1));
        if (program.writableDirectory.empty() &&
            IsWritableByOthers(directory, end == slash, account))
            program.writableDirectory = directory;
    }
    return program;
}

std::optional<StartFault> SystemState::StartFaultAt(const std::string &file, bool isLink) {
    struct stat status {};
    // The mode of a copy is set, that of the target of a link is not.
    if (isLink && stat(file.c_str(), &status) == 0 && !IsExecutable(status))
        return StartFault{"the target of the link is not executable", {}};
    const std::string head = ReadHead(file, kProgramHead);
    if (head.empty())
        return std::nullopt;
    return StartFaultOf(head, {architecture_,
                               [this](const std::string &path) { return InterpreterAt(path); },
                               [this](std::string_view start) { return HasFormat(start); }});
}

// A tree without the programs of a system may become a part of one, with any interpreters.
const Interpreter &SystemState::InterpreterAt(const std::string &path) {
    const auto [entry, isNew] = interpreters_.try_emplace(path);
    if (isNew && (appliance_.IsLocal() || architecture_))
        entry->second = InspectInterpreter(appliance_.Locate(FromRoot(path)));
    return entry->second;
}

bool SystemState::HasFormat(std::string_view head) const {
    return std::any_of(formats_.begin(), formats_.end(),
                       [&](const std::string &format) { return IsOfFormat(format, head); });
}

// Whether users other than root and the account can replace entries of a directory on a program's
// path. `last` marks the directory that contains the program. Without an account database owners
// mean nothing.
bool SystemState::IsWritableByOthers(const std::string &directory, bool last,
                                     const std::string &account) const {
    struct stat status {};
    if (!appliance_.HasAccounts() || stat(appliance_.Locate(directory).c_str(), &status) == -1)
        return false;
    const bool own = appliance_.AccountName(status.st_uid) == account;
    if (status.st_uid != 0 && !own)
        return true;
    // In a sticky directory nobody can remove the entries of others, but anybody can add entries.
    if ((status.st_mode & S_ISVTX) != 0 && !last)
        return false;
    // An account may share its own directory with a group.
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_uid == 0);
}

} // namespace kest::ctl
