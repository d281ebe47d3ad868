// Makes "/tmp/kestcrond" whenever it is not there, and puts a program named like a job into it. With
// an argument it removes both again, so that the name is taken and free in turn.

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char kProgram[] = "#!/bin/sh\nid -un >> /tmp/ran/taken\n";

int main(int argc, char *argv[]) {
    (void)argv;
    printf("ready\n");
    fflush(stdout);
    umask(0);
    for (;;) {
        if (mkdir("/tmp/kestcrond", 0777) == 0 || argc > 1) {
            const int file = open("/tmp/kestcrond/builtin-f-x", O_WRONLY | O_CREAT, 0777);
            if (file != -1) {
                (void)!write(file, kProgram, strlen(kProgram));
                close(file);
            }
        }
        if (argc > 1) {
            unlink("/tmp/kestcrond/builtin-f-x");
            rmdir("/tmp/kestcrond");
        }
    }
}
