/* The lower bound: starts a program COUNT times, and waits for each to end before the next.
 *
 *     floor COUNT PROGRAM ARGUMENT...
 *
 * A "@" at the end of an argument is replaced by the number of the start. Prints the time of all
 * starts, in nanoseconds. */
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

/* Returns `argument`, or a copy in which the number replaces the "@". */
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
        for (int word = 2; word < argc; ++word)
            command[word - 2] = numbered(argv[word], i);
        pid_t pid;
        int status;
        if (posix_spawn(&pid, command[0], NULL, NULL, command, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0)
            return 1;
    }
    printf("%lld\n", now() - start);
    return 0;
}
