// One pointer to an entry that never changes is all that readers share. It is copied and exchanged
// under the lock, inside of a brief section, so that the child of a fork finds it whole; values go,
// settings are compared and dependents are told outside of both.
#include "VarnSupport/VarnReloaded.h"

#include <utility>

#include "locks/BriefHold.h"
#include "runtime/Cancellation.h"
#include "threads/TrackedDependent.h"

namespace VarnSupport {

namespace {

using Found = std::map<std::string, std::vector<std::string>>;

// The keys of either that differ, in order.
std::vector<std::string> differingKeys(const Found& before, const Found& now) {
  Found all = before;
  all.insert(now.begin(), now.end());
  std::vector<std::string> keys;
  for (const auto& [key, values] : all) {
    const auto was = before.find(key);
    const auto is = now.find(key);
    if (was == before.end() || is == now.end() || was->second != is->second)
      keys.push_back(key);
  }
  return keys;
}

}  // namespace

struct VarnReloadedSlot::Entry {
  std::uint64_t number;
  std::shared_ptr<const void> value;
  Found found;
};

std::shared_ptr<const void> VarnReloadedSlot::get() const {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  return m_pEntry != nullptr ? m_pEntry->value : nullptr;
}

// Numbers are given when a reload begins: of two that overlap, the one that began later stays,
// whichever is done first.
void VarnReloadedSlot::install(VarnCollaborator& teller, std::uint64_t number,
                               std::shared_ptr<const void> value, const VarnSettings& settings) {
  const CancellationGuard closed;
  std::shared_ptr<const Entry> entry =
      std::make_shared<const Entry>(Entry{number, std::move(value), settings.found()});
  const std::shared_ptr<const Entry> installed = entry;
  {
    const WholeHold hold(m_oLock);
    if (m_pEntry != nullptr && m_pEntry->number > number)
      return;
    m_pEntry.swap(entry);
  }
  if (entry == nullptr)
    return;
  for (const std::string& key : differingKeys(entry->found, installed->found)) {
    if (!deliver(teller, PropertyChanged(key)))
      return;
  }
}

}  // namespace VarnSupport
