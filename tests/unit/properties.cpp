// Properties that hold for any input, tested with random inputs from a fixed seed.

#include "base/json_members.h"
#include "base/json_text.h"
#include "core/job_files.h"
#include "job/cronjob.h"
#include "job/schedule.h"
#include "platform/json_file.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/json_text.h"
#include "tests/unit/syslog_capture.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <json/writer.h>
#include <random>
#include <set>
#include <sstream>

namespace kest {

namespace {

class Chance {
public:
    explicit Chance(unsigned seed) : bits_(seed) {}
    int Between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(bits_); }
    bool OneIn(int count) { return Between(1, count) == 1; }

private:
    std::mt19937 bits_;
};

// --- Due matching -------------------------------------------------------------------------------

struct Bounds {
    int low;
    int high;
};
constexpr Bounds kFieldBounds[] = {{0, 59}, {0, 23}, {1, 31}, {1, 12}, {0, 6}};

// A field that admits enough values for some matches in a year.
std::string SomeField(Chance &chance, const Bounds &bounds) {
    if (chance.OneIn(3))
        return "*";
    std::string field;
    for (int items = chance.Between(1, 6); items > 0; --items) {
        const int low = chance.Between(bounds.low, bounds.high);
        field += (field.empty() ? "" : ",") + std::to_string(low);
        if (chance.OneIn(3))
            field += "~" + std::to_string(chance.Between(low, bounds.high));
    }
    return field;
}

CronJob SomeJob(Chance &chance) {
    std::string crontab;
    for (const Bounds &bounds : kFieldBounds)
        crontab += (crontab.empty() ? "" : " ") + SomeField(chance, bounds);
    Json::Value document;
    document["config"] = FromText(R"({"name": "x", "user": "root", "cmd": "x", "period": "c"})");
    document["config"]["crontab"] = crontab;
    CronJob job(document);
    EXPECT_TRUE(job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        job.GenerateSchedule(key);
    return job;
}

// The slow and obvious way: parses the text of the schedule.
bool Matches(const std::string &rendered, const std::vector<int> &moment) {
    std::istringstream fields(rendered);
    for (const int part : moment) {
        std::string field;
        fields >> field;
        field.insert(0, ",").append(",");
        if (field.find("," + std::to_string(part) + ",") == std::string::npos &&
            field.find(",-1,") == std::string::npos)
            return false;
    }
    return true;
}

// A calendar that counts days from Thursday, 1 January 2026.
class SimpleCalendar {
public:
    void NextDay() {
        weekday_ = (weekday_ + 1) % 7;
        constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        if (++day_ > days[month_ - 1]) {
            day_ = 1;
            ++month_;
        }
    }
    std::vector<int> At(int hour, int minute) const {
        return {minute, hour, day_, month_, weekday_};
    }

private:
    int day_ = 1;
    int month_ = 1;
    int weekday_ = 4;
};

TEST(Property, AJobIsDueInExactlyTheMinutesOfAYearThatItsScheduleNames) {
    const LocalZone zone("UTC");
    FixedClock clock(0);
    Chance chance(1);
    int matches = 0;
    for (int round = 0; round < 4; ++round) {
        const CronJob job = SomeJob(chance);
        const std::string rendered = job.RenderSchedule();
        SimpleCalendar calendar;
        std::int64_t now = Utc(2026, 1, 1, 0, 0, 30);
        for (int day = 0; day < 365; ++day, calendar.NextDay()) {
            for (int minute = 0; minute < 1440; ++minute, now += 60) {
                clock.Set(now);
                const bool expected = Matches(rendered, calendar.At(minute / 60, minute % 60));
                ASSERT_EQ(job.IsDueNow(), expected) << rendered << " at " << now;
                matches += expected ? 1 : 0;
            }
        }
    }
    EXPECT_GT(matches, 1000) << "too few matches";
}

TEST(Property, DrawnValuesLieInTheirItems) {
    Chance chance(2);
    KEST::RANDOM::KESTRandom random;
    for (int round = 0; round < 20000; ++round) {
        const auto field = static_cast<std::size_t>(chance.Between(0, 4));
        const Bounds &bounds = kFieldBounds[field];
        CronRange item;
        item.type = CronRange::Random;
        item.from = chance.Between(bounds.low, bounds.high);
        item.to = chance.Between(item.from, bounds.high);
        const int shared = chance.Between(-2, 70);
        const std::vector<std::int32_t> drawn =
            DrawField(FieldKeys()[field], {item}, shared, random);
        ASSERT_EQ(drawn.size(), 1U);
        const int value = drawn[0];
        ASSERT_TRUE(item.from <= value && value <= item.to) << item.from << '~' << item.to;
        if (item.from <= shared && shared <= item.to) {
            ASSERT_EQ(value, shared);
        }
    }
}

// --- Documents ----------------------------------------------------------------------------------

Json::Value SomeLeaf(Chance &chance) {
    switch (chance.Between(0, 5)) {
    case 0:
        return {};
    case 1:
        return chance.OneIn(2);
    case 2:
        return Json::Int64{chance.Between(-1000000, 1000000)} * chance.Between(1, 1000000);
    case 3:
        return chance.Between(-1000, 1000) / 7.0;
    default:
        std::string text;
        for (int length = chance.Between(0, 8); length > 0; --length) {
            text += static_cast<char>(chance.Between(0, 127));
            if (chance.OneIn(4))
                text += chance.OneIn(2) ? "\xc3\xa9" : "\xf0\x9f\x98\x80";
        }
        return text;
    }
}

std::string SomeBytes(Chance &chance) {
    std::string bytes;
    for (int length = chance.Between(0, 8); length > 0; --length)
        bytes += static_cast<char>(chance.Between(0, 255));
    return bytes;
}

Json::Value SomeDocument(Chance &chance, int depth) {
    if (depth == 0 || chance.OneIn(4))
        return SomeLeaf(chance);
    const bool isArray = chance.OneIn(2);
    Json::Value document(isArray ? Json::arrayValue : Json::objectValue);
    for (int members = chance.Between(0, 4); members > 0; --members) {
        if (isArray)
            document.append(SomeDocument(chance, depth - 1));
        else
            document["m" + std::to_string(chance.Between(0, 9))] = SomeDocument(chance, depth - 1);
    }
    return document;
}

// Calls `visit` with every value inside `document`, itself included.
void ForEach(Json::Value &document, const std::function<void(Json::Value &)> &visit) {
    visit(document);
    for (Json::Value &member : document)
        ForEach(member, visit);
}

TEST(Property, AnExtendedDocumentContainsItsOriginal) {
    Chance chance(3);
    for (int round = 0; round < 3000; ++round) {
        const Json::Value document = SomeDocument(chance, 4);
        ASSERT_TRUE(JsonContains(document, document)) << JsonToString(document);
        Json::Value more = document;
        ForEach(more, [&](Json::Value &value) {
            if (value.isObject() && chance.OneIn(2))
                value["gained"] = chance.Between(0, 9);
        });
        ASSERT_TRUE(JsonContains(document, more)) << JsonToString(more);
        if (more != document) {
            ASSERT_FALSE(JsonContains(more, document)) << JsonToString(more);
        }
    }
}

TEST(Property, AChangedDocumentDoesNotContainItsOriginal) {
    Chance chance(4);
    for (int round = 0; round < 3000; ++round) {
        const Json::Value document = SomeDocument(chance, 4);
        Json::Value other = document;
        std::vector<Json::Value *> values;
        ForEach(other, [&](Json::Value &value) { values.push_back(&value); });
        Json::Value &changed = *values[static_cast<std::size_t>(
            chance.Between(0, static_cast<int>(values.size()) - 1))];
        if (changed.isObject() && changed.empty())
            continue; // every object contains an empty object
        changed = changed.isArray() && changed.empty() ? Json::Value(0) : Json::Value("changed \n");
        ASSERT_FALSE(JsonContains(document, other)) << JsonToString(other);
    }
}

TEST(Property, TextIsFormattedAsByTheLibrary) {
    Chance chance(8);
    Json::StreamWriterBuilder library;
    library["commentStyle"] = "None";
    for (int round = 0; round < 3000; ++round) {
        Json::Value document = SomeDocument(chance, 5);
        ForEach(document, [&](Json::Value &value) {
            if (value.isArray() && chance.OneIn(3))
                for (int more = chance.Between(1, 30); more > 0; --more)
                    value.append(SomeLeaf(chance));
            if (value.isObject() && chance.OneIn(3))
                value[SomeBytes(chance)] = SomeBytes(chance);
        });
        ASSERT_EQ(JsonToString(document), Json::writeString(library, document));
    }
}

TEST(Property, SavedDocumentsAreReadBackUnchanged) {
    Chance chance(5);
    const TemporaryDirectory directory;
    const std::string path = directory.File("document");
    for (int round = 0; round < 2000; ++round) {
        const Json::Value document = SomeDocument(chance, 6);
        ASSERT_TRUE(JsonToFile(JsonToString(document), path, Durability::Process));
        Json::Value read;
        ASSERT_TRUE(JsonFromFile(path, read, kOwnFileLimits)) << JsonToString(document);
        ASSERT_EQ(read, document);
    }
}

TEST(Property, ADefinitionReadBackFromARuntimeDocumentIsUnchanged) {
    SyslogCapture capture;
    Chance chance(6);
    const TemporaryDirectory directory;
    const std::string path = directory.File("document");
    for (int round = 0; round < 500; ++round) {
        Json::Value config =
            FromText(R"({"name": "x", "user": "root", "cmd": "x", "period": "h"})");
        config["own"] = SomeDocument(chance, 4);
        Json::Value document;
        document["config"] = config;
        const CronJob fresh(document);
        ASSERT_TRUE(fresh.valid);
        ASSERT_TRUE(JsonToFile(JsonToString(fresh.Document()), path, Durability::Process));
        Json::Value saved;
        ASSERT_TRUE(JsonFromFile(path, saved, kOwnFileLimits));
        ASSERT_TRUE(JsonContains(saved["config"], fresh.Document()["config"]));
    }
    EXPECT_TRUE(capture.Messages().empty());
}

// --- Names --------------------------------------------------------------------------------------

TEST(Property, NamesCollideOnlyThroughDashes) {
    Chance chance(7);
    const auto part = [&] {
        std::string text;
        for (int length = chance.Between(0, 2); length > 0; --length)
            text += "ab. "[chance.Between(0, 3)];
        return text;
    };
    std::set<std::vector<std::string>> jobs;
    std::set<std::string> names;
    for (int round = 0; round < 20000; ++round) {
        const char *label = std::vector<const char *>{
            "builtin", "builtin-dyn", "pkg",
            "pkg_nonroot"}[static_cast<std::size_t>(chance.Between(0, 3))];
        const std::string account =
            label == std::string("pkg_nonroot") ? "a" + part() : std::string();
        const std::vector<std::string> job{label, account, part(), part()};
        jobs.insert(job);
        names.insert(FullJobName(job[0], job[1], job[2], job[3]));
    }
    EXPECT_EQ(names.size(), jobs.size());
}

} // namespace

} // namespace kest
