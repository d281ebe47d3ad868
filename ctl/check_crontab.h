// What is wrong or hardly meant in the "crontab" of a definition that runs by it.

#ifndef CTL_CHECK_CRONTAB_H
#define CTL_CHECK_CRONTAB_H

#include "ctl/problem.h"
#include "job/cron_field.h"

// All that keeps the text from being an expression.
void FindCrontabErrors(Subject &subject);

// What is read otherwise than it looks, and schedules that leave out more than meets the eye.
// `fields` are those of the expression, which has no errors.
void FindCrontabWarnings(Subject &subject, const CronFields &fields);

#endif
