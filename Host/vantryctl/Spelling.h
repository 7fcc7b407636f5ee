// Words that were meant when another was typed. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vantryctl {

// How many letters are missing, too many, wrong, or in the place of their neighbour. Case does not count.
std::size_t lettersBetween(std::string_view a, std::string_view b);

// The candidate that `word` is most likely meant to be: one of a letter's difference, of two in longer
// words, or one that it is the beginning of. Empty if none is close.
std::string closestTo(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace vantryctl
