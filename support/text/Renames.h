// The children that have got other keys, for parents that search theirs by halves.
#ifndef SUPPORT_TEXT_RENAMES_H
#define SUPPORT_TEXT_RENAMES_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "runtime/BriefMutex.h"
#include "runtime/HashedPlace.h"

namespace VarnSupport {

class VarnTreeNode;

// A child tells a table, as it does not know whether its parent still exists. Parents may share a
// place of the table by chance; the last few renames of a place are noted. A child whose parents
// are not known tells all. Nodes are addresses here, and never looked into.
class Renames {
 public:
  using tParent = std::atomic<const VarnTreeNode*>;

  // A moment, in numbers of renames: those told to the place of a parent, and to all.
  struct Mark {
    std::uint64_t ofPlace = 0;
    std::uint64_t ofAll = 0;

    std::uint64_t count() const { return ofPlace + ofAll; }
  };
  static constexpr std::size_t kNoted = 8;
  // Nodes that were renamed, some perhaps twice.
  struct List {
    std::array<VarnTreeNode*, kNoted> nodes{};
    std::size_t size = 0;
  };

  // Moves on whenever a child of the parent may have got another key; never 0.
  static std::uint64_t count(const VarnTreeNode* parent) {
    return m_aCounts[placeOf(parent)].load(std::memory_order_relaxed) +
           m_nCountOfAll.load(std::memory_order_relaxed);
  }
  // `onlyParent` is null when that is not known. Once a child has set it to null, nothing more is
  // told of that child from the next mark() of its former parent on.
  static void tell(VarnTreeNode* child, const tParent& onlyParent);

  static Mark mark(const VarnTreeNode* parent);
  // Which children of the parent have been renamed since a mark, which becomes the present one.
  // False when they are no longer known.
  static bool find(const VarnTreeNode* parent, Mark& mark, List& renamed);

 private:
  struct Note {
    const VarnTreeNode* parent;
    VarnTreeNode* child;
  };
  // The rename that made the count n is noted at (n - 1) % kNoted.
  struct Place {
    BriefMutex mutex;
    std::array<Note, kNoted> notes{};
  };

  static std::size_t placeOf(const VarnTreeNode* parent) { return hashedPlace(parent, kPlaceBits); }

  static constexpr unsigned kPlaceBits = 10;
  static std::atomic<std::uint64_t> m_aCounts[1U << kPlaceBits];  // changed under the mutex
  static Place m_aPlaces[1U << kPlaceBits];
  static std::atomic<std::uint64_t> m_nCountOfAll;
};

}  // namespace VarnSupport

#endif
