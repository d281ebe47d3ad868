#include "job/cronjob.h"
#include "job/account.h"
#include "job/runtime_directory.h"
#include "log/error_log.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace kest {

namespace {

// Whether the error is about the object at a path, and not a temporary lack of resources.
bool IsAboutPath(int error) {
    constexpr std::array<int, 7> errors{ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG,
                                        EISDIR, EINVAL,  EACCES};
    return std::find(errors.begin(), errors.end(), error) != errors.end();
}

// The message includes errno.
void ReportFailedCopy(const std::string &source, const std::string &staged,
                      const ProgramCopy &copy) {
    errno = copy.error;
    LOG_ERROR("Failed to cp [%s][%s][0x%04X %s:%d]", source.c_str(), staged.c_str(),
              static_cast<unsigned>(copy.platformError), copy.platformFile.data(),
              copy.platformLine);
}

// Reports the step that failed when a copy was put into place.
void ReportFailedStep(Staging::Step step, const std::string &staged, const JobUser &user) {
    if (step == Staging::Step::Chmod) {
        LOG_ERROR("Failed to chmod [%s][%m]", staged.c_str());
        return;
    }
    if (step == Staging::Step::Stat)
        LOG_ERROR("Failed to stat [%s][%m]", staged.c_str());
    if (step == Staging::Step::Chown)
        LOG_ERROR("Failed to chown [%s][%s][%m]", staged.c_str(), user.name.c_str());
    LOG_ERROR("Failed to chown if permissions are incorrect [%s]", staged.c_str());
}

// The look-up failure may be temporary, so the job is kept.
StagingResult FailWithoutAccount(const std::string &staged, const JobUser &user) {
    LOG_ERROR("Unable to get user group info");
    ReportFailedStep(Staging::Step::None, staged, user);
    return StagingResult::Failed;
}

} // namespace

StagingResult MoveBinaryToTmp(CronJob &job, KnownAccounts &accounts, Staging &staging) {
    const std::string name(job.Name());
    const std::string staged = StagedPath(name);
    const std::string source = job.Program();
    const bool isOfAccount = IsOfAccountDirectory(name);
    JobUser user;
    if (isOfAccount) {
        user = ResolveJobUser(job, accounts);
        if (!user.valid)
            return FailWithoutAccount(staged, user);
    }
    const ProgramCopy copy = staging.Copy(name, source, isOfAccount ? &user : nullptr);
    if (copy.outcome == ProgramCopy::Outcome::NoProgram) {
        errno = copy.error;
        LOG_ERROR("missing binary %s", source.c_str());
        return IsAboutPath(copy.error) ? StagingResult::Refused : StagingResult::Failed;
    }
    if (copy.outcome == ProgramCopy::Outcome::Stopped)
        return StagingResult::Stopped;
    if (copy.outcome != ProgramCopy::Outcome::Made) {
        ReportFailedCopy(source, staged, copy);
        return copy.outcome == ProgramCopy::Outcome::Refused && IsAboutPath(copy.error)
                   ? StagingResult::Refused
                   : StagingResult::Failed;
    }
    job.SetStaged(true);
    if (!isOfAccount)
        user = ResolveJobUser(job, accounts);
    if (!user.valid)
        return FailWithoutAccount(staged, user);
    const Staging::Step step = staging.PutInPlace(name, user);
    if (step == Staging::Step::None)
        return StagingResult::Staged;
    if (step == Staging::Step::Rename)
        ReportFailedCopy(source, staged, ProgramCopy{ProgramCopy::Outcome::Failed, errno});
    else
        ReportFailedStep(step, staged, user);
    return StagingResult::Failed;
}

} // namespace kest
