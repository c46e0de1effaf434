// A descriptor is registered once with epoll, for all that its listeners want. If one of them has a
// pool, the system tells once and then nothing until the calls have ended (EPOLLONESHOT): a level
// that lasts would keep the loop busy while a thread of the pool is at it.
//
// The system ties a registration to the open file, not to the number. A descriptor that is closed
// takes its registration along, and the number comes back for something else; or another process or
// a duplicate keeps the file open, and events go on to come for a number that is closed, which
// nothing can take out. Registrations therefore carry a number of their own. Who finds that a
// registration has gone leaves its objects alone from then on. For an event that belongs to nobody,
// twice, the whole epoll object is made anew.
#include "loop/DescriptorSet.h"

#include <fcntl.h>
#include <sys/eventfd.h>

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
    m_oWake = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_oWake.isOpen() || !addOwn(m_oWake.get(), kWakeKey))
    throwSystemError("vsupt-loop", errno);
  m_vSuspects.reserve(kMostSuspects);
}

void DescriptorSet::closeInChild() {
  m_oEpoll.close();
  m_oWake.close();
}

bool DescriptorSet::addOwn(int descriptor, std::uint64_t key) {
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
  m_oWake = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
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

// Registers the descriptor for what its objects want now, unless one of them is at it.
int DescriptorSet::arm(int descriptor, Entry& entry) {
  if (entry.busy > 0)
    return 0;
  unsigned wanted = 0;
  unsigned mode = 0;
  for (const DescriptorListener* const listener : entry.listeners) {
    wanted |= listener->wanted();
    mode |= (listener->isEdge() ? static_cast<unsigned>(EPOLLET) : 0U) |
            (listener->isOneShot() ? static_cast<unsigned>(EPOLLONESHOT) : 0U);
  }
  if (wanted == 0) {
    if (std::exchange(entry.isRegistered, false))
      control(EPOLL_CTL_DEL, descriptor, 0, 0);
    return 0;
  }
  const int operation = entry.isRegistered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  const int code = control(operation, descriptor, wanted | mode, keyOf(descriptor, entry.number));
  if (code == 0)
    entry.isRegistered = true;
  return code;
}

// If the registration has gone, the number stands for another file, which the call registers.
bool DescriptorSet::isStillThere(int descriptor, const Entry& entry) const {
  return !entry.isRegistered ||
         control(EPOLL_CTL_ADD, descriptor, EPOLLET | EPOLLONESHOT, kWakeKey) != 0;
}

void DescriptorSet::add(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  const int descriptor = listener.descriptor();
  auto [found, isNew] = m_mapEntries.try_emplace(descriptor);
  if (!isNew && !isStillThere(descriptor, found->second)) {
    noteClosed(found);
    control(EPOLL_CTL_DEL, descriptor, 0, 0);
    std::tie(found, isNew) = m_mapEntries.try_emplace(descriptor);
  }
  Entry& entry = found->second;
  if (isNew)
    entry.number = ++m_nEntries;
  const std::string what = "VarnDescriptorEvent of descriptor " + std::to_string(descriptor);
  if (!entry.listeners.empty() && entry.listeners.front()->isEdge() != listener.isEdge())
    throw VarnException(what + ": others wait for it with EDGE, or all without", 0);
  entry.listeners.push_back(&listener);
  const int code = arm(descriptor, entry);
  if (code == 0)
    return;
  entry.listeners.pop_back();
  if (entry.listeners.empty())
    m_mapEntries.erase(found);
  throwSystemError(what, code);
}

void DescriptorSet::remove(DescriptorListener& listener) {
  release(listener);
  const auto found = m_mapEntries.find(listener.descriptor());
  if (found == m_mapEntries.end() || std::erase(found->second.listeners, &listener) == 0)
    return;
  if (arm(found->first, found->second) != 0)
    noteClosed(found);
  else if (found->second.listeners.empty())
    m_mapEntries.erase(found);
}

void DescriptorSet::update(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  const auto found = m_mapEntries.find(listener.descriptor());
  if (found == m_mapEntries.end() ||
      std::count(found->second.listeners.begin(), found->second.listeners.end(), &listener) == 0)
    return;
  if (arm(found->first, found->second) != 0)
    noteClosed(found);
}

void DescriptorSet::release(DescriptorListener& listener) {
  assert(LoopLock::isHeld());
  if (!listener.setBusy(false))
    return;
  const auto found = m_mapEntries.find(listener.descriptor());
  if (found != m_mapEntries.end() && --found->second.busy == 0 &&
      arm(found->first, found->second) != 0)
    noteClosed(found);
}

// Its objects are left alone from here on. Without memory that is not told.
void DescriptorSet::noteClosed(Entries::iterator entry) {
  for (DescriptorListener* const listener : entry->second.listeners)
    listener->setBusy(false);
  try {
    if (!entry->second.listeners.empty())
      m_vClosed.push_back(entry->first);
  } catch (const std::bad_alloc&) {
  }
  m_mapEntries.erase(entry);
}

void DescriptorSet::deliver(const epoll_event& event) {
  assert(LoopLock::isHeld());
  const int descriptor = static_cast<int>(event.data.u64 & 0xffffffffU);
  const auto found = m_mapEntries.find(descriptor);
  if (found == m_mapEntries.end() || keyOf(descriptor, found->second.number) != event.data.u64) {
    suspect(event.data.u64);
    return;
  }
  if (fcntl(descriptor, F_GETFD) < 0) {
    noteClosed(found);
    m_bMustRepair = true;
    return;
  }
  Entry& entry = found->second;
  const bool isTakenOnce = std::any_of(entry.listeners.begin(), entry.listeners.end(),
                                       [](const auto* listener) { return listener->isOneShot(); });
  for (DescriptorListener* const listener : entry.listeners) {
    if (listener->hear(event.events) && isTakenOnce && !listener->setBusy(true))
      ++entry.busy;
  }
  if (isTakenOnce && entry.busy == 0 && arm(descriptor, entry) != 0)
    noteClosed(found);
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
  m_oEpoll = std::move(epoll);
  m_vSuspects.clear();
  m_bMustRepair = !addWake();
  if (m_nFolders >= 0 && !addOwn(m_nFolders, kFoldersKey))
    m_nFolders = -1;  // the program has closed it
  for (auto entry = m_mapEntries.begin(); entry != m_mapEntries.end();) {
    const auto present = entry++;
    present->second.isRegistered = false;
    if (arm(present->first, present->second) != 0)
      noteClosed(present);
  }
  return !m_bMustRepair;
}

}  // namespace VarnSupport
