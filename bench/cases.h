// The functions that are measured: functions.cpp measures times, instructions.cpp instructions.

#ifndef BENCH_CASES_H
#define BENCH_CASES_H

#include <functional>
#include <string>
#include <vector>

namespace kest {

struct Case {
    std::string name;
    int items; // the number of items that one run processes
    std::function<void()> run;
    bool isReference; // the unavoidable cost, or that of a simple implementation, for comparison
};

// Created once, together with their jobs.
const std::vector<Case> &Cases();

} // namespace kest

#endif
