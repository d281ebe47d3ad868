// What the process that reads an account directory says to the daemon: the result as bytes in
// memory that both of them have.

#ifndef CORE_ACCOUNT_RECORD_H
#define CORE_ACCOUNT_RECORD_H

#include "core/account_files.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kest {

// As many entries of a directory are looked at; to go through more of them takes too long.
constexpr std::size_t kMostEntries = std::size_t{1} << 18;

// As many are listed: those that the quota admits, and some more to be told by their names.
std::size_t MostFiles(const AccountQuota &quota);

// How long a record is at most: each name as long as names are, the texts up to the quota.
std::size_t LongestRecord(const AccountQuota &quota);

// `error` is the errno of a reading that is not done.
std::string RecordOf(AccountReading reading, int error, const AccountFiles &files);

// Reads such a record, behind which anything may follow. The process that wrote it may have been
// led astray by what it read: what it says is held against what `quota` admits. Returns Failed,
// with errno set, for anything else.
AccountReading TakeReading(std::string_view record, const AccountQuota &quota, AccountFiles &files);

} // namespace kest

#endif
