// The program of the jobs: appends one line to "/dev/ran" with the identity that it was
// started with, its arguments and its environment.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/resource.h>
#include <unistd.h>

namespace {

void PutEscaped(std::FILE *line, const char *text) {
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte <= 0x20 || byte >= 0x7f || byte == '\\')
            std::fprintf(line, "\\x%02x", byte);
        else
            std::fputc(byte, line);
    }
}

// What the kernel shows of this process, as far as it can depend on the one that started it.
void PutStatus(std::FILE *line) {
    std::FILE *const file = std::fopen("/proc/self/status", "re");
    char text[4096];
    while (file != nullptr && std::fgets(text, sizeof text, file) != nullptr)
        for (const char *name : {"Umask:", "Uid:", "Gid:", "Groups:", "SigBlk:", "SigIgn:",
                                 "CapInh:", "CapEff:", "NoNewPrivs:", "Seccomp:"})
            if (std::strncmp(text, name, std::strlen(name)) == 0) {
                text[std::strcspn(text, "\n")] = '\0';
                for (char *tab = text; (tab = std::strchr(tab, '\t')) != nullptr;)
                    *tab = ' ';
                std::fprintf(line, " %s", text);
            }
    if (file != nullptr)
        std::fclose(file);
}

void PutOpenFiles(std::FILE *line) {
    constexpr int most = 64;
    for (int number = 0; number < most; ++number) {
        char link[64];
        char target[4096] = {};
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", number);
        if (readlink(link, target, sizeof target - 1) > 0) {
            std::fprintf(line, " %d=", number);
            PutEscaped(line, target);
        }
    }
}

void PutLimits(std::FILE *line) {
    for (const auto resource : {RLIMIT_CORE, RLIMIT_FSIZE, RLIMIT_NOFILE}) {
        rlimit limit{};
        getrlimit(resource, &limit);
        std::fprintf(line, " %lld/%lld", static_cast<long long>(limit.rlim_cur),
                     static_cast<long long>(limit.rlim_max));
    }
}

void PutList(std::FILE *line, char *const list[]) {
    for (; *list != nullptr; ++list) {
        std::fputs(" [", line);
        PutEscaped(line, *list);
        std::fputc(']', line);
    }
}

} // namespace

int main(int /*argc*/, char *argv[]) {
    char *text = nullptr;
    std::size_t size = 0;
    char directory[4096] = {};
    std::FILE *const line = open_memstream(&text, &size);
    std::fputs("arguments", line);
    PutList(line, argv);
    std::fprintf(line, " in %s as", getcwd(directory, sizeof directory));
    PutStatus(line);
    std::fputs(" open", line);
    PutOpenFiles(line);
    std::fputs(" limits", line);
    PutLimits(line);
    std::fprintf(line, " session %s environment", getsid(0) == getpid() ? "own" : "another's");
    PutList(line, environ);
    std::fputc('\n', line);
    std::fclose(line);
    const int file = open("/dev/ran", O_WRONLY | O_APPEND | O_CLOEXEC);
    return write(file, text, size) == static_cast<ssize_t>(size) ? EXIT_SUCCESS : EXIT_FAILURE;
}
