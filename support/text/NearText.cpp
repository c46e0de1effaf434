// The distance is that of optimal string alignment: the number of characters that are put in, taken
// out, replaced or swapped with their neighbour, each place being changed once. Three rows of its
// table are kept, and only the cells near the diagonal are looked at, as all others are above the
// limit. Its cost is the length times the limit.
#include "text/NearText.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <utility>
#include <vector>

namespace VarnSupport {

namespace {

bool isSame(char a, char b) { return folded(a) == folded(b); }

}  // namespace

std::size_t distanceOf(std::string_view a, std::string_view b, std::size_t most) {
  if (a.size() > b.size())
    std::swap(a, b);
  assert(a.size() <= b.size());
  const std::size_t tooFar = most + 1;
  if (b.size() - a.size() > most)
    return tooFar;
  std::array<std::vector<std::size_t>, 3> rows;
  for (auto& row : rows)
    row.assign(b.size() + 1, tooFar);
  for (std::size_t j = 0; j <= std::min(b.size(), most); ++j)
    rows[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    const auto& above = rows[(i - 1) % 3];
    const auto& twoAbove = rows[(i + 1) % 3];
    auto& row = rows[i % 3];
    const std::size_t begin = i > most ? i - most : 0;
    const std::size_t end = std::min(b.size(), i + most);
    if (begin > 0)
      row[begin - 1] = tooFar;
    std::size_t least = tooFar;
    for (std::size_t j = begin; j <= end; ++j) {
      if (j == 0) {
        row[0] = i;
      } else {
        const bool same = isSame(a[i - 1], b[j - 1]);
        row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1), tooFar});
        if (i > 1 && j > 1 && isSame(a[i - 1], b[j - 2]) && isSame(a[i - 2], b[j - 1]))
          row[j] = std::min(row[j], twoAbove[j - 2] + 1);
      }
      least = std::min(least, row[j]);
    }
    if (end < b.size())
      row[end + 1] = tooFar;
    if (least > most)
      return tooFar;
  }
  return rows[a.size() % 3][b.size()];
}

// A third of the longer name may differ. Each name must be nearer than the nearest so far, so the
// limit shrinks from name to name.
bool NearText::isNearer(std::string_view name) {
  const std::size_t allowed = std::min((std::max(name.size(), m_sText.size()) + 1) / 3, kMost);
  const std::size_t wanted = std::min(allowed + 1, m_nNearest);
  if (wanted == 0)
    return false;
  const std::size_t distance = distanceOf(name, m_sText, wanted - 1);
  if (distance >= wanted)
    return false;
  m_nNearest = distance;
  return true;
}

}  // namespace VarnSupport
