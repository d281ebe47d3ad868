// What somebody may have meant.

#ifndef CTL_CHECK_NEAREST_H
#define CTL_CHECK_NEAREST_H

#include <string>
#include <vector>

namespace kest::ctl {

// Those of `known` that are most like `word`, at most `most`, the nearest first; none that is not
// like it at all.
std::vector<std::string> NearestOf(const std::string &word, const std::vector<std::string> &known,
                                   std::size_t most);

} // namespace kest::ctl

#endif
