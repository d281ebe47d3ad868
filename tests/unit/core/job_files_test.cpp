#include "core/job_files.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(JobFiles, AreAllEntriesExceptHiddenOnes) {
    EXPECT_TRUE(IsJobFileName("a.conf"));
    EXPECT_TRUE(IsJobFileName("a"));
    EXPECT_TRUE(IsJobFileName("a.conf~"));
    EXPECT_FALSE(IsJobFileName(".a.conf"));
    EXPECT_FALSE(IsJobFileName(".."));
    EXPECT_FALSE(IsJobFileName(""));
}

TEST(AccountQuota, AdmitsFilesAndJobsUpToItsLimit) {
    AccountQuota quota{5000, 0};
    EXPECT_TRUE(ChargeFile(quota, 0)); // an entry that is not a file
    EXPECT_EQ(quota.bytes, 3976U);
    EXPECT_TRUE(ChargeFile(quota, 1024));
    EXPECT_TRUE(ChargeJobs(quota, 1024, 1)); // the first job is charged with its file
    EXPECT_EQ(quota.bytes, 2952U);
    EXPECT_TRUE(ChargeFile(quota, 1500));
    EXPECT_TRUE(ChargeJobs(quota, 1500, 2));
    EXPECT_EQ(quota.bytes, 904U);
    EXPECT_FALSE(ChargeFile(quota, 10));
    EXPECT_EQ(quota.bytes, 0U);
    EXPECT_FALSE(ChargeFile(quota, 0));
    EXPECT_TRUE(ChargeJobs(quota, 10, 1));
    EXPECT_FALSE(ChargeJobs(quota, 10, 2));
    EXPECT_EQ(quota.bytes, 0U);
}

TEST(AccountQuota, ChargesAFileThatDoesNotFitAsAnEntry) {
    AccountQuota quota{5000, 0};
    EXPECT_FALSE(ChargeFile(quota, 5001));
    EXPECT_EQ(quota.bytes, 3976U);
    EXPECT_TRUE(ChargeFile(quota, 3976));
}

TEST(AccountQuota, AdmitsDocumentsUpToItsLimit) {
    AccountQuota quota{0, 3000};
    EXPECT_TRUE(ChargeDocument(quota, 2000));
    EXPECT_FALSE(ChargeDocument(quota, 1001));
    EXPECT_TRUE(ChargeDocument(quota, 1000));
    EXPECT_EQ(quota.documentBytes, 0U);
}

TEST(LeftOut, IsListedInOneText) {
    LeftOut leftOut;
    EXPECT_TRUE(leftOut.Empty());
    leftOut.Add("d/a");
    EXPECT_FALSE(leftOut.Empty());
    EXPECT_EQ(leftOut.Text(), "d/a");
    for (const char *name : {"b", "c", "d", "e", "f", "g", "h", "i", "j"})
        leftOut.Add(name);
    EXPECT_EQ(leftOut.Text(), "d/a, b, c, d, e, f, g, h, i, j");
    leftOut.Add("k");
    EXPECT_EQ(leftOut.Text(), "d/a, b, c, d, e, f, g, h, i, j and 1 more");
    leftOut.AddUnnamed(5, false);
    EXPECT_EQ(leftOut.Text(), "d/a, b, c, d, e, f, g, h, i, j and 6 more");
    leftOut.AddUnnamed(1, true);
    EXPECT_EQ(leftOut.Text(), "d/a, b, c, d, e, f, g, h, i, j and at least 7 more");
}

TEST(Definitions, AreTheElementsOrTheSingleObject) {
    struct {
        const char *document;
        const char *definitions;
    } const rows[] = {
        {R"([{"name": "a"}, 1])", R"([{"name": "a"}, 1])"},
        {R"({"name": "a", "cmd": "x"})", R"([{"name": "default", "cmd": "x"}])"},
        {"{}", R"([{"name": "default"}])"},
        {"[]", "[]"},
        {R"("text")", "[]"},
        {"7", "[]"},
        {"null", "[]"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(DefinitionsOf(FromText(row.document)), FromText(row.definitions)) << row.document;
    for (const auto &row : rows)
        EXPECT_EQ(CountOfDefinitions(FromText(row.document)), FromText(row.definitions).size());
}

TEST(Definitions, GetTheirFullNames) {
    Json::Value definition = FromText(R"({"name": "a", "user": "root"})");
    EXPECT_TRUE(NameDefinition(definition, {"/d", "pkg", ""}, "file"));
    EXPECT_EQ(definition, FromText(R"({"name": "pkg-file-a", "user": "root"})"));
}

TEST(Definitions, RunAsTheAccountOfTheDirectory) {
    Json::Value definition =
        FromText(R"({"name": "a", "user": "root", "package_username": "bob"})");
    EXPECT_TRUE(NameDefinition(definition, {"/d", "pkg_nonroot", "alice"}, "file"));
    EXPECT_EQ(definition, FromText(R"({"name": "pkg_nonroot-alice-file-a", "user": "package",
                                       "package_username": "alice"})"));
}

TEST(Definitions, WithoutANameStayUnchanged) {
    for (const char *text : {R"({"name": 1, "user": "root"})", R"({"user": "root"})", "[]", "7",
                             R"("name")", "null"}) {
        Json::Value definition = FromText(text);
        EXPECT_FALSE(NameDefinition(definition, {"/d", "pkg_nonroot", "alice"}, "f")) << text;
        EXPECT_EQ(definition, FromText(text)) << text;
    }
}

} // namespace

namespace {

TEST(FileBaseName, RemovesEveryConf) {
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
