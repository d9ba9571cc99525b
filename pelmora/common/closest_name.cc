#include "pelmora/common/closest_name.h"

#include <algorithm>

namespace pelmora {

std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string ClosestName(std::string_view word, const std::vector<std::string>& candidates) {
  auto core = [](std::string_view name) {
    return name.substr(std::min(name.find_first_not_of('-'), name.size()));
  };
  std::string_view typed = core(word);
  std::string best;
  std::size_t best_distance = typed.size() <= 3 ? 2 : 3;  // one edit in short words, two in longer
  for (const std::string& candidate : candidates) {
    std::string_view name = core(candidate);
    std::size_t distance = EditDistance(typed, name);
    if (typed.size() >= 2 && name.size() > typed.size() && name.substr(0, typed.size()) == typed) {
      distance = std::min<std::size_t>(distance, 1);  // a beginning of the name
    }
    // A one-letter name is one edit from every other letter: only real near misses count.
    if (distance >= std::min(typed.size(), name.size())) continue;
    if (distance < best_distance) {
      best = candidate;
      best_distance = distance;
    }
  }
  return best;
}

}  // namespace pelmora
