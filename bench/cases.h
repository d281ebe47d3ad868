// The functions that are measured: by the clock in functions.cpp, by instructions in
// instructions.cpp.

#ifndef BENCH_CASES_H
#define BENCH_CASES_H

#include <functional>
#include <string>
#include <vector>

namespace kest {

struct Case {
    std::string name;
    int items; // how often one run does what is named
    std::function<void()> run;
    bool isReference; // what the unavoidable, or the plain way, costs
};

// Made once, with the jobs that they work on.
const std::vector<Case> &Cases();

} // namespace kest

#endif
