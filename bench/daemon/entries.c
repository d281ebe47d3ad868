/* Measures the stub of the copy: creates COUNT empty files in a new directory.
 *
 *     entries COUNT DIRECTORY
 *
 * Prints the CPU time for this, in nanoseconds. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

static long long taken(void) {
    struct timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

int main(int argc, char **argv) {
    if (argc != 3 || mkdir(argv[2], 0755) != 0)
        return 2;
    long long start = taken();
    for (int i = 0; i < atoi(argv[1]); ++i) {
        char path[4096];
        snprintf(path, sizeof path, "%s/pkg-jobs%d-j%d", argv[2], i, i);
        if (mknod(path, S_IFREG | 0700, 0) != 0)
            return 1;
    }
    printf("%lld\n", taken() - start);
    return 0;
}
