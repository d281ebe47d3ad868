// Linked into the coverage build only, around every call of _exit: a child of the daemon ends
// without running destructors, and its counts would be lost.

#include <unistd.h>

extern "C" {
void __gcov_dump(void);
void __real__exit(int status) __attribute__((noreturn));
void __wrap__exit(int status) __attribute__((noreturn));

void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}
}
