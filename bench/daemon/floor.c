/* The floor: so many bare starts of a program, each waited for before the next.
 *
 *     floor COUNT PROGRAM ARGUMENT...
 *
 * A "@" at the end of an argument becomes the number of the start. Prints the nanoseconds that all
 * of them took. */
#define _GNU_SOURCE
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

/* `argument` itself, or a copy with the number in it. */
static char *numbered(char *argument, int number) {
    static char text[4096];
    size_t size = strlen(argument);
    if (size == 0 || argument[size - 1] != '@')
        return argument;
    snprintf(text, sizeof text, "%.*s%d", (int)size - 1, argument, number);
    return text;
}

int main(int argc, char **argv) {
    if (argc < 3 || argc > 16)
        return 2;
    long long start = now();
    for (int i = 0; i < atoi(argv[1]); ++i) {
        char *command[16] = {NULL};
        for (int place = 2; place < argc; ++place)
            command[place - 2] = numbered(argv[place], i);
        pid_t pid;
        int status;
        if (posix_spawn(&pid, command[0], NULL, NULL, command, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0)
            return 1;
    }
    printf("%lld\n", now() - start);
    return 0;
}
