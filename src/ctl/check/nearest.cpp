#include "ctl/check/nearest.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

namespace kest::ctl {

namespace {

bool IsSame(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

// The edit distance, without regard to case.
std::size_t Distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t changed = diagonal + (IsSame(from[i - 1], to[j - 1]) ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row.back();
}

} // namespace

std::vector<std::string> NearestOf(const std::string &word, const std::vector<std::string> &known,
                                   std::size_t most) {
    std::vector<std::pair<std::size_t, std::string>> near;
    for (const std::string &candidate : known) {
        const bool contains = word.size() > 2 && candidate.find(word) != std::string::npos;
        const std::size_t distance = contains ? 0 : Distance(word, candidate);
        const std::size_t similar =
            std::min(1 + word.size() / 3, std::max(std::size_t{1}, word.size() / 2));
        if (distance <= similar && distance < candidate.size())
            near.emplace_back(distance, candidate);
    }
    std::stable_sort(near.begin(), near.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    near.resize(std::min(near.size(), most));
    std::vector<std::string> names;
    names.reserve(near.size());
    for (auto &[distance, name] : near)
        names.push_back(std::move(name));
    return names;
}

} // namespace kest::ctl
