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
    // Releases the descriptor without closing it.
    int Release();
    void Close();

private:
    int fd_ = -1;
};

// The allowed size of a file, in bytes.
struct FileSize {
    std::uintmax_t least = 0;
    std::uintmax_t most = std::numeric_limits<std::uintmax_t>::max();
};

// Opens the regular file at `path` for reading if its size is allowed. Symbolic links are followed.
// The name is looked up once, without opening the object: opening a device has side effects, and a
// second look-up could find another file. Without "/proc" a second look-up is made; it follows no
// link and must find the same file (ESTALE). Neither opening nor reading blocks. On failure,
// returns an empty descriptor with errno set (EISDIR; EINVAL: not a regular file; EBADMSG: too
// small; EFBIG). A relative path is looked up in `directory`, a descriptor of one or AT_FDCWD.
Descriptor OpenRegularFile(const std::string &path, const FileSize &allowed = {});
Descriptor OpenRegularFileAt(int directory, const std::string &path, const FileSize &allowed = {});

// Opens the regular file at `path` in a directory that others can write to. The file must belong to
// the caller and have no other name. `flags` are those of open(2); a new file has mode 0600.
// Follows no link and does not block. On failure, returns an empty descriptor with errno set
// (EPERM: something else exists at `path`).
Descriptor OpenOwnFile(const std::string &path, int flags);

// Reads from `fd` up to its end. Returns false with errno set when reading fails or there are more
// than `limit` bytes (EFBIG); `content` is then unspecified.
bool ReadAll(int fd, std::size_t limit, std::string &content);

// Writes all of `content` to `fd`. Returns false with errno set when a part could not be written.
bool WriteAll(int fd, std::string_view content);

// The set of one descriptor below FD_SETSIZE, for select(); an empty one for -1.
fd_set SelectSetOf(int fd);

// Closes every descriptor except standard input, output and error, and `kept`. The connection to
// the system log is closed too; the next message opens it again.
void CloseInheritedDescriptors(int kept = -1);

} // namespace kest

#endif
