#include "hosts/common/nearest_word.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace hosts {

namespace {

/// A third of a word may be mistaken, and two characters of the short ones.
constexpr std::size_t kFewestMistakes = 2;
constexpr std::size_t kCharactersPerMistake = 3;

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& character : lower) {
    character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  }
  return lower;
}

/// How many characters have to be put in, left out, replaced or swapped with their neighbour.
std::size_t Distance(const std::string& from, const std::string& to) {
  std::vector<std::vector<std::size_t>> distance(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) distance[i][0] = i;
  for (std::size_t j = 0; j <= to.size(); ++j) distance[0][j] = j;
  for (std::size_t i = 1; i <= from.size(); ++i) {
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = distance[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      distance[i][j] = std::min({replaced, distance[i - 1][j] + 1, distance[i][j - 1] + 1});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
      }
    }
  }
  return distance[from.size()][to.size()];
}

}  // namespace

std::string NearestWord(std::string_view word, const std::vector<std::string>& known) {
  std::string nearest;
  std::size_t fewest = 0;
  for (const std::string& candidate : known) {
    const std::size_t mistakes = Distance(Lower(word), Lower(candidate));
    const std::size_t allowed = std::max(kFewestMistakes, candidate.size() / kCharactersPerMistake);
    if (mistakes > allowed || (!nearest.empty() && mistakes >= fewest)) continue;
    nearest = candidate;
    fewest = mistakes;
  }
  return nearest;
}

}  // namespace hosts
