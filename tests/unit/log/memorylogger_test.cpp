#include "log/memorylogger.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"
#include "tests/unit/syslog_capture.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest {

namespace {

using testing::ElementsAre;

const char *const kNoStaging = "Failed [!fsMem], err=No such file or directory (No such file or "
                               "directory)";

class MemoryLoggerTest : public testing::Test {
protected:
    void FlushLine(const std::string &line) {
        logger_.stream() << line;
        logger_.Flush();
    }

    TemporaryDirectory directory_;
    std::string log_ = directory_.File("execute.log");
    std::string lock_ = directory_.File("lock");
    std::string staging_ = directory_.File("staging");
    KEST::MemoryLogger logger_{log_, staging_, 1, lock_};
    SyslogCapture messages_;
};

TEST_F(MemoryLoggerTest, TouchesNoFileBeforeAFlush) {
    logger_.stream() << "line\n";
    EXPECT_TRUE(directory_.Names().empty());
}

TEST_F(MemoryLoggerTest, AppendsWholeFlushesInOrder) {
    const std::string bytes("caf\xc3\xa9 \xff \0 \x1b\n", 12);
    FlushLine("first\n");
    logger_.stream() << "second " << 2;
    FlushLine("\n");
    FlushLine(bytes);
    EXPECT_EQ(ReadText(log_), "first\nsecond 2\n" + bytes);
    EXPECT_THAT(directory_.Names(), ElementsAre("execute.log", "lock"));
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, MovesAnEmptyFlushToo) {
    logger_.Flush();
    EXPECT_EQ(ReadText(log_), "");
    EXPECT_EQ(ModeOf(log_), 0600U);
    EXPECT_FALSE(PathExists(staging_));
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, StagesTheBuffer) {
    const Umask umask(0);
    logger_.AppendToStaging();
    EXPECT_EQ(ReadText(staging_), "");
    EXPECT_EQ(ModeOf(staging_), 0600U);
    logger_.stream() << "first\n";
    logger_.AppendToStaging();
    logger_.stream() << "second\n";
    logger_.AppendToStaging();
    logger_.AppendToStaging();
    EXPECT_EQ(ReadText(staging_), "first\nsecond\n");
    EXPECT_FALSE(PathExists(log_));
    logger_.MoveToLog();
    EXPECT_EQ(ReadText(log_), "first\nsecond\n");
    EXPECT_FALSE(PathExists(staging_));
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, MovesTheRestOfAnEarlierFlush) {
    WriteText(staging_, "left behind\n");
    WriteText(log_, "old\n");
    FlushLine("line\n");
    EXPECT_EQ(ReadText(log_), "old\nleft behind\nline\n");
}

TEST_F(MemoryLoggerTest, ClosesTheLogToOthers) {
    for (const mode_t mode : {0644U, 0666U, 0600U, 0400U}) {
        const Umask umask(0);
        WriteText(log_, "old\n");
        std::filesystem::permissions(log_, std::filesystem::perms(mode));
        FlushLine("line\n");
        EXPECT_EQ(ModeOf(log_), 0600U);
        EXPECT_EQ(ReadText(log_), "old\nline\n");
        std::filesystem::remove(log_);
        FlushLine("line\n");
        EXPECT_EQ(ModeOf(log_), 0600U);
    }
}

TEST_F(MemoryLoggerTest, KeepsTheCallersErrnoOutOfMessages) {
    errno = 0;
    FlushLine("line\n");
    EXPECT_EQ(errno, 0);
}

// --- Objects that others planted at the staging path --------------------------------------------

class PlantedStagingTest : public MemoryLoggerTest {
protected:
    PlantedStagingTest() {
        WriteText(victim_, "untouched");
        std::filesystem::permissions(victim_, std::filesystem::perms(0644));
    }

    // Expects a flush to change the log and nothing else.
    void ExpectFlushIsSafe() {
        FlushLine("line\n");
        EXPECT_EQ(ReadText(log_), "line\n");
        EXPECT_FALSE(PathExists(staging_));
        EXPECT_EQ(ReadText(victim_), "untouched");
        EXPECT_EQ(ModeOf(victim_), 0644U);
        EXPECT_TRUE(messages_.Messages().empty());
    }

    // Expects staging to replace the object at the staging path by a new file.
    void ExpectStagingCreatesAFile() {
        logger_.stream() << "line\n";
        logger_.AppendToStaging();
        struct stat status {};
        ASSERT_EQ(lstat(staging_.c_str(), &status), 0);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777U, 0600U);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(status.st_nlink, 1U);
        EXPECT_EQ(ReadText(staging_), "line\n");
        EXPECT_EQ(ReadText(victim_), "untouched");
        EXPECT_FALSE(PathExists(directory_.File("nowhere")));
        std::filesystem::remove(staging_);
    }

    std::string victim_ = directory_.File("victim");
};

struct Plant {
    const char *name;
    std::function<void(const std::string &staging, const std::string &victim)> put;
};

const Plant kPlants[] = {
    {"a link", [](const auto &staging,
                  const auto &victim) { std::filesystem::create_symlink(victim, staging); }},
    {"a link that leads nowhere",
     [](const auto &staging, const auto &) {
         std::filesystem::create_symlink("nowhere", staging);
     }},
    {"a link to itself",
     [](const auto &staging, const auto &) { std::filesystem::create_symlink(staging, staging); }},
    {"a second name of a file",
     [](const auto &staging, const auto &victim) {
         std::filesystem::create_hard_link(victim, staging);
     }},
    {"a FIFO",
     [](const auto &staging, const auto &) { ASSERT_EQ(mkfifo(staging.c_str(), 0666), 0); }},
    {"a directory",
     [](const auto &staging, const auto &) { std::filesystem::create_directory(staging); }},
    {"a directory that is not empty",
     [](const auto &staging, const auto &) {
         std::filesystem::create_directory(staging);
         WriteText(staging + "/inner", "x");
     }},
    {"a file of another account",
     [](const auto &staging, const auto &) {
         WriteText(staging, "forged\n");
         ASSERT_EQ(chown(staging.c_str(), kOtherAccount, kOtherAccount), 0);
     }},
};

TEST_F(PlantedStagingTest, IsClearedBeforeAFlush) {
    for (const Plant &plant : kPlants) {
        SCOPED_TRACE(plant.name);
        std::filesystem::remove(log_);
        plant.put(staging_, victim_);
        ExpectFlushIsSafe();
    }
}

TEST_F(PlantedStagingTest, IsReplacedByANewFile) {
    for (const Plant &plant : kPlants) {
        SCOPED_TRACE(plant.name);
        plant.put(staging_, victim_);
        ExpectStagingCreatesAFile();
    }
}

// The object is planted between the two halves of a flush.
TEST_F(PlantedStagingTest, IsNotUsedAsTheStagingFile) {
    for (const Plant &plant : kPlants) {
        SCOPED_TRACE(plant.name);
        messages_.Clear();
        plant.put(staging_, victim_);
        logger_.MoveToLog();
        EXPECT_EQ(ReadText(log_), "");
        EXPECT_EQ(ReadText(victim_), "untouched");
        EXPECT_FALSE(PathExists(staging_));
        EXPECT_THAT(messages_.Texts("memorylogger"),
                    ElementsAre(testing::StartsWith("Failed [!fsMem], err=")));
        errno = 0;
    }
}

TEST_F(PlantedStagingTest, KeepsTheContentOfAPlantedDirectory) {
    std::filesystem::create_directory(staging_);
    WriteText(staging_ + "/inner", "somebody's");
    ExpectFlushIsSafe();
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory_.Path()))
        if (entry.path().filename() == "inner")
            found.push_back(entry.path());
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(ReadText(found.front()), "somebody's");
    const auto moved = std::filesystem::path(found.front()).parent_path().parent_path();
    EXPECT_EQ(ModeOf(moved), 0700U);
}

// --- Failures -----------------------------------------------------------------------------------

TEST_F(MemoryLoggerTest, MovesAFullStagingFileAtOnce) {
    const std::string full(1024, 'x');
    FlushLine(full);
    EXPECT_TRUE(messages_.Messages().empty());
    FlushLine(full + "y");
    EXPECT_EQ(ReadText(log_), full + full + "y");
    EXPECT_THAT(messages_.Texts("memorylogger"), ElementsAre(kNoStaging));
    EXPECT_FALSE(PathExists(staging_));
}

TEST_F(MemoryLoggerTest, CountsTheWholeStagingFile) {
    logger_.stream() << std::string(1024, 'x');
    logger_.AppendToStaging();
    EXPECT_TRUE(PathExists(staging_));
    logger_.stream() << "y";
    logger_.AppendToStaging();
    EXPECT_FALSE(PathExists(staging_));
    EXPECT_EQ(ReadText(log_), std::string(1024, 'x') + "y");
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, HandlesLongFlushes) {
    KEST::MemoryLogger logger(log_, staging_, 1024, lock_);
    std::string text(1048576, 'x');
    logger.stream() << text;
    logger.Flush();
    EXPECT_TRUE(messages_.Messages().empty());
    text += 'y';
    logger.stream() << text;
    logger.Flush();
    EXPECT_THAT(messages_.Texts("memorylogger"), ElementsAre(kNoStaging));
    EXPECT_EQ(ReadText(log_).size(), 2 * text.size() - 1);
}

TEST_F(MemoryLoggerTest, ReportsAMoveWithoutAStagingFile) {
    logger_.MoveToLog();
    EXPECT_THAT(messages_.Texts("memorylogger"), ElementsAre(kNoStaging));
    EXPECT_EQ(ReadText(log_), "");
}

TEST_F(MemoryLoggerTest, DropsLinesWhenTheLogCannotBeOpened) {
    struct Row {
        const char *log;
        const char *error;
    };
    std::filesystem::create_directory(directory_.File("directory"));
    WriteText(directory_.File("file"), "x");
    ASSERT_EQ(mkfifo(directory_.File("fifo").c_str(), 0600), 0);
    const Row rows[] = {
        {"absent/execute.log", "No such file or directory"},
        {"directory", "Is a directory"},
        {"file/execute.log", "Not a directory"},
        {"fifo", "No such device or address"}, // without a reader
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.log);
        messages_.Clear();
        errno = 0;
        KEST::MemoryLogger logger(directory_.File(row.log), staging_, 1, lock_);
        logger.stream() << "line\n";
        logger.Flush();
        EXPECT_THAT(
            messages_.Texts("memorylogger"),
            ElementsAre("Failed [!fs], err=" + std::string(row.error) + " (" + row.error + ")"));
        EXPECT_FALSE(PathExists(staging_));
    }
    EXPECT_THAT(directory_.Names(), ElementsAre("directory", "fifo", "file", "lock"));
}

TEST_F(MemoryLoggerTest, ReportsAStagingFileThatCannotBeCreated) {
    KEST::MemoryLogger logger(log_, directory_.File("absent/staging"), 1, lock_);
    logger.stream() << "line\n";
    logger.Flush();
    EXPECT_THAT(messages_.Texts("memorylogger"),
                ElementsAre("open memory logger failed (No such file or directory)", kNoStaging));
    EXPECT_EQ(ReadText(log_), "line\n");
    messages_.Clear();
    std::filesystem::create_directory(directory_.File("absent"));
    logger.Flush(); // the line is not repeated
    EXPECT_EQ(ReadText(log_), "line\n");
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, IsSilentOnRequest) {
    KEST::MemoryLogger logger(log_, directory_.File("absent/staging"), 1, lock_);
    logger.BeSilent();
    logger.stream() << "line\n";
    logger.Flush();
    EXPECT_EQ(logger.LogError(), 0); // nothing is lost
    EXPECT_EQ(ReadText(log_), "line\n");
    std::filesystem::remove(log_);
    std::filesystem::create_directory(log_);
    logger.stream() << "line\n";
    logger.Flush();
    EXPECT_EQ(logger.LogError(), EISDIR);
    EXPECT_TRUE(messages_.Messages().empty());
}

// A limit of 100 bytes for files simulates a full disk.
class FullDiskTest : public MemoryLoggerTest {
protected:
    FullDiskTest() { WriteText(log_, "old\n"); }

    // Expects a flush of `size` bytes to be dropped completely, with these messages.
    void ExpectFlushIsLost(std::size_t size, const std::vector<std::string> &messages) {
        EXPECT_EQ(InChild([&] {
                      signal(SIGXFSZ, SIG_IGN);
                      const rlimit limit{100, 100};
                      if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                          return 1;
                      FlushLine(std::string(size, 'x'));
                      return messages_.Texts("memorylogger") == messages ? 0 : 2;
                  }),
                  0);
        EXPECT_EQ(ReadText(log_), "old\n");
        EXPECT_THAT(directory_.Names(), ElementsAre("execute.log", "lock"));
    }

    static std::string NotWritten(const std::string &path) {
        return "Failed to write [" + path + "] (File too large)";
    }
};

TEST_F(FullDiskTest, DropsAFlushThatDoesNotFitIntoTheLog) {
    ExpectFlushIsLost(98, {NotWritten(log_)});
}

TEST_F(FullDiskTest, DropsAFlushThatFitsIntoNeitherFile) {
    ExpectFlushIsLost(101, {NotWritten(staging_), NotWritten(log_)});
}

TEST_F(MemoryLoggerTest, AppendsDirectlyWhenTheStagingFileIsFull) {
    EXPECT_EQ(InChild([this] {
                  // A separate file system without a free page.
                  const std::string full = directory_.File("full");
                  std::filesystem::create_directory(full);
                  if (unshare(CLONE_NEWNS) != 0 ||
                      mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                      mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k") != 0)
                      return 1;
                  WriteText(full + "/file", std::string(4096, 'x'));
                  KEST::MemoryLogger logger(log_, full + "/staging", 1, lock_);
                  logger.stream() << "line\n";
                  logger.Flush();
                  return messages_.Texts("memorylogger") ==
                                 std::vector<std::string>{"Failed to write [" + full +
                                                          "/staging] (No space left on device)"}
                             ? 0
                             : 2;
              }),
              0);
    EXPECT_EQ(ReadText(log_), "line\n");
}

TEST_F(MemoryLoggerTest, KeepsTheModeOfADevice) {
    const std::string device = directory_.File("null");
    ASSERT_EQ(mknod(device.c_str(), S_IFCHR, makedev(1, 3)), 0);
    ASSERT_EQ(chmod(device.c_str(), 0666), 0);
    std::filesystem::create_symlink(device, log_);
    FlushLine("line\n");
    EXPECT_EQ(ModeOf(device), 0666U);
    EXPECT_FALSE(PathExists(staging_));
    EXPECT_TRUE(messages_.Messages().empty());
}

// --- A log kept open ----------------------------------------------------------------------------

TEST_F(MemoryLoggerTest, ReachesAKeptLogAfterGivingUpItsRights) {
    EXPECT_EQ(InChild([this] {
                  FlushLine("as root\n");
                  logger_.KeepLogOpen();
                  if (setuid(kOtherAccount) != 0)
                      return 1;
                  FlushLine("as nobody\n");
                  FlushLine("again\n");
                  return messages_.Messages().empty() ? 0 : 2;
              }),
              0);
    EXPECT_EQ(ReadText(log_), "as root\nas nobody\nagain\n");
    EXPECT_THAT(directory_.Names(), ElementsAre("execute.log", "lock"));
}

// Proves that the previous test depends on the kept log.
TEST_F(MemoryLoggerTest, DoesNotReachALogThatWasNotKept) {
    EXPECT_EQ(InChild([this] {
                  if (setuid(kOtherAccount) != 0)
                      return 1;
                  FlushLine("as nobody\n");
                  const std::string error = "Permission denied";
                  const std::vector<std::string> expected{"Failed [!fs], err=" + error + " (" +
                                                          error + ")"};
                  return messages_.Texts("memorylogger") == expected ? 0 : 2;
              }),
              0);
    EXPECT_FALSE(PathExists(log_));
}

// An account can stop its own processes, so a process that has its rights must not take the lock.
TEST_F(MemoryLoggerTest, NeitherBlocksNorWaitsWithAKeptLog) {
    const int other = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(InChild([this] {
                  alarm(10);
                  logger_.KeepLogOpen();
                  FlushLine("line\n");
                  return 0;
              }),
              0);
    EXPECT_EQ(ReadText(log_), "line\n");
    close(other);
}

TEST_F(MemoryLoggerTest, ReportsAFlushThatDoesNotFitIntoAKeptLog) {
    EXPECT_EQ(InChild([this] {
                  const rlimit limit{0, 0};
                  signal(SIGXFSZ, SIG_IGN);
                  logger_.KeepLogOpen();
                  if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                      return 1;
                  FlushLine("line\n");
                  return messages_.Texts("memorylogger") ==
                                 std::vector<std::string>{"Failed to write [" + log_ +
                                                          "] (File too large)"}
                             ? 0
                             : 2;
              }),
              0);
}

TEST_F(MemoryLoggerTest, BypassesTheStagingFileForAKeptLog) {
    WriteText(staging_, "another's\n");
    logger_.KeepLogOpen();
    FlushLine("line\n");
    EXPECT_EQ(ReadText(log_), "line\n");
    EXPECT_EQ(ReadText(staging_), "another's\n");
}

TEST_F(MemoryLoggerTest, LeaksNoDescriptorToAnotherProgram) {
    logger_.KeepLogOpen();
    FlushLine("line\n");
    int found = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the listing's own
        if (std::filesystem::read_symlink(entry.path(), gone) != log_)
            continue;
        ++found;
        const int flags = fcntl(std::stoi(entry.path().filename().string()), F_GETFD);
        EXPECT_NE(flags & FD_CLOEXEC, 0);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(MemoryLoggerTest, FlushesNormallyWhenTheLogCannotBeKept) {
    KEST::MemoryLogger logger(directory_.File("later/execute.log"), staging_, 1, lock_);
    logger.KeepLogOpen();
    std::filesystem::create_directory(directory_.File("later"));
    logger.stream() << "line\n";
    logger.Flush();
    EXPECT_EQ(ReadText(directory_.File("later/execute.log")), "line\n");
}

// --- Many processes -----------------------------------------------------------------------------

class ManyProcessesTest : public MemoryLoggerTest {
protected:
    static constexpr int kProcesses = 20;
    static constexpr int kLines = 20;

    // Different lines that are long enough for torn ones to show.
    static std::string Line(int process, int line) {
        return "process " + std::to_string(process) + " line " + std::to_string(line) + " " +
               std::string(200, static_cast<char>('a' + process)) + "\n";
    }

    std::vector<pid_t> StartFlushing(bool keepOpen) {
        std::vector<pid_t> children;
        children.reserve(kProcesses);
        for (int process = 0; process < kProcesses; ++process)
            children.push_back(StartChild([this, process, keepOpen] {
                if (keepOpen)
                    logger_.KeepLogOpen();
                for (int line = 0; line < kLines; ++line)
                    FlushLine(Line(process, line));
                return messages_.Messages().empty() ? 0 : 1;
            }));
        return children;
    }

    static void ExpectSuccess(const std::vector<pid_t> &children) {
        for (const pid_t child : children)
            EXPECT_EQ(ExitStatusOf(child), 0);
    }

    static void ExpectEveryLineOnce(const std::string &log) {
        std::multiset<std::string> expected;
        for (int process = 0; process < kProcesses; ++process)
            for (int line = 0; line < kLines; ++line)
                expected.insert(Line(process, line));
        std::multiset<std::string> found;
        std::istringstream text(log);
        for (std::string line; std::getline(text, line);)
            found.insert(line + "\n");
        EXPECT_EQ(found.size(), 400U);
        EXPECT_TRUE(found == expected);
    }
};

TEST_F(ManyProcessesTest, NeitherLoseNorDuplicateLines) {
    ExpectSuccess(StartFlushing(false));
    ExpectEveryLineOnce(ReadText(log_));
}

TEST_F(ManyProcessesTest, NeitherLoseNorDuplicateLinesOfAKeptLog) {
    ExpectSuccess(StartFlushing(true));
    ExpectEveryLineOnce(ReadText(log_));
}

TEST_F(ManyProcessesTest, NeitherLoseNorDuplicateLinesDuringRotation) {
    const std::vector<pid_t> children = StartFlushing(false);
    int rotations = 0;
    for (int i = 0; i < 1000; ++i) {
        if (std::rename(log_.c_str(), (log_ + "." + std::to_string(rotations)).c_str()) == 0)
            ++rotations;
        usleep(500);
    }
    ExpectSuccess(children);
    EXPECT_GT(rotations, 0);
    std::string text = PathExists(log_) ? ReadText(log_) : "";
    for (int i = 0; i < rotations; ++i)
        text += ReadText(log_ + "." + std::to_string(i));
    ExpectEveryLineOnce(text);
}

// If the lock file is removed while a process waits for it, the lock of that file has no effect.
TEST_F(MemoryLoggerTest, WaitsForTheCurrentLockFile) {
    const auto lock = [this] {
        Descriptor file(open(lock_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(flock(file.Get(), LOCK_EX), 0);
        return file;
    };
    Descriptor old = lock();
    const pid_t child = fork();
    if (child == 0) {
        // A copy of the descriptor would hold the lock as well.
        old.Close();
        FlushLine("line\n");
        _exit(0);
    }
    usleep(100000);
    std::filesystem::remove(lock_);
    Descriptor fresh = lock();
    flock(old.Get(), LOCK_UN);
    usleep(100000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    EXPECT_FALSE(PathExists(log_));
    flock(fresh.Get(), LOCK_UN);
    EXPECT_EQ(ExitStatusOf(child), 0);
    EXPECT_EQ(ReadText(log_), "line\n");
}

// --- The lock -----------------------------------------------------------------------------------

TEST_F(MemoryLoggerTest, ClosesTheLockToOthers) {
    const Umask umask(0);
    FlushLine("line\n");
    EXPECT_EQ(ModeOf(lock_), 0600U);
    std::filesystem::permissions(lock_, std::filesystem::perms(0644));
    FlushLine("line\n");
    EXPECT_EQ(ModeOf(lock_), 0600U);
}

// Nothing is created or locked through an object in the place of the lock.
TEST_F(PlantedStagingTest, IsNotUsedAsTheLock) {
    for (const Plant &plant : kPlants) {
        SCOPED_TRACE(plant.name);
        std::filesystem::remove(log_);
        std::filesystem::remove(lock_);
        plant.put(lock_, victim_);
        ExpectFlushIsSafe();
        EXPECT_FALSE(PathExists(directory_.File("nowhere")));
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(lock_)));
    }
}

TEST_F(MemoryLoggerTest, WorksWithoutALock) {
    KEST::MemoryLogger logger(log_, staging_, 1, directory_.File("absent/lock"));
    logger.stream() << "line\n";
    logger.Flush();
    EXPECT_EQ(ReadText(log_), "line\n");
    EXPECT_FALSE(PathExists(staging_));
    EXPECT_TRUE(messages_.Messages().empty());
}

TEST_F(MemoryLoggerTest, WaitsFiveSecondsForALock) {
    const Descriptor other(open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(other.Get(), LOCK_EX), 0);
    WriteText(staging_, "of the one who holds it\n");
    const auto start = std::chrono::steady_clock::now();
    FlushLine("line\n");
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LE(waited, std::chrono::seconds(15));
    EXPECT_EQ(ReadText(log_), "line\n");
    EXPECT_EQ(ReadText(staging_), "of the one who holds it\n");
    EXPECT_TRUE(messages_.Messages().empty());
}

} // namespace

} // namespace kest
