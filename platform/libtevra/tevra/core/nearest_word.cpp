#include "tevra/core/nearest_word.h"

#include <algorithm>
#include <utility>

namespace tevra::core {
namespace {

// The work grows with the product of the lengths, and no known word is as long as this.
constexpr size_t kLongestWord = 64;

size_t EditDistance(std::string_view a, std::string_view b) {
  // Rows of the table of distances between beginnings: of a[0, i), and of the two beginnings
  // before it, of which the earlier one is needed for swapped neighbours.
  std::vector<size_t> earlier, before, row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    earlier = std::exchange(before, row);
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = before[j - 1] + (a[i - 1] == b[j - 1] ? 0u : 1u);
      row[j] = std::min({before[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], earlier[j - 2] + 1);
      }
    }
  }
  return row[b.size()];
}

}  // namespace

std::string NearestWord(std::string_view word, const std::vector<std::string>& known) {
  if (word.size() > kLongestWord) return {};
  std::string nearest;
  size_t least = kLongestWord;
  for (const std::string& candidate : known) {
    const size_t distance = EditDistance(word, candidate);
    const size_t most = std::max(word.size(), candidate.size()) / 3;
    if (distance > most || distance >= least) continue;
    nearest = candidate;
    least = distance;
  }
  return nearest;
}

std::string DidYouMean(std::string_view word, const std::vector<std::string>& known) {
  const std::string nearest = NearestWord(word, known);
  return nearest.empty() ? "" : "; did you mean \"" + nearest + "\"?";
}

}  // namespace tevra::core
