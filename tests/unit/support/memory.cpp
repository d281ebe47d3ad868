#include "tests/unit/support/memory.h"

#include <cstdlib>
#include <new>
#include <optional>
#include <unistd.h>

namespace kest {

namespace {

using Kind = NoMemoryInChildren::Kind;

struct Exhaustion {
    std::optional<Kind> kind;
    pid_t parent = 0;
};
Exhaustion exhaustion;

bool IsExhausted(Kind kind) {
    return exhaustion.kind == kind && exhaustion.parent != getpid();
}

} // namespace

NoMemoryInChildren::NoMemoryInChildren(Kind kind) {
    exhaustion = {kind, getpid()};
}
NoMemoryInChildren::~NoMemoryInChildren() {
    exhaustion = {};
}

} // namespace kest

// The allocation functions of C++, implemented by those of the C library.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,hicpp-no-malloc)
void *operator new(std::size_t size) {
    void *memory =
        kest::IsExhausted(kest::Kind::Throwing) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void *operator new[](std::size_t size) {
    return ::operator new(size);
}

void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}

void *operator new[](std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return kest::IsExhausted(kest::Kind::ReportingArray) ? nullptr
                                                         : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void *memory) noexcept {
    std::free(memory);
}
void operator delete[](void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,hicpp-no-malloc)
