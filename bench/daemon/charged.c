/* Runs a command whose CPU time, with that of all its children, is charged to a control group.
 *
 *     charged FILE GROUP COMMAND...
 *
 * GROUP is an open descriptor of the group's cgroup.procs. The moment at which the command begins
 * goes into FILE, in nanoseconds of the monotonic clock. Linked statically: the daemon measured is
 * the first thing in the group that needs a loader. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv) {
    if (argc < 4)
        return 2;
    int group = atoi(argv[2]);
    int file = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file == -1 || write(group, "0", 1) != 1) {
        perror("charged");
        return 1;
    }
    close(group);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    dprintf(file, "%lld\n", now.tv_sec * 1000000000LL + now.tv_nsec);
    execv(argv[3], argv + 3);
    perror(argv[3]);
    return 1;
}
