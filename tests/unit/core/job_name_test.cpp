#include "core/job_name.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(FileBaseName, HasNoConfInIt) {
    struct Row {
        const char *file;
        const char *base;
    };
    const Row rows[] = {
        {"backup.conf", "backup"}, {"a.conf.conf", "a"},    {"noext", "noext"},
        {"my.config", "myig"},     {"a.confb.conf", "ab"},  {".conf", ""},
        {"conf", "conf"},          {"a.CONF", "a.CONF"},    {"a.con.conff", "a.conf"},
        {"a.co.confnf", "a.conf"}, {"a.json", "a.json"},    {"", ""},
        {"a.conf~", "a~"},         {"x.conf.bak", "x.bak"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(FileBaseName(row.file), row.base) << row.file;
}

TEST(FullJobName, JoinsItsParts) {
    EXPECT_EQ(FullJobName("pkg", "", "foo", "bar"), "pkg-foo-bar");
    EXPECT_EQ(FullJobName("pkg_nonroot", "alice", "foo", "bar"), "pkg_nonroot-alice-foo-bar");
    EXPECT_EQ(FullJobName("builtin-dyn", "", "x", "default"), "builtin-dyn-x-default");
    EXPECT_EQ(FullJobName("builtin", "", "dyn-x", "default"), "builtin-dyn-x-default");
    EXPECT_EQ(FullJobName("builtin", "", "", ""), "builtin--");
    EXPECT_EQ(FullJobName("pkg", "", "foo", "a/b c"), "pkg-foo-a/b c");
}

} // namespace

} // namespace kest
