// A descriptor is registered once with epoll, for all that its listeners want. If one of them has a
// pool, the system tells once and then nothing until the calls have ended (EPOLLONESHOT): a level
// that lasts would keep the loop busy while a thread of the pool is at it.
//
// The system ties a registration to the open file and the number together. A descriptor that is
// closed takes its registration along, and the number comes back for something else; or another
// process or a duplicate keeps the file open, and events go on to come for a number that is closed
// or another file's, which nothing can take out. A descriptor is therefore registered from its
// first listener to its last, whatever these want: only the system can say whether a number still
// stands for the file that it was given with, and it is asked before each call. Who finds that a
// registration has gone leaves its objects alone from then on. Registrations carry a number of
// their own, too, and for an event that belongs to nobody, twice, the whole epoll object is made
// anew.
#include "loop/DescriptorSet.h"

#include <fcntl.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>
#include <string>
#include <tuple>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "loop/LoopLock.h"
#include "loop/LoopThread.h"
#include "runtime/Bell.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kMostSuspects = 64;

std::uint64_t keyOf(int descriptor, std::uint32_t number) {
  return std::uint64_t{number} << 32 | static_cast<std::uint32_t>(descriptor);
}

}  // namespace

// A write to the wake descriptor is an edge: nobody has to read it.
void DescriptorSet::open() {
  assert(LoopLock::isHeld() && !m_oEpoll.isOpen());
  m_oEpoll = Descriptor(epoll_create1(EPOLL_CLOEXEC));
  if (m_oEpoll.isOpen())
    m_oWake = makeBell();
  if (!m_oWake.isOpen() || !addOwn(m_oWake.get(), kWakeKey))
    throwSystemError("vsupt-loop", errno);
  m_vSuspects.reserve(kMostSuspects);
}

void DescriptorSet::closeInChild() {
  m_oEpoll.close();
  m_oWake.close();
}

// A number that the loop itself has got belongs to no object any more.
bool DescriptorSet::addOwn(int descriptor, std::uint64_t key) {
  if (const auto closed = m_mapEntries.find(descriptor); closed != m_mapEntries.end())
    noteClosed(closed);
  if (key == kFoldersKey)
    m_nFolders = descriptor;
  return control(EPOLL_CTL_ADD, descriptor, EPOLLIN | (key == kWakeKey ? EPOLLET : 0U), key) == 0;
}

// A program may have closed the descriptor that wakes. What has its number then is not the loop's
// to close.
bool DescriptorSet::addWake() {
  if (addOwn(m_oWake.get(), kWakeKey))
    return true;
  if (errno != EBADF && errno != EPERM)
    return false;
  m_oWake.release();
  m_oWake = makeBell();
  return m_oWake.isOpen() && addOwn(m_oWake.get(), kWakeKey);
}

// The system's code, or 0.
int DescriptorSet::control(int operation, int descriptor, unsigned events,
                           std::uint64_t key) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return epoll_ctl(m_oEpoll.get(), operation, descriptor, &event) == 0 ? 0 : errno;
}

// Registers the descriptor for what its objects want now, and for nothing while one of them is at
// it: of a hang-up, which cannot be left out, the system tells once then, and nobody hears of it.
int DescriptorSet::arm(int operation, int descriptor, const Entry& entry) const {
  unsigned wanted = 0;
  unsigned mode = 0;
  for (const DescriptorListener* const listener : entry.listeners) {
    wanted |= listener->wanted();
    mode |= (listener->isEdge() ? static_cast<unsigned>(EPOLLET) : 0U) |
            (listener->isOneShot() ? static_cast<unsigned>(EPOLLONESHOT) : 0U);
  }
  const bool isLeftAlone = wanted == 0 || entry.busy > 0;
  const unsigned events = isLeftAlone ? static_cast<unsigned>(EPOLLONESHOT) : wanted | mode;
  return control(operation, descriptor, events, keyOf(descriptor, entry.number));
}

// What its objects want was changed, or none of them is at it any more.
void DescriptorSet::rearm(Entries::iterator entry) {
  if (entry->second.busy == 0 && arm(EPOLL_CTL_MOD, entry->first, entry->second) != 0 &&
      !isStillThere(entry->first))
    noteClosed(entry);
}

// The system refuses to register once more what it has under this number, but another file it
// takes. Where it says that the epoll object is gone, nobody can tell.
bool DescriptorSet::isStillThere(int descriptor) const {
  const int code = control(EPOLL_CTL_ADD, descriptor, EPOLLET | EPOLLONESHOT, kWakeKey);
  if (code == 0)
    control(EPOLL_CTL_DEL, descriptor, 0, 0);
  return code == EEXIST || code == EINVAL || (code == EBADF && fcntl(descriptor, F_GETFD) >= 0);
}

void DescriptorSet::add(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  const int descriptor = listener.descriptor();
  auto [found, isNew] = m_mapEntries.try_emplace(descriptor);
  if (!isNew && !isStillThere(descriptor)) {
    noteClosed(found);
    std::tie(found, isNew) = m_mapEntries.try_emplace(descriptor);
  }
  Entry& entry = found->second;
  if (isNew)
    entry.number = ++m_nEntries;
  const std::string what = "VarnDescriptorEvent of descriptor " + std::to_string(descriptor);
  if (!entry.listeners.empty() && entry.listeners.front()->isEdge() != listener.isEdge())
    throw VarnException(what + ": others wait for it with EDGE, or all without", 0);
  entry.listeners.push_back(&listener);
  const int code =
      entry.busy > 0 ? 0 : arm(isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, descriptor, entry);
  if (code == 0)
    return;
  entry.listeners.pop_back();
  if (entry.listeners.empty())
    m_mapEntries.erase(found);
  throwSystemError(what, code);
}

void DescriptorSet::remove(DescriptorListener& listener) {
  release(listener);
  const auto found = find(listener);
  if (found == m_mapEntries.end())
    return;
  std::erase(found->second.listeners, &listener);
  if (!found->second.listeners.empty())
    return rearm(found);
  control(EPOLL_CTL_DEL, found->first, 0, 0);
  m_mapEntries.erase(found);
}

void DescriptorSet::update(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  if (const auto found = find(listener); found != m_mapEntries.end())
    rearm(found);
}

void DescriptorSet::release(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  if (!listener.setBusy(false))
    return;
  const auto found = find(listener);
  assert(found != m_mapEntries.end());
  if (--found->second.busy == 0)
    rearm(found);
}

bool DescriptorSet::isStillOf(const DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  const auto found = find(listener);
  if (found == m_mapEntries.end())
    return false;
  if (isStillThere(found->first))
    return true;
  noteClosed(found);
  return false;
}

// The end where the listener is left alone.
DescriptorSet::Entries::iterator DescriptorSet::find(const DescriptorListener& listener) {
  const auto found = m_mapEntries.find(listener.descriptor());
  if (found == m_mapEntries.end())
    return found;
  const auto& listeners = found->second.listeners;
  const bool isOneOfThem =
      std::find(listeners.begin(), listeners.end(), &listener) != listeners.end();
  return isOneOfThem ? found : m_mapEntries.end();
}

// Its objects are left alone from here on, which the loop's thread tells. Without memory it is not
// told.
void DescriptorSet::noteClosed(Entries::iterator entry) {
  for (DescriptorListener* const listener : entry->second.listeners)
    listener->setBusy(false);
  try {
    if (!entry->second.listeners.empty())
      m_vClosed.push_back(entry->first);
  } catch (const std::bad_alloc&) {
  }
  m_mapEntries.erase(entry);
  LoopLock::wakeLater(m_oWake.get());
}

void DescriptorSet::deliver(const epoll_event& event) {
  assert(LoopLock::isHeld());
  const int descriptor = static_cast<int>(event.data.u64 & 0xffffffffU);
  const auto found = m_mapEntries.find(descriptor);
  if (found == m_mapEntries.end() || keyOf(descriptor, found->second.number) != event.data.u64) {
    suspect(event.data.u64);
    return;
  }
  Entry& entry = found->second;
  const bool isTakenOnce = std::any_of(entry.listeners.begin(), entry.listeners.end(),
                                       [](const auto* listener) { return listener->isOneShot(); });
  for (DescriptorListener* const listener : entry.listeners) {
    if (listener->hear(event.events) && isTakenOnce && !listener->setBusy(true))
      ++entry.busy;
  }
}

// An event may have been on its way when its object left. A second one cannot.
void DescriptorSet::suspect(std::uint64_t key) {
  if (std::find(m_vSuspects.begin(), m_vSuspects.end(), key) != m_vSuspects.end())
    m_bMustRepair = true;
  else if (m_vSuspects.size() < kMostSuspects)
    m_vSuspects.push_back(key);
  else
    m_vSuspects.assign(1, key);
}

template <typename Test>
void DescriptorSet::keepThose(Test test) {
  for (auto entry = m_mapEntries.begin(); entry != m_mapEntries.end();) {
    const auto present = entry++;
    if (!test(present->first, present->second))
      noteClosed(present);
  }
}

// Numbers that stand for another file by now are left out as long as the system knows of them.
bool DescriptorSet::repair(bool isBroken) {
  assert(LoopLock::isHeld());
  if (!m_bMustRepair && !isBroken)
    return true;
  Descriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  if (!epoll.isOpen())
    return false;
  // What is no epoll object any more is not the loop's to close.
  if (isBroken)
    m_oEpoll.release();
  else
    keepThose([this](int descriptor, const Entry&) { return isStillThere(descriptor); });
  m_oEpoll = std::move(epoll);
  m_vSuspects.clear();
  m_bMustRepair = !addWake();
  if (m_nFolders >= 0 && !addOwn(m_nFolders, kFoldersKey))
    m_nFolders = -1;  // the program has closed it
  keepThose([this](int descriptor, const Entry& entry) {
    return arm(EPOLL_CTL_ADD, descriptor, entry) == 0;
  });
  return !m_bMustRepair;
}

}  // namespace VarnSupport
