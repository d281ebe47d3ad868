// Looks at the entries of "/tmp/kestcrond" without a pause, as somebody with a shell would, and
// prints what is wrong with one: its type, a set-id bit, that it can be read, or that it was run as
// root. Each kind is printed once.

#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static void Report(const char *kind, const char *name) {
    static char reported[1024];
    char line[64];
    snprintf(line, sizeof line, "%s;", kind);
    if (strstr(reported, line) != NULL)
        return;
    strcat(reported, line);
    printf("%s %s\n", kind, name);
    fflush(stdout);
}

static void Run(int directory, const char *name) {
    const pid_t child = fork();
    if (child == 0) {
        char path[512];
        snprintf(path, sizeof path, "/tmp/kestcrond/%s", name);
        execl(path, path, (char *)NULL);
        _exit(1);
    }
    waitpid(child, NULL, 0);
    (void)directory;
}

static void Look(int directory, const char *name) {
    struct stat status;
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == -1 || S_ISLNK(status.st_mode))
        return;
    if (!S_ISREG(status.st_mode)) {
        Report("type", name);
        return;
    }
    if (status.st_mode & (S_ISUID | S_ISGID)) {
        Report("set-id", name);
        Run(directory, name);
    }
    const int file = openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (file != -1) {
        if (status.st_uid != getuid())
            Report("readable", name);
        close(file);
    }
}

int main(void) {
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        DIR *entries = opendir("/tmp/kestcrond");
        if (entries == NULL)
            continue;
        for (struct dirent *entry; (entry = readdir(entries)) != NULL;)
            if (entry->d_name[0] != '.')
                Look(dirfd(entries), entry->d_name);
        closedir(entries);
    }
}
