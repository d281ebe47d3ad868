#include "core/account_record.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace kest {

namespace {

const AccountQuota kQuota{4 * kLeastCharge, 0};

AccountFiles SomeFiles() {
    AccountFiles files;
    files.files = {{"a", 0, "text"}, {"b.conf", EACCES, ""}, {"c", 0, std::string("\0\n", 2)}};
    files.unread = 7;
    files.more = true;
    return files;
}

void ExpectEqual(const AccountFiles &a, const AccountFiles &b) {
    ASSERT_EQ(a.files.size(), b.files.size());
    for (std::size_t i = 0; i < a.files.size(); ++i) {
        EXPECT_EQ(a.files[i].name, b.files[i].name);
        EXPECT_EQ(a.files[i].error, b.files[i].error);
        EXPECT_EQ(a.files[i].text, b.files[i].text);
    }
    EXPECT_EQ(a.unread, b.unread);
    EXPECT_EQ(a.more, b.more);
}

TEST(AccountRecord, RoundTrips) {
    const std::string record = RecordOf(AccountReading::Done, 0, SomeFiles());
    EXPECT_LE(record.size(), LongestRecord(kQuota));
    AccountFiles files;
    EXPECT_EQ(ParseRecord(record + "anything", kQuota, files), AccountReading::Done);
    ExpectEqual(files, SomeFiles());
}

TEST(AccountRecord, CarriesTheErrorOfAFailure) {
    AccountFiles files;
    EXPECT_EQ(ParseRecord(RecordOf(AccountReading::NotOpened, ENOTDIR, {}), kQuota, files),
              AccountReading::NotOpened);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(ParseRecord(RecordOf(AccountReading::Failed, EPERM, {}), kQuota, files),
              AccountReading::Failed);
    EXPECT_EQ(errno, EPERM);
}

TEST(AccountRecord, RejectsTruncatedRecords) {
    const std::string record = RecordOf(AccountReading::Done, 0, SomeFiles());
    for (std::size_t size = 0; size < record.size(); ++size) {
        AccountFiles files;
        EXPECT_EQ(ParseRecord(record.substr(0, size), kQuota, files), AccountReading::Failed);
        EXPECT_EQ(errno, EBADMSG) << size;
    }
}

TEST(AccountRecord, RejectsImpossibleValues) {
    for (const char *name : {"", ".hidden", "..", "a/b", "/etc/shadow"}) {
        AccountFiles files;
        files.files = {{name, 0, "[]"}};
        AccountFiles taken;
        EXPECT_EQ(ParseRecord(RecordOf(AccountReading::Done, 0, files), kQuota, taken),
                  AccountReading::Failed)
            << name;
    }
    AccountFiles many;
    many.files.resize(MostFiles(kQuota) + 1, {"a", 0, ""});
    AccountFiles uncounted;
    uncounted.unread = kMostEntries + 1;
    AccountFiles longName;
    longName.files = {{std::string(256, 'n'), 0, ""}};
    for (const AccountFiles &files : {many, uncounted, longName}) {
        AccountFiles taken;
        EXPECT_EQ(ParseRecord(RecordOf(AccountReading::Done, 0, files), kQuota, taken),
                  AccountReading::Failed);
    }
}

TEST(AccountRecord, ToleratesArbitraryBytes) {
    const std::string record = RecordOf(AccountReading::Done, 0, SomeFiles());
    for (std::size_t i = 0; i < record.size(); ++i)
        for (const char byte : {'\0', '\1', '\x7f', '\xff'}) {
            std::string odd = record;
            odd[i] = byte;
            AccountFiles files;
            ParseRecord(odd, kQuota, files);
            EXPECT_LE(files.files.size(), MostFiles(kQuota));
        }
}

} // namespace

} // namespace kest
