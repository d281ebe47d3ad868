#include "ctl/system/rotated_logs.h"

#include "base/paths.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

using TakeLine = std::function<void(const std::string &line)>;

struct Compression {
    std::string_view suffix;
    const char *program;
};
constexpr std::array<Compression, 4> kCompressions{
    {{".gz", "gzip"}, {".bz2", "bzip2"}, {".xz", "xz"}, {".zst", "zstd"}}};

bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

// ".20261115" is a date.
bool IsNumbered(const std::string &rotation) {
    constexpr std::size_t longest = 7;
    return rotation.front() == '.' && rotation.size() <= longest;
}

// ".N", or "-" and a date of any form that begins with a digit.
bool IsRotation(std::string_view text) {
    if (text.size() < 2 || !IsDigit(text[1]))
        return false;
    const bool isNumber = std::all_of(text.begin() + 1, text.end(), IsDigit);
    const bool isDate = std::all_of(text.begin() + 1, text.end(), [](char character) {
        return IsDigit(character) || std::strchr("-_:T", character) != nullptr;
    });
    return (text[0] == '.' && isNumber) || (text[0] == '-' && isDate);
}

struct FileIdentity {
    dev_t device;
    ino_t inode;
    bool operator==(const FileIdentity &other) const {
        return device == other.device && inode == other.inode;
    }
};

FileIdentity IdentityOf(const Descriptor &file) {
    struct stat status {};
    fstat(file.Get(), &status);
    return {status.st_dev, status.st_ino};
}

struct RotatedFile {
    std::string path;
    RotatedName name;
    FileIdentity identity;
    bool operator==(const RotatedFile &other) const {
        return path == other.path && identity == other.identity;
    }
};

// The program that writes the text of a compressed file to a pipe. It is killed at the end.
class Decompressor {
public:
    // Throws Failure if the program cannot be started.
    Decompressor(const char *program, const Descriptor &file);
    Decompressor(const Decompressor &) = delete;
    Decompressor &operator=(const Decompressor &) = delete;
    ~Decompressor();

    Descriptor TakeOutput() { return std::move(output_); }
    // Waits for the end of the program. Call it after the end of its output.
    bool Succeeds();

private:
    Descriptor output_;
    pid_t pid_ = -1;
};

Decompressor::Decompressor(const char *program, const Descriptor &file) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1)
        throw Failure(std::string("pipe: ") + std::strerror(errno));
    output_ = Descriptor(ends[0]);
    const Descriptor input(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, file.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, input.Get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name(program);
    std::string options("-dc");
    const std::array<char *, 3> arguments{name.data(), options.data(), nullptr};
    // The interrupt key is for this process or its pager.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const int error =
        posix_spawnp(&pid_, program, &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        throw Failure(name + ": " + std::strerror(error));
    }
}

Decompressor::~Decompressor() {
    if (pid_ == -1)
        return;
    kill(pid_, SIGKILL);
    Succeeds();
}

bool Decompressor::Succeeds() {
    int status = 0;
    while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Returns false if there is more text than `most` bytes.
bool TakeLines(LogReader &reader, std::uintmax_t most, const TakeLine &take) {
    std::uintmax_t size = 0;
    for (std::string line; reader.ReadLine(line);) {
        take(line);
        size += line.size() + 1;
        if (size > most)
            return false;
    }
    if (const std::string partial = reader.TakePartialLine(); !partial.empty())
        take(partial);
    return true;
}

// The rotated files, the newest first. Throws Failure if the directory cannot be read.
std::vector<RotatedFile> RotatedFiles(const Appliance &appliance) {
    const std::string log(kExecutionLogFile);
    const auto slash = log.rfind('/');
    const std::string directory = appliance.Locate(log.substr(0, slash));
    std::vector<RotatedFile> files;
    if (access(directory.c_str(), F_OK) == -1)
        return files;
    for (const std::string &name : NamesIn(directory)) {
        const std::string path = log.substr(0, slash + 1) + name;
        if (path.compare(0, log.size(), log) != 0)
            continue;
        struct stat status {};
        const auto rotated = ReadRotatedName(std::string_view(path).substr(log.size()));
        if (rotated && stat(appliance.Locate(path).c_str(), &status) == 0)
            files.push_back({path, *rotated, {status.st_dev, status.st_ino}});
    }
    std::sort(files.begin(), files.end(),
              [](const auto &a, const auto &b) { return b.name.IsOlderThan(a.name); });
    // A file that is being compressed exists in both forms; the plain one comes first.
    files.erase(std::unique(files.begin(), files.end(),
                            [](const auto &a, const auto &b) {
                                return a.name.rotation == b.name.rotation;
                            }),
                files.end());
    return files;
}

// Returns false if the files were rotated meanwhile.
bool TryToOpen(const Appliance &appliance, const Descriptor &present, RotatedLogs &logs) try {
    constexpr std::size_t most = 500;
    logs = {};
    std::vector<RotatedFile> files = RotatedFiles(appliance);
    for (const RotatedFile &rotated : files) {
        if (logs.files.size() == most)
            break;
        if (present && rotated.identity == IdentityOf(present))
            continue;
        Descriptor file = OpenRegularFile(appliance.Locate(rotated.path));
        if (!file)
            logs.errors.push_back(rotated.path + ": " + std::strerror(errno));
        else if (IdentityOf(file) == rotated.identity)
            logs.files.emplace_back(rotated.path, rotated.name.program, std::move(file));
    }
    return files == RotatedFiles(appliance);
} catch (const Failure &failure) {
    logs.errors.emplace_back(failure.what());
    return true;
}

} // namespace

bool RotatedName::IsOlderThan(const RotatedName &other) const {
    if (rotation == other.rotation)
        return compression > other.compression; // the plain file counts as the newest
    if (IsNumbered(rotation) != IsNumbered(other.rotation))
        return !IsNumbered(rotation);
    if (!IsNumbered(rotation))
        return rotation.substr(1) < other.rotation.substr(1);
    if (rotation.size() != other.rotation.size())
        return rotation.size() > other.rotation.size();
    return rotation > other.rotation;
}

std::optional<RotatedName> ReadRotatedName(std::string_view suffix) {
    RotatedName name;
    for (const Compression &compression : kCompressions) {
        const std::size_t size = compression.suffix.size();
        if (suffix.size() > size && suffix.substr(suffix.size() - size) == compression.suffix) {
            name.compression = compression.suffix;
            name.program = compression.program;
        }
    }
    name.rotation = suffix.substr(0, suffix.size() - name.compression.size());
    return IsRotation(name.rotation) ? std::optional<RotatedName>(name) : std::nullopt;
}

RotatedLog::RotatedLog(std::string path, const char *program, Descriptor file)
    : path_(std::move(path)), program_(program), file_(std::move(file)) {}

std::optional<std::string> RotatedLog::ForEachLine(const TakeLine &take) {
    if (program_ != nullptr)
        return ForEachCompressedLine(take);
    LogReader reader(std::move(file_));
    TakeLines(reader, UINTMAX_MAX, take);
    return std::nullopt;
}

std::optional<std::string> RotatedLog::ForEachCompressedLine(const TakeLine &take) {
    constexpr std::uintmax_t most = std::uintmax_t{1} << 30;
    try {
        Decompressor decompressor(program_, file_);
        LogReader reader(decompressor.TakeOutput());
        if (!TakeLines(reader, most, take))
            return "it has more than 1 GiB of text, and the rest is left out";
        if (!decompressor.Succeeds())
            return std::string(program_) + " cannot read all of it";
    } catch (const Failure &failure) {
        return failure.what();
    }
    return std::nullopt;
}

RotatedLogs OpenRotatedLogs(const Appliance &appliance, const Descriptor &present) {
    constexpr int mostTries = 5; // a rotation meanwhile renames and compresses files
    RotatedLogs logs;
    for (int tries = 1; tries <= mostTries; ++tries)
        if (TryToOpen(appliance, present, logs))
            break;
    return logs;
}

} // namespace kest::ctl
