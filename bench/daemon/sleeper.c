/* The floor of a cycle: sleeps 60 seconds, again and again, and does nothing else.
 *
 * After each sleep a line, "sleeper NANOSECONDS" of the real-time clock, goes into /tmp/starts. */
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
