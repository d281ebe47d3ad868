/* Runs a command in a control group, which counts its CPU time and that of all its children.
 *
 *     charged FILE GROUP COMMAND...
 *
 * GROUP is an open descriptor of cgroup.procs of the group. Writes the time at which the command
 * starts to FILE, in nanoseconds of the monotonic clock. Linked statically, so that only the dynamic
 * loader of the daemon is counted. */
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
