#include "ctl/system/files.h"

#include "base/descriptor.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace kest::ctl {

std::string ReadFile(const std::string &path) {
    constexpr std::size_t most = std::size_t{1} << 20;
    std::string content;
    const Descriptor file = OpenRegularFile(path);
    if (!file || !ReadAll(file.Get(), most, content))
        content.clear();
    return content;
}

std::string ReadHead(const std::string &path, std::size_t most) {
    const Descriptor file = OpenRegularFile(path);
    std::string head(file ? most : 0, '\0');
    std::size_t size = 0;
    while (size < head.size()) {
        const ssize_t count = read(file.Get(), &head[size], head.size() - size);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        size += static_cast<std::size_t>(count);
    }
    head.resize(size);
    return head;
}

std::string ReadLink(const std::string &path) {
    std::string target(PATH_MAX, '\0');
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    target.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return target;
}

bool ReplaceFile(const std::string &path, const std::string &text, mode_t mode) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    std::string fresh = path + ".XXXXXX";
    Descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
    if (!file)
        return false;
    if (fchmod(file.Get(), mode) == 0 && WriteAll(file.Get(), text) && close(file.Release()) == 0 &&
        rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

} // namespace kest::ctl
