// Counts stand still for whoever holds the global critical section by hand. Nearly nobody does, so
// that a count is an atomic operation inside of a mark, for which the holder waits (BriefGate.h).
// Names of classes are taken apart by the rules of older compilers, of which callers still have
// names.
#include "VarnSupport/VarnObjectBase.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <typeinfo>
#include <utility>
#include <vector>

#include "locks/BriefHold.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

bool isDigitAt(const std::string& text, std::size_t position) {
  return position < text.size() && text[position] >= '0' && text[position] <= '9';
}

// Reads the digits at `position` and steps over them; a number that does not fit saturates.
std::size_t readNumber(const std::string& text, std::size_t& position) {
  constexpr std::size_t largest = std::numeric_limits<std::size_t>::max() / 16;
  std::size_t number = 0;
  for (; isDigitAt(text, position); ++position)
    number = std::min(number * 10 + static_cast<std::size_t>(text[position] - '0'), largest);
  return number;
}

using ReferenceCount = std::atomic<std::int32_t>;

// Requires: cancellation is closed.
int changeUnderSection(ReferenceCount& references, int by) {
  const bool isInterrupting = BriefGate::interruptCount();
  const BriefHold hold(globalSection());
  const int count = references.fetch_add(by, std::memory_order_acq_rel) + by;
  BriefGate::resumeCount(isInterrupting, hold.isHeldByHand());
  return count;
}

[[gnu::noinline]] int addGuarded(ReferenceCount& references) {
  const CancellationGuard closed;
  return changeUnderSection(references, 1);
}

[[gnu::noinline]] int releaseGuarded(ReferenceCount& references, const VarnObjectBase* object) {
  const QuietCancellationGuard closed;
  const int count = changeUnderSection(references, -1);
  if (count == 0)
    delete object;
  return count;
}

// Between its last count and its end no thread is unwound.
[[gnu::noinline]] int deleteAfter(BriefGate::Count section, const VarnObjectBase* object) {
  const QuietCancellationGuard closed;
  section.end();
  delete object;
  return 0;
}

}  // namespace

template class VarnSmartPointer<VarnObjectBase>;

VarnObjectBase& VarnObjectBase::operator=(const VarnObjectBase& source) noexcept {
  if (this != &source)
    m_nReferences.store(0, std::memory_order_relaxed);
  return *this;
}

VarnObjectBase::~VarnObjectBase() = default;

// Nothing unwinds a thread that is in the middle of a count (Cancellation.h).
int VarnObjectBase::addRef() {
  if (!isCancellable() || (MomentaryGuard::isPossible() && !MomentaryGuard::isRequested())) {
    const BriefGate::Count section;
    if (section.isOpen())
      return m_nReferences.fetch_add(1, std::memory_order_acq_rel) + 1;
  }
  return addGuarded(m_nReferences);
}

int VarnObjectBase::release() {
  if (!isCancellable() || MomentaryGuard::isPossible()) {
    BriefGate::Count section;
    if (section.isOpen()) {
      const int count = m_nReferences.fetch_sub(1, std::memory_order_acq_rel) - 1;
      return count != 0 ? count : deleteAfter(std::move(section), this);
    }
  }
  return releaseGuarded(m_nReferences, this);
}

int VarnObjectBase::refCount() const { return m_nReferences.load(std::memory_order_relaxed); }

bool VarnObjectBase::isA(const std::string& className) const { return getClassName() == className; }

std::string VarnObjectBase::getClassName() const {
  const CancellationGuard closed;
  return normalizeClassName(typeid(*this).name());
}

std::string VarnObjectBase::normalizeClassName(const std::string& rawName) {
  const CancellationGuard closed;
  std::vector<std::string> components;
  std::size_t position = 1;
  if (!rawName.empty() && rawName[0] == 'Q') {
    std::size_t count = 1;
    if (rawName.size() > 1 && rawName[1] == '_') {
      position = 2;
      count = readNumber(rawName, position);
      if (count > rawName.size())
        throw std::out_of_range(
            "basic_string::substr: more components than the name has characters");
      ++position;
    } else if (isDigitAt(rawName, 2)) {
      count = static_cast<std::size_t>(std::max(rawName[1] - '0', 1));
      position = 2;
    }
    for (std::size_t i = 1; i < count; ++i) {
      const std::size_t length = readNumber(rawName, position);
      components.push_back(rawName.substr(position, length));
      position += length;
    }
  }
  readNumber(rawName, position);
  components.push_back(rawName.substr(position));

  std::string name = components.front();
  for (std::size_t i = 1; i < components.size(); ++i)
    name += "::" + components[i];
  return name;
}

int VarnObjectBase::raiseCountAtomically() noexcept {
  return m_nReferences.fetch_add(1, std::memory_order_relaxed) + 1;
}

int VarnObjectBase::lowerCountAtomically() noexcept {
  return m_nReferences.fetch_sub(1, std::memory_order_acq_rel) - 1;
}

VarnExemplar::~VarnExemplar() = default;

}  // namespace VarnSupport
