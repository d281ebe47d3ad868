// Text helpers of the platform's utility library (libkestutils).

#ifndef PLATFORM_KESTUTILS_H
#define PLATFORM_KESTUTILS_H

#include <string>
#include <vector>

namespace KESTUtils {

// Splits `text` at every occurrence of `separator`, which is not empty: n occurrences give n + 1
// pieces, which may be empty.
std::vector<std::string> StringExplode(const std::string &text, const std::string &separator);

} // namespace KESTUtils

#endif
