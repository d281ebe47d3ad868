#include "ctl/utf8.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace {

// The leading bytes of one kind of character: how long it is, and what its second byte may be. All
// further ones are as in any other.
struct Lead {
    unsigned char first;
    unsigned char last;
    std::size_t length;
    unsigned char secondFirst;
    unsigned char secondLast;
};
constexpr std::array<Lead, 9> kLeads{{
    {0x00, 0x7F, 1, 0x80, 0xBF},
    {0xC2, 0xDF, 2, 0x80, 0xBF},
    {0xE0, 0xE0, 3, 0xA0, 0xBF}, // what is shorter is written shorter
    {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, // no surrogates
    {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF},
    {0xF4, 0xF4, 4, 0x80, 0x8F}, // there are no more
}};

bool LiesIn(char byte, unsigned char first, unsigned char last) {
    const auto value = static_cast<unsigned char>(byte);
    return first <= value && value <= last;
}

// The length of the character that `text` begins with; 0 when it begins with none.
std::size_t LengthOfFirst(std::string_view text) {
    const auto *const lead = std::find_if(kLeads.begin(), kLeads.end(), [&](const Lead &kind) {
        return LiesIn(text.front(), kind.first, kind.last);
    });
    if (lead == kLeads.end() || text.size() < lead->length)
        return 0;
    for (std::size_t i = 1; i < lead->length; ++i)
        if (i == 1 ? !LiesIn(text[i], lead->secondFirst, lead->secondLast)
                   : !LiesIn(text[i], 0x80, 0xBF))
            return 0;
    return lead->length;
}

} // namespace

std::string ValidUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = LengthOfFirst(text);
        if (length == 0)
            valid += "\xEF\xBF\xBD";
        else
            valid += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return valid;
}
