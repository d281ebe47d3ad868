#include "log/error_log.h"

#include "tests/unit/syslog_capture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <syslog.h>

namespace kest {

namespace {

TEST(TagOf, IsTheFileNameUpToItsFirstDot) {
    struct Row {
        const char *file;
        const char *tag;
    };
    const Row rows[] = {
        {"job/cronjob.cpp", "cronjob"},
        {"/a/b/crondaemon.cpp", "crondaemon"},
        {"utils.cpp", "utils"},
        {"memorylogger", "memorylogger"},
        {"a.b/kestcrond.cpp", "kestcrond"},
        {"a/two.dots.cpp", "two"},
        {"a/", ""},
        {"", ""},
        {".hidden", ""},
    };
    for (const Row &row : rows) {
        const SourceTag tag = TagOf(row.file);
        EXPECT_EQ(std::string(tag.text, static_cast<std::size_t>(tag.length)), row.tag) << row.file;
    }
}

struct MessageRow {
    int error;
    const char *message;
};

void ExpectOneMessage(const SyslogCapture &log, const MessageRow &row) {
    ASSERT_EQ(log.Messages().size(), 1U);
    EXPECT_EQ(log.Messages()[0].priority, LOG_ERR);
    EXPECT_EQ(log.Messages()[0].text, row.message);
    EXPECT_EQ(errno, row.error);
}

TEST(LogErrorAt, AppendsErrnoOnlyWhenItIsSet) {
    const MessageRow rows[] = {
        {0, "cronjob:212 user nobody not exist"},
        {ENOENT, "cronjob:212 user nobody not exist (No such file or directory)"},
        {EACCES, "cronjob:212 user nobody not exist (Permission denied)"},
    };
    for (const MessageRow &row : rows) {
        const SyslogCapture log;
        errno = row.error;
        LogErrorAt("/src/job/cronjob.cpp", 212, "user %s not exist", "nobody");
        ExpectOneMessage(log, row);
    }
}

TEST(LogErrorAt, FormatsErrnoInsideTheText) {
    const MessageRow rows[] = {
        {0, "cronjob:7 Failed [rule], err=Success"},
        {ENOENT, "cronjob:7 Failed [rule], err=No such file or directory (No such file or "
                 "directory)"},
    };
    for (const MessageRow &row : rows) {
        const SyslogCapture log;
        errno = row.error;
        __extension__ LogErrorAt("cronjob.cpp", 7, "Failed [%s], err=%m", "rule");
        ExpectOneMessage(log, row);
    }
}

TEST(LogErrorAt, EscapesLineBreaks) {
    const SyslogCapture log;
    LogErrorAt("cronjob.cpp", 7, "missing binary %s", "/bin/a\nkestcrond: all is well\t\x1b[2J");
    ExpectOneMessage(log,
                     {0, "cronjob:7 missing binary /bin/a\\nkestcrond: all is well\\t\\x1b[2J"});
}

TEST(LogErrorAt, PassesArgumentsUnchanged) {
    const SyslogCapture log;
    LogErrorAt("cronjob.cpp", 7, "missing binary %s", "%s%n%m%d");
    ExpectOneMessage(log, {0, "cronjob:7 missing binary %s%n%m%d"});
}

TEST(LogErrorAt, CutsLongMessages) {
    const std::string path(100000, 'x');
    const SyslogCapture log;
    LogErrorAt("cronjob.cpp", 7, "%s", path.c_str());
    ASSERT_EQ(log.Messages().size(), 1U);
    const std::string &text = log.Messages()[0].text;
    EXPECT_EQ(text, "cronjob:7 " + path.substr(0, 8191 - 6) + " [cut]");
}

TEST(LogErrorAt, MarksACutByEscapes) {
    const struct {
        std::size_t length;
        const char *end;
    } rows[] = {{8190, "xx"}, {8191, "xx"}, {8192, " [cut]"}};
    for (const auto &row : rows) {
        const SyslogCapture log;
        LogErrorAt("cronjob.cpp", 7, "%s", std::string(row.length, 'x').c_str());
        const std::string &text = log.Messages().at(0).text;
        EXPECT_EQ(text.substr(text.size() - std::string(row.end).size()), row.end) << row.length;
    }
    const SyslogCapture log;
    LogErrorAt("cronjob.cpp", 7, "%s", std::string(3000, '\1').c_str());
    const std::string &text = log.Messages().at(0).text;
    EXPECT_EQ(text.size(), std::string("cronjob:7 ").size() + 8191);
    EXPECT_EQ(text.substr(text.size() - 6), " [cut]");
}

TEST(LogError, NamesTheLineItStandsIn) {
    const SyslogCapture log;
    errno = ENOENT;
    const std::string line = std::to_string(__LINE__ + 1);
    LOG_ERROR("open %s failed", "this");
    ExpectOneMessage(
        log,
        {ENOENT,
         ("error_log_test:" + line + " open this failed (No such file or directory)").c_str()});
}

} // namespace

} // namespace kest
