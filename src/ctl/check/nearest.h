// Suggestions for misspelt words.

#ifndef CTL_CHECK_NEAREST_H
#define CTL_CHECK_NEAREST_H

#include <string>
#include <vector>

namespace kest::ctl {

// Up to `most` words of `known` that are similar to `word`, the most similar first.
std::vector<std::string> NearestOf(const std::string &word, const std::vector<std::string> &known,
                                   std::size_t most);

} // namespace kest::ctl

#endif
