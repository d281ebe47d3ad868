#include "core/job_name.h"

#include <boost/algorithm/string/erase.hpp>

namespace kest {

std::string FileBaseName(const std::string &fileName) {
    return boost::algorithm::erase_all_copy(fileName, ".conf");
}

std::string FullJobName(const std::string &source, const std::string &account,
                        const std::string &fileBaseName, const std::string &name) {
    return source + "-" + (account.empty() ? "" : account + "-") + fileBaseName + "-" + name;
}

} // namespace kest
