// What is wrong or hardly meant in the "crontab" of a definition that runs by it.

#ifndef CTL_CHECK_CRONTAB_H
#define CTL_CHECK_CRONTAB_H

#include "ctl/check/diagnostic.h"
#include "job/cron_field.h"
#include "job/definition.h"

#include <cstddef>
#include <optional>

namespace kest::ctl {

// Where the expression begins in the file; nothing when its characters cannot be told apart there.
std::optional<std::size_t> StartOfCrontab(const CheckedDefinition &checked);

// Adds an item that cannot be used. `start` is StartOfCrontab(subject), which takes as long as the
// expression is.
void AddItemError(CheckedDefinition &checked, const DefinitionFault &fault,
                  std::optional<std::size_t> start);

// Adds an expression that does not have five fields.
void AddFieldCountError(CheckedDefinition &checked, const DefinitionFault &fault);

// What is read otherwise than it looks, and schedules that leave out more than meets the eye.
// `fields` are those of the expression, which has no errors.
void FindCrontabWarnings(CheckedDefinition &checked, const CronFields &fields);

} // namespace kest::ctl

#endif
