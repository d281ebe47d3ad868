#include "core/job_files.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace {

TEST(JobFiles, AreAllButHiddenOnes) {
    EXPECT_TRUE(IsJobFileName("a.conf"));
    EXPECT_TRUE(IsJobFileName("a"));
    EXPECT_TRUE(IsJobFileName("a.conf~"));
    EXPECT_FALSE(IsJobFileName(".a.conf"));
    EXPECT_FALSE(IsJobFileName(".."));
    EXPECT_FALSE(IsJobFileName(""));
}

TEST(JobFiles, OfAnAccountShareTheRoomOfOne) {
    const JobDirectory shared{"/d", "pkg", ""};
    const JobDirectory own{"/d", "pkg_nonroot", "alice"};
    JsonLimits room{5000, 64};
    EXPECT_TRUE(TakeRoom(room, shared, 6000, 9));
    EXPECT_EQ(room.bytes, 5000U);
    EXPECT_TRUE(TakeRoom(room, own, 60, 0)); // no document, or one without jobs
    EXPECT_EQ(room.bytes, 4940U);
    EXPECT_TRUE(TakeRoom(room, own, 2000, 1));
    EXPECT_EQ(room.bytes, 2940U);
    EXPECT_FALSE(TakeRoom(room, own, 100, 3)); // it was read, for nothing
    EXPECT_EQ(room.bytes, 2840U);
    EXPECT_TRUE(TakeRoom(room, own, 100, 2));
    EXPECT_EQ(room.bytes, 792U);
    EXPECT_FALSE(TakeRoom(room, own, 900, 0));
    EXPECT_EQ(room.bytes, 0U);
}

TEST(Definitions, AreTheElementsOrTheOneObject) {
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
}

TEST(Definitions, GetTheirFullNames) {
    Json::Value definition = FromText(R"({"name": "a", "user": "root"})");
    EXPECT_TRUE(NameDefinition(definition, {"/d", "pkg", ""}, "file"));
    EXPECT_EQ(definition, FromText(R"({"name": "pkg-file-a", "user": "root"})"));
}

TEST(Definitions, OfAnAccountRunAsIt) {
    Json::Value definition =
        FromText(R"({"name": "a", "user": "root", "package_username": "bob"})");
    EXPECT_TRUE(NameDefinition(definition, {"/d", "pkg_nonroot", "alice"}, "file"));
    EXPECT_EQ(definition, FromText(R"({"name": "pkg_nonroot-alice-file-a", "user": "package",
                                       "package_username": "alice"})"));
}

TEST(Definitions, WithoutANameStayAsTheyAre) {
    for (const char *text : {R"({"name": 1, "user": "root"})", R"({"user": "root"})", "[]", "7",
                             R"("name")", "null"}) {
        Json::Value definition = FromText(text);
        EXPECT_FALSE(NameDefinition(definition, {"/d", "pkg_nonroot", "alice"}, "f")) << text;
        EXPECT_EQ(definition, FromText(text)) << text;
    }
}

} // namespace
