// Memory that runs out in children of the test. The test program defines the allocation functions.

#ifndef TESTS_UNIT_SUPPORT_MEMORY_H
#define TESTS_UNIT_SUPPORT_MEMORY_H

namespace kest {

// While an object of this class lives, allocations of one kind fail in the children of this
// process.
class NoMemoryInChildren {
public:
    enum class Kind { Throwing, ReportingArray }; // new T, or new (std::nothrow) T[n]
    explicit NoMemoryInChildren(Kind kind);
    NoMemoryInChildren(const NoMemoryInChildren &) = delete;
    NoMemoryInChildren &operator=(const NoMemoryInChildren &) = delete;
    ~NoMemoryInChildren();
};

} // namespace kest

#endif
