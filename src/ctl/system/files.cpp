#include "ctl/system/files.h"

#include "base/descriptor.h"

#include <cerrno>
#include <climits>
#include <cstddef>
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

} // namespace kest::ctl
