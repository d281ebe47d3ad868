#include "ctl/display/timeline.h"

#include "base/descriptor.h"
#include "ctl/commands/commands.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "ctl/system/failure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

// Replaces the file in one step. Links are replaced rather than followed and the old mode is
// dropped, because other users may have prepared them.
bool ReplaceFile(const std::string &path, const std::string &text) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    std::string fresh = path + ".XXXXXX";
    Descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
    if (!file)
        return false;
    if (fchmod(file.Get(), 0644) == 0 && WriteAll(file.Get(), text) && close(file.Release()) == 0 &&
        rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

void WriteSvg(const std::string &path, const std::string &svg) {
    if (path == "-")
        std::cout << svg;
    else if (!ReplaceFile(path, svg))
        throw Failure(path + ": " + std::strerror(errno));
}

} // namespace

int Timeline(const Context &context, const TimelineOptions &options) {
    if (context.json && !options.svg.empty())
        throw Failure("--json and --svg cannot be combined");
    const Snapshot snapshot = TakeSnapshot(context);
    const Runtime &runtime = snapshot.runtime;
    const Daemon &daemon = snapshot.daemon;
    const TimelineData data =
        CollectStarts(runtime.jobs, daemon, runtime.maxDelay, context.now, options.hours);
    if (!options.svg.empty())
        WriteSvg(options.svg, TimelineInSvg(data));
    else if (context.json)
        WriteJson(TimelineToJson(data));
    else
        std::cout << TimelineInText(data, context.screen);
    return 0;
}

} // namespace kest::ctl
