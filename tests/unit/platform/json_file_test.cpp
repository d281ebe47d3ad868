#include "platform/json_file.h"

#include "base/json_text.h"
#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/json_text.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kest {

namespace {

constexpr JsonLimits kLimits{std::size_t{1} << 20, 64};

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// --- Reading ------------------------------------------------------------------------------------

class JsonFromFileTest : public testing::Test {
protected:
    std::string Write(const std::string &text) {
        WriteText(path_, text);
        return path_;
    }

    // Expects a failure with errno `error` that removes the earlier document from the value.
    static void ExpectRefused(const std::string &path, int error,
                              const JsonLimits &limits = kLimits) {
        SCOPED_TRACE(path);
        Json::Value value = FromText(R"({"earlier": 1})");
        errno = 0;
        EXPECT_FALSE(JsonFromFile(path, value, limits));
        EXPECT_EQ(errno, error);
        EXPECT_TRUE(value.isNull());
    }

    static void ExpectRead(const std::string &path, const Json::Value &expected,
                           const JsonLimits &limits = kLimits) {
        Json::Value value = FromText(R"({"earlier": 1})");
        EXPECT_TRUE(JsonFromFile(path, value, limits));
        EXPECT_TRUE(value == expected); // too deep and too long to be printed
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("job.conf");
};

TEST_F(JsonFromFileTest, ReadsADocument) {
    for (const char *text : {R"({"a": [1, 2.5, "x", true, null]})", "[]", "{}", " \n[1]\n\n", "5",
                             R"("text")", "null", R"({"a": 1, "a": 2})"}) {
        SCOPED_TRACE(text);
        ExpectRead(Write(text), FromText(text));
    }
}

TEST_F(JsonFromFileTest, KeepsEveryByteOfAText) {
    Json::Value expected(Json::arrayValue);
    expected.append("caf\xc3\xa9 \xf0\x9f\x98\x80");
    expected.append("\xff\xfe");
    expected.append(std::string("a\0b", 3));
    ExpectRead(Write("[\"caf\xc3\xa9 \\ud83d\\ude00\", \"\xff\xfe\", \"a\\u0000b\"]"), expected);
}

TEST_F(JsonFromFileTest, RefusesWhatIsNotExactlyOneDocument) {
    const std::string rows[] = {
        "",
        " ",
        "\n",
        "{",
        "}",
        "[1",
        "[1,]",
        R"({"a": 1,})",
        R"({"a" 1})",
        R"({a: 1})",
        "{'a': 1}",
        "[1] x",
        "[1] [2]",
        "{} {}",
        "{}}",
        "x",
        "tru",
        "[NaN]",
        "[Infinity]",
        "[01x]",
        R"(["unterminated])",
        "[1 2]",
        "[\"\\q\"]",
        "[\"\\u12\"]",
        "[1e999999]",
    };
    for (const std::string &row : rows) {
        SCOPED_TRACE(row);
        ExpectRefused(Write(row), EBADMSG);
    }
}

TEST_F(JsonFromFileTest, RefusesAZeroByteAfterADocument) {
    ExpectRefused(Write(std::string("[1]\0x", 5)), EBADMSG);
    ExpectRefused(Write(std::string("[1]\0[2]", 7)), EBADMSG);
}

TEST_F(JsonFromFileTest, DropsComments) {
    Json::Value value;
    ASSERT_TRUE(JsonFromFile(
        Write("// one\n{/* two */ \"a\": 1, // three\n \"b\": [2] } // four\n"), value, kLimits));
    EXPECT_EQ(value, FromText(R"({"a": 1, "b": [2]})"));
    for (const Json::Value *part : {&value, &value["a"], &value["b"], &value["b"][0]})
        for (const Json::CommentPlacement placement :
             {Json::commentBefore, Json::commentAfterOnSameLine, Json::commentAfter})
            EXPECT_FALSE(part->hasComment(placement));
    EXPECT_THAT(JsonToString(value), Not(HasSubstr("/")));
}

TEST_F(JsonFromFileTest, AcceptsAByteOrderMark) {
    ExpectRead(Write("\xef\xbb\xbf[1]"), FromText("[1]"));
}

std::string Nested(int depth, const std::string &open, const std::string &innermost,
                   const std::string &close) {
    std::string begin;
    std::string end;
    for (int i = 0; i < depth; ++i) {
        begin += open;
        end += close;
    }
    return begin + innermost + end;
}

// The innermost value counts as a level, whether it is an array, an object or a number.
TEST_F(JsonFromFileTest, AcceptsNestingUpToItsLimit) {
    for (const int depth : {2, 63, 64}) {
        SCOPED_TRACE(depth);
        for (const std::string &text :
             {Nested(depth, "[", "", "]"), Nested(depth - 1, "[", "1", "]"),
              Nested(depth - 1, R"({"a": )", "{}", "}"), Nested(depth - 1, R"({"a": )", "1", "}")})
            ExpectRead(Write(text), FromText(text));
    }
    const std::string own = Nested(127, "[", "1", "]");
    ExpectRead(Write(own), FromText(own), kOwnFileLimits);
}

TEST_F(JsonFromFileTest, RefusesDeeperNesting) {
    for (const int depth : {65, 66, 1000, 100000}) {
        SCOPED_TRACE(depth);
        ExpectRefused(Write(Nested(depth, "[", "", "]")), EBADMSG);
        ExpectRefused(Write(Nested(depth - 1, "[", "1", "]")), EBADMSG);
        ExpectRefused(Write(Nested(depth - 1, R"({"a":)", "1", "}")), EBADMSG);
        ExpectRefused(Write(std::string(static_cast<std::size_t>(depth), '[')), EBADMSG);
    }
    ExpectRefused(Write(Nested(129, "[", "", "]")), EBADMSG, kOwnFileLimits);
    ExpectRefused(Write(Nested(128, "[", "1", "]")), EBADMSG, kOwnFileLimits);
}

TEST_F(JsonFromFileTest, AcceptsAFileUpToItsLimit) {
    const JsonLimits limits{10, 64};
    ExpectRead(Write("[1234567 ]"), FromText("[1234567]"), limits);
    ExpectRefused(Write("[1234567 ] "), EFBIG, limits);
    ExpectRefused(Write(std::string(11, 'x')), EFBIG, limits);
}

TEST_F(JsonFromFileTest, AcceptsAJobFileUpToItsLimit) {
    const std::string text = "[\"" + std::string((1U << 20U) - 4, 'x') + "\"]";
    ExpectRead(Write(text), FromText(text));
    ExpectRefused(Write(text + "\n"), EFBIG);
}

// Files of the kernel appear empty, and some block their reader forever.
TEST_F(JsonFromFileTest, DoesNotReadFilesThatAppearEmpty) {
    ExpectRefused(Write(""), EBADMSG);
    ExpectRefused("/proc/version", EBADMSG);
    ExpectRefused("/proc/kmsg", EBADMSG);
}

TEST_F(JsonFromFileTest, RefusesAnythingButARegularFile) {
    const std::string fifo = directory_.File("fifo");
    const std::string loop = directory_.File("loop");
    const std::string device = directory_.File("device");
    const std::string toFifo = directory_.File("to-fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_symlink("loop", loop);
    std::filesystem::create_symlink("/dev/zero", device);
    std::filesystem::create_symlink("fifo", toFifo);
    WriteText(path_, "{}");
    ExpectRefused(directory_.File("absent"), ENOENT);
    ExpectRefused(directory_.Path(), EISDIR);
    ExpectRefused(path_ + "/below", ENOTDIR);
    ExpectRefused(loop, ELOOP);
    ExpectRefused(fifo, EINVAL);
    ExpectRefused(toFifo, EINVAL);
    ExpectRefused(device, EINVAL);
    ExpectRefused("/dev/null", EINVAL);
    ExpectRefused("", ENOENT);
}

TEST_F(JsonFromFileTest, FollowsLinks) {
    Write("[1]");
    std::filesystem::create_symlink(path_, directory_.File("link"));
    std::filesystem::create_symlink("link", directory_.File("link-to-link"));
    ExpectRead(directory_.File("link-to-link"), FromText("[1]"));
}

TEST_F(JsonFromFileTest, RefusesAnUnreadableFile) {
    Write("[1]");
    std::filesystem::permissions(path_, std::filesystem::perms::none);
    std::filesystem::permissions(directory_.Path(), std::filesystem::perms(0755));
    EXPECT_EQ(InChild([this] {
                  Json::Value value(5);
                  if (setuid(kOtherAccount) != 0)
                      return 1;
                  if (JsonFromFile(path_, value, kLimits) || errno != EACCES)
                      return 2;
                  return value.isNull() ? 0 : 3;
              }),
              0);
}

int OpenDescriptors() {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count += entry.path().empty() ? 0 : 1;
    return count;
}

TEST_F(JsonFromFileTest, LeavesNoDescriptorOpen) {
    const int before = OpenDescriptors();
    ExpectRead(Write("[1]"), FromText("[1]"));
    ExpectRefused(Write("["), EBADMSG);
    ExpectRefused(Write("[    1 ]"), EFBIG, {4, 64});
    ExpectRefused(directory_.Path(), EISDIR);
    EXPECT_EQ(OpenDescriptors(), before);
}

// --- Writing ------------------------------------------------------------------------------------

class JsonToFileTest : public testing::Test {
protected:
    static bool Save(const Json::Value &value, const std::string &path) {
        return JsonToFile(JsonToString(value), path, Durability::Process);
    }
    static Json::Value ReadBack(const std::string &path) {
        Json::Value value;
        EXPECT_TRUE(JsonFromFile(path, value, kOwnFileLimits));
        return value;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("kestcrond.config");
    const Json::Value document_ = FromText(R"({"a": [1, 2.5, "x\u0001\"", true, null], "b": {}})");
};

TEST_F(JsonToFileTest, RoundTripsDocuments) {
    for (const Durability durability : {Durability::Process, Durability::Reboot}) {
        EXPECT_TRUE(JsonToFile(JsonToString(document_), path_, durability));
        EXPECT_EQ(ReadBack(path_), document_);
        EXPECT_EQ(ReadText(path_), JsonToString(document_) + "\n");
        EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config"));
    }
}

TEST_F(JsonToFileTest, KeepsEveryValue) {
    Json::Value value(Json::objectValue);
    value["caf\xc3\xa9"] = "\xf0\x9f\x98\x80";
    value["bytes"] = std::string("\x01\x1f\x7f\0/\\\"\t\n", 9);
    value["numbers"] = FromText("[0, -1, 2147483647, -2147483648, 4294967296, 9223372036854775807, "
                                "-9223372036854775808, 0.1, 1e300, 1700000000]");
    value[""] = Json::Value(Json::nullValue);
    EXPECT_TRUE(Save(value, path_));
    EXPECT_EQ(ReadBack(path_), value);
}

TEST_F(JsonToFileTest, ReplacesBytesThatAreNotUtf8) {
    Json::Value value(Json::objectValue);
    value["a\xff"] = "\xff\xfe x";
    EXPECT_TRUE(Save(value, path_));
    EXPECT_EQ(ReadBack(path_), FromText(R"({"a\ufffd": "\ufffd\ufffd x"})"));
    // If two names become equal, one of them is kept.
    value["a\xfe"] = 1;
    EXPECT_TRUE(Save(value, path_));
    EXPECT_EQ(ReadBack(path_).getMemberNames(), FromText(R"({"a\ufffd": 0})").getMemberNames());
}

TEST_F(JsonToFileTest, CreatesNewFilesReadableByAll) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        const Umask umask(mask);
        std::filesystem::remove(path_);
        EXPECT_TRUE(Save(document_, path_));
        EXPECT_EQ(ModeOf(path_), 0644U);
    }
}

TEST_F(JsonToFileTest, KeepsTheModeOfAFileThatExists) {
    for (const mode_t mode : {0600U, 0640U, 0444U, 0666U}) {
        const Umask umask(077);
        WriteText(path_, "old");
        std::filesystem::permissions(path_, std::filesystem::perms(mode));
        EXPECT_TRUE(Save(document_, path_));
        EXPECT_EQ(ModeOf(path_), mode);
        EXPECT_EQ(ReadBack(path_), document_);
    }
}

TEST_F(JsonToFileTest, KeepsTheOwnerAndGroupOfAFileThatExists) {
    for (const mode_t mode : {0640U, 06750U}) {
        WriteText(path_, "old");
        ASSERT_EQ(chown(path_.c_str(), kOtherAccount, kOtherAccount + 1), 0);
        ASSERT_EQ(chmod(path_.c_str(), mode), 0);
        EXPECT_TRUE(Save(document_, path_));
        struct stat status {};
        ASSERT_EQ(stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, kOtherAccount);
        EXPECT_EQ(status.st_gid, kOtherAccount + 1);
        EXPECT_EQ(ModeOf(path_), mode);
    }
}

// As an account that can write to the file but not to its directory.
class UnreplaceableFileTest : public JsonToFileTest {
protected:
    UnreplaceableFileTest() {
        WriteText(path_, "[\"" + std::string(10000, 'x') + "\"]");
        chmod(path_.c_str(), 0666);
        chmod(directory_.Path().c_str(), 0755);
    }
    static int InOtherAccount(const std::function<int()> &task) {
        return InChild([&] { return setuid(kOtherAccount) != 0 ? 100 : task(); });
    }
};

TEST_F(UnreplaceableFileTest, IsOverwritten) {
    EXPECT_EQ(InOtherAccount([this] {
                  return JsonToFile(JsonToString(document_), path_, Durability::Reboot) ? 0 : 1;
              }),
              0);
    EXPECT_EQ(ReadText(path_), JsonToString(document_) + "\n");
    EXPECT_EQ(ModeOf(path_), 0666U);
    EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config"));
}

TEST_F(UnreplaceableFileTest, StaysWholeWhenTheNewDocumentDoesNotFit) {
    EXPECT_EQ(InChild([this] {
                  // A separate file system of 64 KiB.
                  if (unshare(CLONE_NEWNS) != 0 ||
                      mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                      mount("tmpfs", directory_.Path().c_str(), "tmpfs", 0, "size=64k") != 0)
                      return 1;
                  WriteText(path_, "[\"old\"]");
                  chmod(path_.c_str(), 0666);
                  chmod(directory_.Path().c_str(), 0755);
                  if (setuid(kOtherAccount) != 0)
                      return 2;
                  if (Save(Json::Value(std::string(100000, 'y')), path_) || errno != ENOSPC)
                      return 3;
                  return ReadText(path_) == "[\"old\"]" ? 0 : 4;
              }),
              0);
}

TEST_F(UnreplaceableFileTest, IsLeftAloneWhenItHasAnotherName) {
    const std::string before = ReadText(path_);
    std::filesystem::create_hard_link(path_, directory_.File("second-name"));
    EXPECT_EQ(InOtherAccount([this] { return Save(document_, path_) || errno != EPERM; }), 0);
    EXPECT_EQ(ReadText(path_), before);
}

TEST_F(JsonToFileTest, DoesNotTouchADevice) {
    const std::string device = directory_.File("null");
    ASSERT_EQ(mknod(device.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    std::filesystem::create_symlink(device, path_);
    EXPECT_FALSE(Save(document_, path_));
    EXPECT_EQ(errno, EINVAL);
    struct stat status {};
    ASSERT_EQ(lstat(device.c_str(), &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST_F(JsonToFileTest, ReplacesALongerDocument) {
    Json::Value longer(std::string(100000, 'x'));
    EXPECT_TRUE(Save(longer, path_));
    EXPECT_TRUE(Save(document_, path_));
    EXPECT_EQ(ReadBack(path_), document_);
}

TEST_F(JsonToFileTest, KeepsALinkAndWritesItsTarget) {
    const std::string real = directory_.File("real");
    WriteText(real, "old");
    std::filesystem::permissions(real, std::filesystem::perms(0640));
    std::filesystem::create_symlink("real", path_);
    EXPECT_TRUE(Save(document_, path_));
    EXPECT_TRUE(std::filesystem::is_symlink(path_));
    EXPECT_EQ(ReadBack(real), document_);
    EXPECT_EQ(ModeOf(real), 0640U);
    EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config", "real"));
}

TEST_F(JsonToFileTest, SavesALargeDocument) {
    const Json::Value large(std::string(std::size_t{70} << 20, 'x'));
    EXPECT_TRUE(Save(large, path_));
    EXPECT_EQ(ReadBack(path_), large);
}

TEST_F(JsonToFileTest, CreatesTheTargetOfADanglingLink) {
    const std::string link = directory_.File("link");
    ASSERT_EQ(symlink("second", link.c_str()), 0);
    ASSERT_EQ(symlink(path_.c_str(), directory_.File("second").c_str()), 0);
    EXPECT_TRUE(Save(document_, link));
    EXPECT_EQ(ReadBack(path_), document_);
    EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config", "link", "second"));
    EXPECT_EQ(std::filesystem::read_symlink(link), "second");
}

// A reader that opened the old document reads it to its end.
TEST_F(JsonToFileTest, DoesNotChangeAnOpenOldDocument) {
    WriteText(path_, "[\"old\"]");
    std::filesystem::create_hard_link(path_, directory_.File("second-name"));
    EXPECT_TRUE(Save(document_, path_));
    EXPECT_EQ(ReadText(directory_.File("second-name")), "[\"old\"]");
}

TEST_F(JsonToFileTest, ReplacesAFileLeftByACrash) {
    const std::string victim = directory_.File("victim");
    WriteText(victim, "untouched");
    std::filesystem::create_symlink(victim, path_ + ".new");
    EXPECT_TRUE(Save(document_, path_));
    EXPECT_EQ(ReadText(victim), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(path_));
    EXPECT_EQ(ReadBack(path_), document_);
    EXPECT_FALSE(PathExists(path_ + ".new"));
}

TEST_F(JsonToFileTest, KeepsTheOldDocumentWhenTheNewOneDoesNotFit) {
    WriteText(path_, "[\"old\"]");
    EXPECT_EQ(InChild([this] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{16, 16};
                  if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                      return 1;
                  errno = 0;
                  if (Save(Json::Value(std::string(1000, 'x')), path_))
                      return 2;
                  return errno == EFBIG ? 0 : 3;
              }),
              0);
    EXPECT_EQ(ReadText(path_), "[\"old\"]");
    EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config"));
}

TEST_F(JsonToFileTest, FailsWhenNoFileCanBeCreated) {
    const std::string standing = directory_.File("standing");
    std::filesystem::create_directory(standing);
    EXPECT_FALSE(Save(document_, standing));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(Save(document_, directory_.File("absent/file")));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(directory_.Names(), ElementsAre("standing"));

    WriteText(path_, "[\"old\"]");
    std::filesystem::create_directory(path_ + ".new");
    EXPECT_FALSE(Save(document_, path_));
    EXPECT_EQ(ReadText(path_), "[\"old\"]");
}

TEST_F(JsonToFileTest, LeavesNoDescriptorOpen) {
    const int before = OpenDescriptors();
    EXPECT_TRUE(JsonToFile(JsonToString(document_), path_, Durability::Reboot));
    EXPECT_FALSE(Save(document_, directory_.Path()));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_THAT(directory_.Names(), ElementsAre("kestcrond.config"));
}

TEST_F(JsonFromFileTest, ReturnsTheTextAndItsFault) {
    const struct {
        std::string text;
        std::string fault;
    } rows[] = {
        {"[1]", ""},
        {"{\n  \"a\": }", "* Line 2, Column 8"},
        {std::string("[1]\0", 4), "zero byte"},
        {std::string(65, '[') + std::string(65, ']'), "deeper than 64 levels"},
    };
    for (const auto &row : rows) {
        Json::Value value;
        JsonOrigin origin{"what was read before", "of that"};
        JsonFromFile(Write(row.text), value, kLimits, &origin);
        EXPECT_EQ(origin.text, row.text);
        EXPECT_THAT(origin.fault, testing::HasSubstr(row.fault));
        EXPECT_EQ(origin.fault.empty(), row.fault.empty());
    }
}

TEST_F(JsonFromFileTest, ValuesHaveTheirOffsets) {
    Json::Value value;
    ASSERT_TRUE(JsonFromFile(Write(R"({"a": [1, "x"]})"), value, kLimits));
    EXPECT_EQ(value["a"].getOffsetStart(), 6);
    EXPECT_EQ(value["a"][1].getOffsetStart(), 10);
    EXPECT_EQ(value["a"][1].getOffsetLimit(), 13);
}

} // namespace

} // namespace kest
