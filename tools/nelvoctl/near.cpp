// SPDX-License-Identifier: Apache-2.0
#include "near.h"

#include <algorithm>
#include <utility>

namespace nelvoctl {

namespace {

// How many letters must be added, removed or replaced to make one word of the other.
std::size_t distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> row(to.size() + 1);
    for (std::size_t j = 0; j <= to.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i - 1] != to[j - 1]);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
}

} // namespace

std::string suggestion(const std::vector<std::string> &words, const std::string &mistyped) {
    std::string near;
    for (const std::string &word : words)
        if (word != mistyped &&
            distance(word, mistyped) <= std::clamp<std::size_t>(word.size() / 3, 1, 2))
            near += (near.empty() ? "\"" : " or \"") + word + "\"";
    return near.empty() ? "" : "; did you mean " + near + "?";
}

} // namespace nelvoctl
