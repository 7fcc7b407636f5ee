#include "Host/vantryctl/Spelling.h"

#include <algorithm>
#include <cctype>

namespace vantryctl {

namespace {

constexpr std::size_t shortestLongWord = 5;
constexpr std::size_t shortestBeginning = 3;

std::string inSmallLetters(std::string_view text) {
    std::string small(text);
    std::ranges::transform(small, small.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    return small;
}

}  // namespace

std::size_t lettersBetween(std::string_view first, std::string_view second) {
    const auto a = inSmallLetters(first);
    const auto b = inSmallLetters(second);
    std::vector<std::vector<std::size_t>> cost(a.size() + 1,
                                               std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const bool isSame = a[i - 1] == b[j - 1];
            cost[i][j] = std::min(
                {cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + (isSame ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

std::string closestTo(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string* closest = nullptr;
    std::size_t least = word.size() < shortestLongWord ? 2 : 3;
    for (const auto& candidate : candidates) {
        // What is much longer or shorter cannot be close, and need not be compared.
        const auto longer = std::max(word.size(), candidate.size());
        if (longer - std::min(word.size(), candidate.size()) >= least) continue;
        const auto distance = lettersBetween(word, candidate);
        if (distance >= least || distance >= longer) continue;
        least = distance;
        closest = &candidate;
    }
    if (closest) return *closest;
    if (word.size() < shortestBeginning) return "";
    const auto small = inSmallLetters(word);
    const auto begun = std::ranges::find_if(candidates, [&](const auto& candidate) {
        return inSmallLetters(candidate).starts_with(small);
    });
    return begun == candidates.end() ? "" : *begun;
}

}  // namespace vantryctl
