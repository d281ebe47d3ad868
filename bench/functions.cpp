// Measures the times of functions: function_bench [options of Google Benchmark]. Times are those of
// one run; `each` is the time per item, and `allocations` the number of allocations per item.

#include "bench/cases.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <new>

namespace kest {

namespace {

std::atomic<std::size_t> allocations{0};

void Measure(benchmark::State &state, const Case &what) {
    what.run(); // creates objects that are created only once
    const std::size_t before = allocations;
    while (state.KeepRunning())
        what.run();
    const auto items = static_cast<double>(state.iterations()) * what.items;
    state.counters["each"] =
        benchmark::Counter(items, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["allocations"] = static_cast<double>(allocations - before) / items;
}

} // namespace

} // namespace kest

void *operator new(std::size_t size) {
    ++kest::allocations;
    if (void *memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}

void operator delete(void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    for (const kest::Case &what : kest::Cases())
        benchmark::RegisterBenchmark(what.name.c_str(), kest::Measure, what)
            ->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
