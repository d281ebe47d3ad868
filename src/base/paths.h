// The paths of the daemon's files. The tool reads them too.

#ifndef BASE_PATHS_H
#define BASE_PATHS_H

namespace kest {

// Job files, in the order in which the sources are read. The last one has a directory per account.
constexpr const char *kBuiltinJobs = "/usr/kest/share/kestcron.d";
constexpr const char *kBuiltinDynamicJobs = "/usr/kest/etc/kestcron.d";
constexpr const char *kPackageJobs = "/usr/local/etc/kestcron.d";
constexpr const char *kAccountJobs = "/usr/local/etc/kestcron_nonroot.d";

// Holds the staged programs, which the copy program puts there.
constexpr const char *kRuntimeDirectory = "/tmp/kestcrond";
constexpr const char *kCopyProgram = "/usr/bin/cp";

constexpr const char *kRuntimeFile = "/var/run/kestcrond.config";
constexpr const char *kRuntimeTemplateFile = "/var/run/kestcrond.st.config";
constexpr const char *kPersistentFile = "/usr/kest/etc/kestcrond.config";
constexpr const char *kPersistentTemplateFile = "/usr/kest/etc/kestcrond.st.config";
constexpr const char *kPidFile = "/var/run/kestcrond.pid";
constexpr const char *kInstanceLockFile = "/var/run/kestcrond.lock";
constexpr const char *kExecutionLogFile = "/var/log/kestcrond-execute.log";
constexpr const char *kLogStagingFile = "/tmp/kestcrond.log";
constexpr const char *kLogLockFile = "/var/run/kestcrond-execute.lock";
constexpr unsigned kLogStagingKiB = 1024;

constexpr const char *kDaemonName = "kestcrond";
constexpr const char *kPassiveOption = "--passive-mode";

} // namespace kest

#endif
