// Runs the measured functions while another program counts their instructions.
//
// Without arguments, runs each function once under callgrind, which counts each separately. With
// NAME RUNS, runs one function this number of times, for counters of a whole process. With --list,
// prints the name and the number of items of each function, and which of them are references.

#include "bench/cases.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#ifdef __has_include
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#endif

namespace kest {

#endif

namespace {

void RunEach() {
#ifdef CALLGRIND_ZERO_STATS
    for (const Case &what : Cases()) {
        what.run(); // creates objects that are created only once
        CALLGRIND_ZERO_STATS;
        CALLGRIND_START_INSTRUMENTATION;
        what.run();
        CALLGRIND_STOP_INSTRUMENTATION;
        CALLGRIND_DUMP_STATS_AT(what.name.c_str());
    }
#endif
}

bool RunOne(const char *name, int runs) {
    for (const Case &what : Cases()) {
        if (what.name != name)
            continue;
        for (int i = 0; i < runs; ++i)
            what.run();
        return true;
    }
    return false;
}

} // namespace

} // namespace kest

int main(int argc, char **argv) {
    if (argc == 3)
        return kest::RunOne(argv[1], std::stoi(argv[2])) ? EXIT_SUCCESS : EXIT_FAILURE;
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0)
        for (const kest::Case &what : kest::Cases())
            std::cout << what.name << " " << what.items
                      << (what.isReference ? " reference\n" : "\n");
    else
        kest::RunEach();
    return EXIT_SUCCESS;
}
