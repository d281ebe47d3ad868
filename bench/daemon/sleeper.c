/* The lower bound of a cycle: only sleeps for 60 seconds, repeatedly.
 *
 * Writes a line "sleeper NANOSECONDS", by the real-time clock, to /tmp/starts after each sleep. */
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int main(void) {
    FILE *file = fopen("/tmp/starts", "w");
    if (file == NULL)
        return 1;
    setvbuf(file, NULL, _IOLBF, 0);
    for (;;) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        fprintf(file, "sleeper %lld\n", now.tv_sec * 1000000000LL + now.tv_nsec);
        sleep(60);
    }
}
