#include "ctl/system/log_file.h"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::ctl {

bool LogReader::ReadLine(std::string &line) {
    constexpr std::size_t block = 65536;
    constexpr std::size_t longest = std::size_t{1} << 20;
    for (auto end = rest_.find('\n', read_); true; end = rest_.find('\n', read_)) {
        if (end != std::string::npos) {
            line = rest_.substr(read_, end - read_);
            read_ = end + 1;
            return true;
        }
        rest_.erase(0, std::exchange(read_, 0));
        if (rest_.size() > longest) {
            line = std::exchange(rest_, {});
            return true;
        }
        const std::size_t kept = rest_.size();
        rest_.resize(kept + block);
        const ssize_t size = read(file_.Get(), rest_.data() + kept, block);
        rest_.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        if (size <= 0)
            return false;
    }
}

std::string LogReader::TakePartialLine() {
    return std::exchange(rest_, {}).substr(std::exchange(read_, 0));
}

bool LogFile::Open() {
    lines_ = LogReader(OpenRegularFile(path_));
    return IsOpen();
}

void LogFile::SkipToLast(std::uintmax_t most) {
    struct stat status {};
    std::string cut;
    const int file = lines_.File().Get();
    if (fstat(file, &status) == -1 || static_cast<std::uintmax_t>(status.st_size) <= most)
        return;
    lseek(file, status.st_size - static_cast<off_t>(most), SEEK_SET);
    ReadLine(cut);
}

bool LogFile::IsRotated() const {
    struct stat opened {};
    struct stat named {};
    const int file = lines_.File().Get();
    if (fstat(file, &opened) == -1 || stat(path_.c_str(), &named) == -1)
        return false; // the new file does not exist yet
    return opened.st_ino != named.st_ino || opened.st_dev != named.st_dev ||
           opened.st_size < lseek(file, 0, SEEK_CUR);
}

} // namespace kest::ctl
