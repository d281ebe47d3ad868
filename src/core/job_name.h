// How a job gets its full name, by which alone it is known.

#ifndef CORE_JOB_NAME_H
#define CORE_JOB_NAME_H

#include <string>

namespace kest {

// The part of a job file's name that goes into its jobs' names: every ".conf" is taken out,
// wherever it stands ("a.conf.conf" gives "a", "my.config" gives "myig").
std::string FileBaseName(const std::string &fileName);

// The prefix and the name joined with "-": `source`, `account` unless it is empty, `fileBaseName`,
// `name`.
std::string FullJobName(const std::string &source, const std::string &account,
                        const std::string &fileBaseName, const std::string &name);

} // namespace kest

#endif
