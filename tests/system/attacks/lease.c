// Holds a write lease on each file named and never gives one back.

#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char *argv[]) {
    signal(SIGIO, SIG_IGN);
    for (int i = 1; i < argc; ++i) {
        const int file = open(argv[i], O_WRONLY);
        if (file == -1 || fcntl(file, F_SETLEASE, F_WRLCK) == -1) {
            perror(argv[i]);
            return 1;
        }
    }
    printf("ready\n");
    fflush(stdout);
    for (;;)
        pause();
}
