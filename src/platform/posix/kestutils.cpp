#include "platform/kestutils.h"

namespace KESTUtils {

std::vector<std::string> StringExplode(const std::string &text, const std::string &separator) {
    std::vector<std::string> pieces;
    pieces.reserve(5); // the fields of an expression
    std::string::size_type start = 0;
    for (;;) {
        const auto end = text.find(separator, start);
        pieces.push_back(text.substr(start, end - start));
        if (end == std::string::npos)
            return pieces;
        start = end + separator.size();
    }
}

} // namespace KESTUtils
