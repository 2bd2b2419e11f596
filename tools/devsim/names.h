// Refusals of unknown names say which known names come nearest, as a typo
// is the usual cause.
#ifndef HMISVC_DEVSIM_NAMES_H
#define HMISVC_DEVSIM_NAMES_H

#include "edit_distance.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>
#include <vector>

namespace hmisvc::devsim {

// Edit distance, case ignored.
inline std::size_t name_distance(const std::string &a, const std::string &b)
{
    return tools::edit_distance(a, b, [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

// Longer names are refused as they are, without looking for the nearest:
// the search costs the product of the lengths, for every known name.
constexpr std::size_t kNameBytes = 128;

// The (up to) three known names nearest to `name`, comma-separated.
inline std::string nearest_names(const std::string &name, const std::vector<std::string> &known)
{
    std::vector<std::pair<std::size_t, std::size_t>> by_distance;  // distance, index
    for (std::size_t i = 0; i < known.size(); ++i)
        by_distance.emplace_back(name_distance(name, known[i]), i);
    std::stable_sort(by_distance.begin(), by_distance.end(),
                     [](const auto &x, const auto &y) { return x.first < y.first; });
    std::string out;
    for (std::size_t i = 0; i < by_distance.size() && i < 3; ++i)
        out += (i ? ", " : "") + known[by_distance[i].second];
    return out;
}

// "no KIND \"NAME\" (nearest: A, B, C)"; past kNameBytes, "no KIND of N
// bytes (names have at most 128)".
inline std::string unknown_name(const std::string &kind, const std::string &name, const std::vector<std::string> &known)
{
    if (name.size() > kNameBytes)
        return "no " + kind + " of " + std::to_string(name.size()) + " bytes (names have at most " +
               std::to_string(kNameBytes) + ")";
    return "no " + kind + " \"" + name + "\" (nearest: " + nearest_names(name, known) + ")";
}

}  // namespace hmisvc::devsim

#endif
