#include "ctl/system/appliance.h"

#include "core/job_files.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "platform/kestsdk.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <memory>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>

namespace kest::ctl {

namespace {

std::string ErrorText() {
    return std::strerror(errno);
}

void ReadAccounts(const std::string &path, std::map<uid_t, std::string> &accounts,
                  std::map<std::string, std::string> &homes) {
    std::string content = ReadFile(path);
    if (content.empty())
        return;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fmemopen(content.data(), content.size(), "r"),
                                                      std::fclose);
    while (const passwd *entry = file ? fgetpwent(file.get()) : nullptr) {
        accounts.emplace(entry->pw_uid, entry->pw_name);
        homes.emplace(entry->pw_name, entry->pw_dir);
    }
}

} // namespace

Appliance::Appliance(const std::string &root) {
    if (root.empty())
        return;
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(root.c_str(), nullptr),
                                                           std::free);
    struct stat status {};
    if (!real || stat(real.get(), &status) == -1)
        throw Failure(root + ": " + ErrorText());
    if (!S_ISDIR(status.st_mode))
        throw Failure(root + ": " + std::strerror(ENOTDIR));
    root_ = std::strcmp(real.get(), "/") == 0 ? "/." : real.get();
    ReadAccounts(Locate("/etc/passwd"), accounts_, homes_);
}

std::string Appliance::Locate(const std::string &path) const {
    if (IsLocal())
        return path;
    constexpr int mostLinks = 40; // the limit of the kernel
    int links = 0;
    std::deque<std::string> remaining;
    std::string resolved;
    const auto prepend = [&](const std::string &components) {
        std::deque<std::string> parts;
        std::istringstream stream(components);
        for (std::string part; std::getline(stream, part, '/');)
            parts.push_back(part);
        remaining.insert(remaining.begin(), parts.begin(), parts.end());
    };
    prepend(path);
    while (!remaining.empty()) {
        const std::string part = remaining.front();
        remaining.pop_front();
        if (part == "..")
            resolved.erase(std::min(resolved.rfind('/'), resolved.size()));
        if (part.empty() || part == "." || part == "..")
            continue;
        const std::string directory = resolved;
        resolved.append("/").append(part);
        const std::string target = ReadLink(root_ + resolved);
        if (target.empty())
            continue;
        if (++links > mostLinks)
            return {};
        resolved = target.front() == '/' ? "" : directory;
        prepend(target);
    }
    return root_ + resolved;
}

bool Appliance::HasAccount(const std::string &name) const {
    uid_t uid = 0;
    gid_t gid = 0;
    if (IsLocal())
        return name.find('\0') == std::string::npos &&
               KESTUserGetUGID(name.c_str(), &uid, &gid) == 0;
    return homes_.count(name) != 0; // accounts_ has one name of each user ID
}

std::optional<std::string> Appliance::AccountName(uid_t uid) const {
    if (IsLocal()) {
        const passwd *entry = getpwuid(uid);
        return entry != nullptr ? std::optional<std::string>(entry->pw_name) : std::nullopt;
    }
    const auto found = accounts_.find(uid);
    return found != accounts_.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

std::optional<std::string> Appliance::HomeOf(const std::string &name) const {
    if (!HasAccount(name))
        return std::nullopt;
    if (IsLocal()) {
        const passwd *entry = getpwnam(name.c_str());
        return entry != nullptr ? std::optional<std::string>(entry->pw_dir) : std::nullopt;
    }
    const auto found = homes_.find(name);
    return found != homes_.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

std::vector<std::string> NamesIn(const std::string &directory) {
    const std::unique_ptr<DIR, int (*)(DIR *)> opened(opendir(directory.c_str()), closedir);
    if (!opened)
        throw Failure(directory + ": " + ErrorText());
    std::vector<std::string> names;
    while (const dirent *entry = readdir(opened.get()))
        if (IsJobFileName(entry->d_name))
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kest::ctl
