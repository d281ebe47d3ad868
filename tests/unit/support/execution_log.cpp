// The process-wide execution log that the job model writes to, in a directory of the tests.

#include "tests/unit/support/execution_log.h"

#include "log/memorylogger.h"
#include "tests/unit/support/files.h"

namespace kest {

namespace {

std::string InLogDirectory(const std::string &name) {
    static const TemporaryDirectory directory;
    return directory.File(name);
}

} // namespace

std::string ExecutionLogPath() {
    return InLogDirectory("execute.log");
}

KEST::MemoryLogger executionLog(ExecutionLogPath(), InLogDirectory("staging"), 1024,
                                InLogDirectory("lock"));

} // namespace kest
