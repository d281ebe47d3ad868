// Files of a test, all inside a directory that is removed at its end.

#ifndef TESTS_UNIT_SUPPORT_FILES_H
#define TESTS_UNIT_SUPPORT_FILES_H

#include <string>
#include <sys/stat.h>
#include <vector>

namespace kest {

class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    ~TemporaryDirectory();

    const std::string &Path() const { return path_; }
    // The path of `name` inside the directory.
    std::string File(const std::string &name) const { return path_ + "/" + name; }
    // The names in the directory, in byte order.
    std::vector<std::string> Names() const;

private:
    std::string path_;
};

// While an object of this class lives, files are made with this umask.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;
    ~Umask() { umask(before_); }

private:
    mode_t before_;
};

void WriteText(const std::string &path, const std::string &text);

// The content of the file. The test fails if it cannot be read.
std::string ReadText(const std::string &path);

// The permission bits of `path`, links followed.
mode_t ModeOf(const std::string &path);

// Whether `path` exists, even as a dangling link.
bool PathExists(const std::string &path);

} // namespace kest

#endif
