// Checks the member "crontab" of a definition whose period is "crontab".

#ifndef CTL_CHECK_CRONTAB_H
#define CTL_CHECK_CRONTAB_H

#include "ctl/check/diagnostic.h"
#include "job/cron_field.h"
#include "job/definition.h"

#include <cstddef>
#include <optional>
#include <string>

namespace kest::ctl {

// The offset of the expression in the file; nothing if it is written with escape sequences.
std::optional<std::size_t> StartOfCrontab(const CheckedDefinition &checked);

// Adds an error for an invalid item. `start` is the result of StartOfCrontab; it is passed in
// because computing it takes linear time.
void AddItemError(CheckedDefinition &checked, const DefinitionFault &fault,
                  std::optional<std::size_t> start);

// Adds an error for an expression that does not have five fields.
void AddFieldCountError(CheckedDefinition &checked, const DefinitionFault &fault);

// Adds warnings about items that the daemon reads differently than their author probably intended,
// and about days that never match. `fields` come from the expression, which must be valid.
void CheckCrontab(CheckedDefinition &checked, const CronFields &fields);

// The remark on an expression whose random minute may be 0 while its hour is not "*"; empty for all
// others.
std::string LostRuns(const CronFields &fields);

// The remark on an expression with a day that only some months have, if its month is "*"; empty for
// all others.
std::string RareDays(const CronFields &fields);

} // namespace kest::ctl

#endif
