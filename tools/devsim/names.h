// Refusals of unknown names say which known names come nearest, as a typo
// is the usual cause.
#ifndef HMISVC_DEVSIM_NAMES_H
#define HMISVC_DEVSIM_NAMES_H

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>
#include <vector>

namespace hmisvc::devsim {

// Edit distance, case ignored.
inline std::size_t name_distance(const std::string &a, const std::string &b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t above = row[j];
            bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The (up to) three known names nearest to `name`, comma-separated.
inline std::string nearest_names(const std::string &name, std::vector<std::string> known)
{
    std::stable_sort(known.begin(), known.end(), [&](const std::string &x, const std::string &y) {
        return name_distance(name, x) < name_distance(name, y);
    });
    std::string out;
    for (std::size_t i = 0; i < known.size() && i < 3; ++i)
        out += (i ? ", " : "") + known[i];
    return out;
}

// "no KIND \"NAME\" (nearest: A, B, C)".
inline std::string unknown_name(const std::string &kind, const std::string &name, std::vector<std::string> known)
{
    return "no " + kind + " \"" + name + "\" (nearest: " + nearest_names(name, std::move(known)) + ")";
}

}  // namespace hmisvc::devsim

#endif
