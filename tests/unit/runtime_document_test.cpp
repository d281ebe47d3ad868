#include "core/runtime_document.h"

#include "platform/json_text.h"
#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace {

CronJob Job(const std::string &name) {
    Json::Value document = FromText(R"({"config": {"user": "root", "cmd": "x", "period": "d"}})");
    document["config"]["name"] = name;
    return CronJob(std::move(document));
}

TEST(RuntimeDocument, HasTheDocumentOfEachJobByItsName) {
    const std::vector<CronJob> jobs{Job("a"), Job("b \"\n"), Job("c")};
    Json::Value expected;
    for (const CronJob &job : jobs)
        expected["jobs"][job.Name()] = job.Document();
    EXPECT_EQ(RuntimeDocument(jobs), JsonToString(expected));
}

TEST(RuntimeDocument, HasTheJobsOfBothListsInTheOrderOfTheirNames) {
    Json::Value expected;
    for (const char *name : {"a", "b", "c", "d"})
        expected["jobs"][name] = Job(name).Document();
    EXPECT_EQ(RuntimeDocument({Job("b"), Job("c")}, {Job("a"), Job("d")}), JsonToString(expected));
    EXPECT_EQ(RuntimeDocument({}, {Job("a"), Job("b"), Job("c"), Job("d")}),
              JsonToString(expected));
}

TEST(RuntimeDocument, OfNoJobsIsAnEmptyObject) {
    EXPECT_EQ(RuntimeDocument({}), "{}");
}

} // namespace
