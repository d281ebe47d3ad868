// Stops every process of its own account that the daemon has made, as soon as it sees it.

#include <ctype.h>
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int IsCopying(const char *pid) {
    char path[300];
    char name[32] = "";
    snprintf(path, sizeof path, "/proc/%s/comm", pid);
    FILE *file = fopen(path, "r");
    if (file == NULL)
        return 0;
    if (fgets(name, sizeof name, file) == NULL)
        name[0] = '\0';
    fclose(file);
    return strncmp(name, "kestcrond", 9) == 0 || strcmp(name, "cp\n") == 0;
}

int main(void) {
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        DIR *processes = opendir("/proc");
        for (struct dirent *entry; (entry = readdir(processes)) != NULL;)
            if (isdigit((unsigned char)entry->d_name[0]) && IsCopying(entry->d_name))
                kill(atoi(entry->d_name), SIGSTOP);
        closedir(processes);
    }
}
