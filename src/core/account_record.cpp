#include "core/account_record.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace kest {

std::size_t MostFiles(const AccountQuota &quota) {
    return quota.bytes / kLeastCharge + LeftOut::kMostNames;
}

std::size_t LongestRecord(const AccountQuota &quota) {
    constexpr std::size_t perFile = NAME_MAX + 3 * sizeof(std::uint64_t);
    return quota.bytes + (MostFiles(quota) + 2) * perFile;
}

namespace {

// Write and parse a number and a text. Take returns false when the record is too short.
void Put(std::string &record, std::uint64_t number) {
    record.append(reinterpret_cast<const char *>(&number), sizeof number);
}

void Put(std::string &record, const std::string &text) {
    Put(record, text.size());
    record += text;
}

bool Take(std::string_view &record, std::uint64_t &number) {
    if (record.size() < sizeof number)
        return false;
    std::memcpy(&number, record.data(), sizeof number);
    record.remove_prefix(sizeof number);
    return true;
}

bool Take(std::string_view &record, std::string &text) {
    std::uint64_t size = 0;
    if (!Take(record, size) || size > record.size())
        return false;
    text = record.substr(0, static_cast<std::size_t>(size));
    record.remove_prefix(text.size());
    return true;
}

} // namespace

std::string RecordOf(AccountReading reading, int error, const AccountFiles &files) {
    std::string record;
    Put(record, static_cast<std::uint64_t>(reading));
    Put(record, static_cast<std::uint64_t>(error));
    Put(record, files.unread);
    Put(record, files.more ? 1 : 0);
    Put(record, files.files.size());
    for (const AccountFile &file : files.files) {
        Put(record, file.name);
        Put(record, static_cast<std::uint64_t>(file.error));
        Put(record, file.text);
    }
    return record;
}

namespace {

bool TakeFiles(std::string_view record, const AccountQuota &quota, AccountFiles &files) {
    std::uint64_t unread = 0;
    std::uint64_t more = 0;
    std::uint64_t count = 0;
    if (!Take(record, unread) || !Take(record, more) || !Take(record, count) ||
        unread > kMostEntries || count > MostFiles(quota))
        return false;
    files.unread = static_cast<std::size_t>(unread);
    files.more = more != 0;
    files.files.resize(static_cast<std::size_t>(count));
    for (AccountFile &file : files.files) {
        std::uint64_t error = 0;
        if (!Take(record, file.name) || !Take(record, error) || !Take(record, file.text) ||
            !IsJobFileName(file.name) || file.name.size() > NAME_MAX ||
            file.name.find('/') != std::string::npos || error > INT_MAX)
            return false;
        file.error = static_cast<int>(error);
    }
    return true;
}

} // namespace

AccountReading ParseRecord(std::string_view record, const AccountQuota &quota,
                           AccountFiles &files) {
    std::uint64_t reading = 0;
    std::uint64_t error = 0;
    const bool whole = Take(record, reading) && Take(record, error) && error <= INT_MAX;
    if (whole && reading == static_cast<std::uint64_t>(AccountReading::Done) &&
        TakeFiles(record, quota, files))
        return AccountReading::Done;
    const bool notOpened =
        whole && reading == static_cast<std::uint64_t>(AccountReading::NotOpened);
    errno = whole && error != 0 ? static_cast<int>(error) : EBADMSG;
    return notOpened ? AccountReading::NotOpened : AccountReading::Failed;
}

} // namespace kest
