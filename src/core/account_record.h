// The result of the process that reads an account directory, as bytes in memory that it shares with
// the daemon.

#ifndef CORE_ACCOUNT_RECORD_H
#define CORE_ACCOUNT_RECORD_H

#include "core/account_files.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kest {

// The largest number of directory entries that are read; reading more takes too long.
constexpr std::size_t kMostEntries = std::size_t{1} << 18;

// The largest number of entries that are listed: those within the quota, and some more whose names
// are reported.
std::size_t MostFiles(const AccountQuota &quota);

// The largest size of a record: names of full length, texts up to the quota.
std::size_t LongestRecord(const AccountQuota &quota);

// `error` is the errno value of a reading that failed.
std::string RecordOf(AccountReading reading, int error, const AccountFiles &files);

// Parses a record; bytes after it are ignored. The process that wrote it is not trusted, so the
// record is checked against `quota`. Returns Failed with errno set for an invalid record.
AccountReading ParseRecord(std::string_view record, const AccountQuota &quota, AccountFiles &files);

} // namespace kest

#endif
