// What is wrong or hardly meant in the members of a job definition.

#ifndef CTL_CHECK_DEFINITION_H
#define CTL_CHECK_DEFINITION_H

#include "core/job_files.h"
#include "ctl/problem.h"
#include "job/cronjob.h"

#include <string>
#include <vector>

// Why the daemon refuses the definition: all that its rules tell, and `messages`, those of its
// parser, where they tell nothing. Called for what it refuses, this finds at least one error.
void FindErrors(Subject &subject, const std::vector<std::string> &messages);

// Members that nobody reads and words that are read as others, in a definition of `directory`.
// `alone`: it is the one object of its file.
void FindMisreadings(Subject &subject, const JobDirectory &directory, bool alone);

// Settings that are hardly meant in a definition that the daemon takes. `job` is what it becomes.
void FindOddSettings(Subject &subject, const CronJob &job);

#endif
