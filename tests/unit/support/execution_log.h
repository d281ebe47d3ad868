// The path of the execution log of the tests.

#ifndef TESTS_UNIT_SUPPORT_EXECUTION_LOG_H
#define TESTS_UNIT_SUPPORT_EXECUTION_LOG_H

#include <string>

namespace kest {

// The file that `executionLog` appends to.
std::string ExecutionLogPath();

} // namespace kest

#endif
