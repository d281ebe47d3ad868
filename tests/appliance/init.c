// The first program of the board: loads the modules that its disk takes, and hands over to the
// system on it. A program of its own: busybox as Debian 12 has it for this machine cannot look at
// a root directory that was used after 2038.

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

static int Fail(const char *what) {
    perror(what);
    return 1;
}

int main(void) {
    char line[256];
    FILE *list = fopen("/modules/list", "r");
    if (list == NULL)
        return Fail("list of modules");
    while (fgets(line, sizeof line, list) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        int module = open(line, O_RDONLY | O_CLOEXEC);
        if (module < 0 || syscall(SYS_finit_module, module, "", 0) != 0)
            return Fail(line);
        close(module);
    }
    fclose(list);

    if (mount("none", "/dev", "devtmpfs", 0, NULL) != 0)
        return Fail("/dev");
    // The disk may take a moment to be found. Without one the kernel tells that its init has ended.
    for (int tries = 0; mount("/dev/vda", "/root", "ext4", 0, NULL) != 0; ++tries) {
        if (tries == 600)
            return Fail("/dev/vda");
        usleep(100000);
    }
    umount("/dev");

    if (chdir("/root") != 0 || mount(".", "/", NULL, MS_MOVE, NULL) != 0 || chroot(".") != 0)
        return Fail("root");
    execl("/sbin/init", "/sbin/init", NULL);
    return Fail("/sbin/init");
}
