// Lets the link named by the first argument lead to each of the others in turn, without a pause.

#include <stdio.h>
#include <unistd.h>

int main(int argc, char *argv[]) {
    char fresh[512];
    snprintf(fresh, sizeof fresh, "%s.fresh", argv[1]);
    printf("ready\n");
    fflush(stdout);
    for (int i = 2;; i = i + 1 < argc ? i + 1 : 2) {
        unlink(fresh);
        if (symlink(argv[i], fresh) == 0)
            rename(fresh, argv[1]);
    }
}
