// The edit distance behind every "nearest names" message (the tool's words,
// the simulator's names, the page inspection's objects): a typo is the usual
// cause of an unknown name.
#ifndef HMISVC_TOOLS_EDIT_DISTANCE_H
#define HMISVC_TOOLS_EDIT_DISTANCE_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

namespace hmisvc::tools {

// Insertions, deletions and substitutions between `a` and `b` (any string
// type with size() and []); `same` compares two characters.
template <class S, class Same = std::equal_to<>>
std::size_t edit_distance(const S &a, const S &b, Same same = {})
{
    const auto as = static_cast<std::size_t>(a.size()), bs = static_cast<std::size_t>(b.size());
    std::vector<std::size_t> row(bs + 1);
    for (std::size_t j = 0; j <= bs; ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= as; ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= bs; ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (same(a[i - 1], b[j - 1]) ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[bs];
}

}  // namespace hmisvc::tools

#endif
