// Where the tests' execution log is.

#ifndef TESTS_UNIT_SUPPORT_EXECUTION_LOG_H
#define TESTS_UNIT_SUPPORT_EXECUTION_LOG_H

#include <string>

// The file that `executionLog` appends to.
std::string ExecutionLogPath();

#endif
