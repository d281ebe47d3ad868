#include "platform/kestcore.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest {

namespace {

// Expects the last call to have recorded a failure, with a place.
void ExpectFailureRecorded() {
    EXPECT_NE(XLIBCErrGet(), 0);
    EXPECT_GT(XLIBCErrorGetLine(), 0);
    EXPECT_STREQ(XLIBCErrorGetFile(), "kestcore.cpp");
}

void ExpectSuccessRecorded() {
    EXPECT_EQ(XLIBCErrGet(), 0);
    EXPECT_STREQ(XLIBCErrorGetFile(), "");
}

// The state of the process in /proc, such as 'Z' for one that has ended and was not collected, or 0
// if there is no such process.
char StateOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    if (!PathExists(path))
        return 0;
    const std::string stat = ReadText(path);
    const auto name = stat.rfind(") ");
    return name == std::string::npos ? '\0' : stat[name + 2];
}

// A child that has ended and was not collected.
pid_t MakeZombie() {
    const pid_t child = StartChild([] { return 7; });
    EXPECT_TRUE(Eventually([child] { return StateOf(child) == 'Z'; }));
    return child;
}

// A child that runs until the test ends it.
class LivingChild {
public:
    LivingChild()
        : pid_(StartChild([] {
              pause();
              return 0;
          })) {}
    LivingChild(const LivingChild &) = delete;
    LivingChild &operator=(const LivingChild &) = delete;
    ~LivingChild() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_;
};

// --- Pid file and processes ---------------------------------------------------------------------

TEST(XLIBCReadPidFile, ReadsThePid) {
    struct Row {
        const char *content;
        pid_t pid;
    };
    const Row rows[] = {{"123\n", 123}, {"123", 123}, {"1\n", 1}, {"4194304\n", 4194304}};
    const TemporaryDirectory directory;
    const std::string path = directory.File("pid");
    for (const Row &row : rows) {
        WriteText(path, row.content);
        EXPECT_EQ(XLIBCReadPidFile(path.c_str()), row.pid) << row.content;
    }
}

TEST(XLIBCReadPidFile, IsNotPositiveWithoutAPid) {
    const TemporaryDirectory directory;
    const std::string path = directory.File("pid");
    for (const char *content : {"", "\n", "x", "-5\n", "0\n", "99999999999\n", "kestcrond 123\n"}) {
        WriteText(path, content);
        EXPECT_LE(XLIBCReadPidFile(path.c_str()), 0) << content;
    }
    EXPECT_LE(XLIBCReadPidFile(directory.File("absent").c_str()), 0);
    EXPECT_LE(XLIBCReadPidFile(directory.Path().c_str()), 0);
    ASSERT_EQ(mkfifo(directory.File("fifo").c_str(), 0600), 0);
    EXPECT_LE(XLIBCReadPidFile(directory.File("fifo").c_str()), 0);
}

TEST(XLIBCProcAlive, IsTrueForALivingProcess) {
    EXPECT_EQ(XLIBCProcAlive(getpid()), 1);
    EXPECT_EQ(XLIBCProcAlive(1), 1);
    pid_t pid = 0;
    {
        const LivingChild child;
        pid = child.Pid();
        EXPECT_EQ(XLIBCProcAlive(pid), 1);
    }
    EXPECT_EQ(XLIBCProcAlive(pid), 0);
    EXPECT_EQ(XLIBCProcAlive(2000000000), 0);
}

TEST(XLIBCProcAlive, ClearsTheErrorOfAnEarlierCall) {
    EXPECT_FALSE(XLIBCFileExist("/no/such/file"));
    EXPECT_NE(XLIBCErrGet(), 0);
    EXPECT_EQ(XLIBCProcAlive(getpid()), 1);
    EXPECT_EQ(XLIBCErrGet(), 0);
}

TEST(XLIBCProcAlive, IsFalseForAZombie) {
    const pid_t zombie = MakeZombie();
    EXPECT_EQ(kill(zombie, 0), 0);
    EXPECT_EQ(XLIBCProcAlive(zombie), 0);
    EXPECT_EQ(ExitStatusOf(zombie), 7);
}

// The name of a process may contain anything, even text that looks like its end.
TEST(XLIBCProcAlive, IsNotMisledByAName) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = StartChild([&] {
        prctl(PR_SET_NAME, "a) Z 1");
        const bool told = write(ends[1], "x", 1) == 1;
        pause();
        return told ? 0 : 1;
    });
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(XLIBCProcAlive(child), 1);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(XLIBCProcAlive, IsTrueForAProcessThatCannotBeSignalled) {
    const pid_t parent = getpid();
    EXPECT_EQ(InChild([parent] {
                  if (setuid(kOtherAccount) != 0)
                      return 1;
                  errno = ENOENT;
                  return XLIBCProcAlive(parent) == 1 && errno == ENOENT ? 0 : 2;
              }),
              0);
}

TEST(XLIBCProcGetByPid, ReturnsTheCommandName) {
    for (const char *name : {"kestcrond", "a b", "fifteen-letters"}) {
        SCOPED_TRACE(name);
        std::array<char, 16> before{};
        prctl(PR_GET_NAME, before.data());
        prctl(PR_SET_NAME, name);
        XLIBCProc *process = nullptr;
        EXPECT_EQ(XLIBCProcGetByPid(getpid(), &process), 0);
        prctl(PR_SET_NAME, before.data());
        ExpectSuccessRecorded();
        ASSERT_NE(process, nullptr);
        EXPECT_EQ(process->pid, getpid());
        EXPECT_STREQ(process->command, name);
        XLIBCProcFree(process);
    }
}

TEST(XLIBCProcGetByPid, KeepsTheRecordWithoutAProcess) {
    XLIBCProc record{};
    for (const pid_t pid : {2000000000, 0, -1}) {
        XLIBCProc *process = &record;
        EXPECT_LT(XLIBCProcGetByPid(pid, &process), 0) << pid;
        EXPECT_EQ(process, &record);
        ExpectFailureRecorded();
    }
    XLIBCProcFree(nullptr);
}

class PidFileTest : public testing::Test {
protected:
    // The result in a separate process, which ends with this result.
    int CreateElsewhere() {
        const int status =
            InChild([this] { return XLIBCProcPidFileCreate(path_.c_str()) < 0 ? 1 : 0; });
        return status == 0 ? 0 : -1;
    }

    // Starts a process that creates the pid file and holds it until it is killed.
    pid_t StartHolder() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t holder = StartChild([&] {
            const char result = XLIBCProcPidFileCreate(path_.c_str()) == 0 ? 'y' : 'n';
            if (write(ends[1], &result, 1) == 1)
                pause();
            return 1;
        });
        char result = 0;
        EXPECT_EQ(read(ends[0], &result, 1), 1);
        EXPECT_EQ(result, 'y');
        close(ends[0]);
        close(ends[1]);
        return holder;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("pid");
};

TEST_F(PidFileTest, HoldsThePidAndANewline) {
    const Umask umask(022);
    const pid_t holder = StartHolder();
    EXPECT_EQ(ReadText(path_), std::to_string(holder) + "\n");
    EXPECT_EQ(ModeOf(path_), 0644U);
    EXPECT_EQ(XLIBCReadPidFile(path_.c_str()), holder);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
}

TEST_F(PidFileTest, IsLockedAgainstASecondProcess) {
    const pid_t holder = StartHolder();
    EXPECT_LT(XLIBCProcPidFileCreate(path_.c_str()), 0);
    ExpectFailureRecorded();
    EXPECT_EQ(CreateElsewhere(), -1);
    EXPECT_EQ(ReadText(path_), std::to_string(holder) + "\n");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(XLIBCProcPidFileCreate(path_.c_str()), 0);
    ExpectSuccessRecorded();
    EXPECT_EQ(CreateElsewhere(), -1); // this process holds it now
    EXPECT_EQ(ReadText(path_), std::to_string(getpid()) + "\n");
}

TEST_F(PidFileTest, ReplacesAStalePid) {
    WriteText(path_, "1234567890 and more than will be written\n");
    EXPECT_EQ(XLIBCProcPidFileCreate(path_.c_str()), 0);
    EXPECT_EQ(ReadText(path_), std::to_string(getpid()) + "\n");
}

TEST_F(PidFileTest, IsCreatedByOneOfManyProcesses) {
    constexpr int processes = 20;
    int gate[2];
    int results[2];
    ASSERT_EQ(pipe(gate), 0);
    ASSERT_EQ(pipe(results), 0);
    std::vector<pid_t> children;
    children.reserve(processes);
    for (int i = 0; i < processes; ++i)
        children.push_back(StartChild([&] {
            close(gate[1]);
            char byte = 0;
            if (read(gate[0], &byte, 1) != 0) // until the gate is closed
                return 1;
            byte = XLIBCProcPidFileCreate(path_.c_str()) == 0 ? 'y' : 'n';
            if (write(results[1], &byte, 1) != 1)
                return 1;
            pause(); // a process that ends releases the file
            return 0;
        }));
    close(gate[0]);
    close(gate[1]);
    int winners = 0;
    for (int i = 0; i < processes; ++i) {
        char byte = 0;
        ASSERT_EQ(read(results[0], &byte, 1), 1);
        winners += byte == 'y' ? 1 : 0;
    }
    EXPECT_EQ(winners, 1);
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    close(results[0]);
    close(results[1]);
}

TEST_F(PidFileTest, FailsWhenItCannotBeWritten) {
    const std::string victim = directory_.File("victim");
    WriteText(victim, "untouched");
    std::filesystem::create_symlink(victim, directory_.File("link"));
    ASSERT_EQ(mkfifo(directory_.File("fifo").c_str(), 0600), 0);
    for (const std::string &path : {directory_.File("absent/pid"), directory_.Path(),
                                    directory_.File("link"), directory_.File("fifo")}) {
        SCOPED_TRACE(path);
        EXPECT_LT(XLIBCProcPidFileCreate(path.c_str()), 0);
        ExpectFailureRecorded();
    }
    EXPECT_EQ(ReadText(victim), "untouched");
}

TEST(XLIBCFileExist, FollowsLinks) {
    const TemporaryDirectory directory;
    WriteText(directory.File("file"), "");
    std::filesystem::create_symlink("file", directory.File("link"));
    std::filesystem::create_symlink("nowhere", directory.File("dangling"));
    EXPECT_TRUE(XLIBCFileExist(directory.File("file").c_str()));
    EXPECT_TRUE(XLIBCFileExist(directory.File("link").c_str()));
    EXPECT_TRUE(XLIBCFileExist(directory.Path().c_str()));
    ExpectSuccessRecorded();
    EXPECT_FALSE(XLIBCFileExist(directory.File("dangling").c_str()));
    EXPECT_FALSE(XLIBCFileExist(directory.File("absent").c_str()));
    EXPECT_FALSE(XLIBCFileExist(directory.File("file/below").c_str()));
    EXPECT_FALSE(XLIBCFileExist(""));
    ExpectFailureRecorded();
}

// --- Running a program --------------------------------------------------------------------------

// While an object of this class lives, SIGCHLD has this disposition.
class ChildSignal {
public:
    explicit ChildSignal(void (*disposition)(int)) : before_(signal(SIGCHLD, disposition)) {}
    ChildSignal(const ChildSignal &) = delete;
    ChildSignal &operator=(const ChildSignal &) = delete;
    ~ChildSignal() { signal(SIGCHLD, before_); }

    static void (*Now())(int) {
        struct sigaction action {};
        sigaction(SIGCHLD, nullptr, &action);
        return action.sa_handler;
    }

private:
    void (*before_)(int);
};

void CountNothing(int /*number*/) {}

// Expects a process with this /proc status to have started with exactly these signals blocked and
// none ignored, except for the two that the C library reserves.
void ExpectDefaultSignals(const std::string &status, const std::vector<int> &blocked = {}) {
    const auto mask = [&status](const std::string &name) {
        const auto line = status.find("\n" + name + ":\t");
        EXPECT_NE(line, std::string::npos) << status;
        return std::stoull(status.substr(line + name.size() + 3), nullptr, 16);
    };
    constexpr unsigned long long ownSignals = 0x180000000;
    unsigned long long expected = 0;
    for (const int number : blocked)
        expected |= 1ULL << static_cast<unsigned>(number - 1);
    EXPECT_EQ(mask("SigBlk"), expected);
    EXPECT_EQ(mask("SigIgn") & ~ownSignals, 0U);
}

class XLIBCExecTest : public testing::Test {
protected:
    static int Shell(const std::string &command) {
        return XLIBCExec("/bin/sh", "-c", command.c_str(), nullptr);
    }

    TemporaryDirectory directory_;
};

TEST_F(XLIBCExecTest, ReturnsTheExitStatusOrAnError) {
    for (void (*disposition)(int) : {SIG_DFL, SIG_IGN, CountNothing}) {
        const ChildSignal signal(disposition);
        EXPECT_EQ(Shell("exit 0"), 0);
        ExpectSuccessRecorded();
        EXPECT_EQ(Shell("exit 3"), 3);
        ExpectFailureRecorded();
        EXPECT_EQ(Shell("exit 255"), 255);
        EXPECT_EQ(Shell("kill -KILL $$"), -1);
        ExpectFailureRecorded();
        EXPECT_EQ(XLIBCExec("/no/such/program", "x", nullptr), -1);
        EXPECT_EQ(errno, ENOENT);
        ExpectFailureRecorded();
        EXPECT_EQ(XLIBCExec(directory_.Path().c_str(), nullptr), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(ChildSignal::Now(), disposition);
        EXPECT_EQ(Shell("exit 0"), 0);
        ExpectSuccessRecorded();
    }
}

TEST_F(XLIBCExecTest, PassesArgumentsUnchanged) {
    const std::string file = directory_.File("arguments");
    EXPECT_EQ(XLIBCExec("/bin/sh", "-c", R"(printf '[%s]' "$0" "$@" > "$0")", file.c_str(), "a b",
                        "", "$HOME;*", nullptr),
              0);
    EXPECT_EQ(ReadText(file), "[" + file + "][a b][][$HOME;*]");
}

TEST_F(XLIBCExecTest, BlocksTerminationSignalsInTheProgram) {
    const std::string file = directory_.File("status");
    EXPECT_EQ(InChild([&] {
                  signal(SIGPIPE, SIG_IGN);
                  signal(SIGCHLD, SIG_IGN);
                  signal(SIGHUP, SIG_IGN);
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  return XLIBCExec("/bin/cp", "/proc/self/status", file.c_str(), nullptr);
              }),
              0);
    ExpectDefaultSignals(ReadText(file), {SIGHUP, SIGINT, SIGTERM});
}

TEST_F(XLIBCExecTest, EndsAProgramAfterTheDeadline) {
    for (void (*disposition)(int) : {SIG_DFL, SIG_IGN}) {
        const ChildSignal signal(disposition);
        EXPECT_EQ(XLIBCExec("/bin/sleep", "1000", nullptr), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        ExpectFailureRecorded();
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child remains";
    }
}

TEST_F(XLIBCExecTest, KeepsTheStatusOfOtherChildren) {
    const ChildSignal signal(SIG_DFL);
    const pid_t ended = MakeZombie();
    const LivingChild living;
    const pid_t ending = StartChild([] {
        usleep(50000);
        return 9;
    });
    EXPECT_EQ(Shell("sleep 0.2"), 0);
    EXPECT_EQ(ExitStatusOf(ended), 7);
    EXPECT_EQ(ExitStatusOf(ending), 9);
    EXPECT_EQ(XLIBCProcAlive(living.Pid()), 1);
}

// The daemon ignores SIGCHLD and never waits for its jobs.
TEST_F(XLIBCExecTest, LeavesNoZombieIfTheSignalIsIgnored) {
    EXPECT_EQ(InChild([] {
                  signal(SIGCHLD, SIG_IGN);
                  const pid_t ending = StartChild([] {
                      usleep(50000);
                      return 9;
                  });
                  const pid_t living = StartChild([] {
                      pause();
                      return 0;
                  });
                  if (Shell("sleep 0.2; exit 5") != 5)
                      return 1;
                  const bool collected = StateOf(ending) == 0;
                  const bool lives = XLIBCProcAlive(living) == 1;
                  kill(living, SIGKILL);
                  const bool alsoLater = Eventually([living] { return StateOf(living) == 0; });
                  return collected ? lives ? alsoLater ? 0 : 4 : 3 : 2;
              }),
              0);
}

TEST_F(XLIBCExecTest, CollectsItsOwnChildren) {
    EXPECT_EQ(InChild([] {
                  for (int i = 0; i < 5; ++i)
                      Shell("exit 1");
                  XLIBCExec("/no/such/program", nullptr);
                  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1;
              }),
              0);
}

// --- Starting a job -----------------------------------------------------------------------------

void (*DispositionOf(int number))(int) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    return action.sa_handler;
}

// The number of the first property that differs from the documented state of a child, or 0.
int WrongPropertyOfChild() {
    for (const int number : {SIGINT, SIGTERM, SIGPIPE})
        if (DispositionOf(number) != SIG_DFL)
            return number;
    if (DispositionOf(SIGHUP) != SIG_IGN)
        return 100 + SIGHUP;
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number <= SIGRTMAX; ++number)
        if (sigismember(&blocked, number) == 1)
            return 110;
    for (int fd = 0; fd < 1024; ++fd)
        if ((fcntl(fd, F_GETFD) != -1) != (fd <= STDERR_FILENO))
            return 111;
    return 0;
}

// Takes on the state of the daemon when it launches a job: handlers, an ignored signal, open files.
void TakeOnTheStateOfTheDaemon() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        signal(number, CountNothing);
    signal(SIGPIPE, SIG_IGN);
    sigset_t some;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR1);
    sigprocmask(SIG_BLOCK, &some, nullptr);
    fcntl(open("/dev/null", O_RDWR | O_CLOEXEC), F_DUPFD, 500);
}

TEST(XLIBCProcForkEx, ResetsTheStateOfTheChild) {
    EXPECT_EQ(InChild([] {
                  TakeOnTheStateOfTheDaemon();
                  const pid_t child = XLIBCProcForkEx(71);
                  if (child == 0)
                      _exit(WrongPropertyOfChild());
                  return ExitStatusOf(child);
              }),
              0);
}

// Signals of the child to its process group, or of a terminal, do not reach other processes.
TEST(XLIBCProcForkEx, StartsASessionInTheChild) {
    EXPECT_EQ(InChild([] {
                  const pid_t child = XLIBCProcForkEx(71);
                  if (child == 0)
                      _exit(getsid(0) == getpid() && getpgrp() == getpid() ? 0 : 1);
                  return ExitStatusOf(child);
              }),
              0);
}

TEST(XLIBCProcForkEx, FailsAtTheProcessLimit) {
    EXPECT_EQ(InChild([] {
                  const rlimit limit{0, 0};
                  if (setrlimit(RLIMIT_NPROC, &limit) != 0 || setuid(kOtherAccount) != 0)
                      return 1;
                  return XLIBCProcForkEx(71) == -1 && errno == EAGAIN && XLIBCErrGet() != 0 ? 0 : 2;
              }),
              0);
}

TEST(XLIBCProcForkEx, LeavesTheParentUnchanged) {
    EXPECT_EQ(InChild([] {
                  TakeOnTheStateOfTheDaemon();
                  const pid_t child = XLIBCProcForkEx(71);
                  if (child == 0)
                      _exit(42);
                  if (child < 0 || ExitStatusOf(child) != 42 || XLIBCErrGet() != 0)
                      return 1;
                  for (const int number : {SIGINT, SIGTERM, SIGHUP})
                      if (DispositionOf(number) != CountNothing)
                          return 2;
                  if (DispositionOf(SIGPIPE) != SIG_IGN)
                      return 3;
                  sigset_t blocked;
                  sigprocmask(SIG_SETMASK, nullptr, &blocked);
                  if (sigismember(&blocked, SIGUSR1) != 1 || sigismember(&blocked, SIGTERM) != 0)
                      return 4;
                  return fcntl(500, F_GETFD) != -1 ? 0 : 5;
              }),
              0);
}

TEST(XLIBCExecv, StartsTheProgramWithDefaultSignals) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("status");
    EXPECT_EQ(InChild([&file] {
                  TakeOnTheStateOfTheDaemon();
                  signal(SIGHUP, SIG_IGN);
                  signal(SIGRTMAX, SIG_IGN);
                  std::string words[] = {"cp", "/proc/self/status", file};
                  char *const argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
                  return XLIBCExecv("/bin/cp", argv, 1);
              }),
              0);
    ExpectDefaultSignals(ReadText(file));
}

TEST(XLIBCExecv, ReturnsWhenTheProgramDoesNotStart) {
    EXPECT_EQ(InChild([] {
                  std::string word = "x";
                  char *const argv[] = {word.data(), nullptr};
                  if (XLIBCExecv("/no/such/program", argv, 1) != -1 || errno != ENOENT)
                      return 1;
                  return XLIBCErrGet() != 0 ? 0 : 2;
              }),
              0);
}

} // namespace

} // namespace kest
