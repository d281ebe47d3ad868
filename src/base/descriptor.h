// Ownership of file descriptors.

#ifndef BASE_DESCRIPTOR_H
#define BASE_DESCRIPTOR_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <sys/select.h>

namespace kest {

// Owns one file descriptor and closes it at the end of its life, errno untouched.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.Release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { Close(); }

    explicit operator bool() const { return fd_ >= 0; }
    int Get() const { return fd_; }
    // Gives the descriptor up without closing it.
    int Release();
    void Close();

private:
    int fd_ = -1;
};

// How large a file may be that is opened, in bytes.
struct FileSize {
    std::uintmax_t least = 0;
    std::uintmax_t most = std::numeric_limits<std::uintmax_t>::max();
};

// Opens the regular file that `path` leads to for reading, if it is of that size. The name is
// looked up once, without opening what it names: opening a device has effects of its own, and a
// second look-up could find another file. Where "/proc" is not mounted there is a second look-up,
// which follows no link and must find the same file (ESTALE). Does not wait, neither in opening nor
// in reading. Without one, errno tells why not (EISDIR, EINVAL for what is no file, EBADMSG for one
// too small, EFBIG). A relative path is looked up in `directory`, a descriptor of one or AT_FDCWD.
Descriptor OpenRegularFile(const std::string &path, const FileSize &allowed = {});
Descriptor OpenRegularFileAt(int directory, const std::string &path, const FileSize &allowed = {});

// Opens the regular file of the caller's own with this one name at `path`, where others may have
// put something else first. `flags` are those of open(2); a file that is made has mode 0600. No
// link is followed, and nothing is waited for. Without one, errno tells why not (EPERM for anything
// else).
Descriptor OpenOwnFile(const std::string &path, int flags);

// Reads from `fd` up to its end. Returns false with errno set when reading fails or there are more
// than `limit` bytes (EFBIG); `content` is then unspecified.
bool ReadAll(int fd, std::size_t limit, std::string &content);

// Writes all of `content` to `fd`. Returns false with errno set when a part could not be written.
bool WriteAll(int fd, std::string_view content);

// The set of one descriptor below FD_SETSIZE, for select(); an empty one for -1.
fd_set SelectSetOf(int fd);

// Closes every descriptor but standard input, output and error and `kept`, the system log's
// included, which the next message opens again.
void CloseInheritedDescriptors(int kept = -1);

} // namespace kest

#endif
