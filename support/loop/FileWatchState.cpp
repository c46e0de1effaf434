// What the loop tells a watch of files, and the watches that it has with the system: one for the
// folder, one for each part of the way down to it, and one for the target of each name that is a
// symbolic link. Those on the way tell of a folder that is moved, which its own watch would follow
// to its new place.
//
// Events are gathered as hints by name until the next look at the files: what is told to the
// program comes from comparing files, and hints say where to look, and what a comparison cannot
// show, such as a file that was changed and is gone.
#include "loop/FileWatchState.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>

#include "VarnSupport/VarnFindFile.h"
#include "log/OwnRecords.h"
#include "loop/EventLoop.h"
#include "runtime/System.h"

namespace VarnSupport {

namespace {

// Names that are noted until the next look; more of them count as lost.
constexpr std::size_t kMostNames = 16384;
// Of one name, until the next look.
constexpr std::size_t kMostNewNames = 16;

constexpr std::uint32_t kOfFolder = IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kOfItself = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t kOfTarget = kOfItself | IN_MODIFY | IN_ATTRIB;
constexpr std::uint32_t kGoneItself = kOfItself | IN_IGNORED | IN_UNMOUNT;

// The system's code of what is no watch; 0 for a folder that is missing.
int refusalOf(int watch) {
  const bool isMissing = watch == -ENOENT || watch == -ENOTDIR || watch == -ECANCELED;
  return watch >= 0 || isMissing ? 0 : -watch;
}

}  // namespace

void FileHint::noteNewName(std::string_view name) {
  if (newNames.size() < kMostNewNames)
    newNames.emplace_back(name);
}

void FileHint::add(const FileHint& later) {
  isMade |= later.isMade;
  isModified |= later.isModified;
  isMoved |= later.isMoved && !isRemoved;
  isRemoved |= later.isRemoved;
  for (const std::string& name : later.newNames)
    noteNewName(name);
}

template <typename Note>
void VarnFileWatch::State::noteOf(std::string_view name, Note note) {
  if (m_oWork.isLost)
    return;
  if (m_oWork.names.size() >= kMostNames)
    return noteLoss();
  try {
    note(m_oWork.names[std::string(name)]);
  } catch (const std::bad_alloc&) {
    noteLoss();
  }
}

// From here on all names are looked at, and none need be kept.
void VarnFileWatch::State::noteLoss() {
  assert(LoopLock::isHeld());
  m_oWork.isLost = true;
  m_oWork.names.clear();
}

// A move within a folder is two events with one number. Others may come between them, but none of
// the same folder.
void VarnFileWatch::State::hearOfName(const inotify_event& event) {
  assert(LoopLock::isHeld());
  const std::string_view name = event.len > 0 ? event.name : "";
  if (!m_vTargets.empty() && (event.mask & IN_MODIFY) == 0) {
    m_oWork.isForAll = true;  // links may lead through that name
    pend();
  }
  if (FindFileImplementation::IsPatternMatch(place.pattern.c_str(), name.data())) {
    noteOf(name, [&](FileHint& hint) {
      hint.isMade |= (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0;
      hint.isModified |= (event.mask & IN_MODIFY) != 0;
      if ((event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0)
        hint.noteLeaving((event.mask & IN_MOVED_FROM) != 0);
      if ((event.mask & IN_MOVED_FROM) != 0) {
        m_sLeaving = name;
        m_nLeavingMove = event.cookie;
      }
    });
    pend();
  }
  if ((event.mask & IN_MOVED_TO) != 0 && event.cookie == m_nLeavingMove) {
    noteOf(m_sLeaving, [&](FileHint& hint) { hint.noteNewName(name); });
    pend();
  }
}

void VarnFileWatch::State::hear(const inotify_event& event) {
  for (const auto& [target, itsName] : m_vTargets) {
    if (target != event.wd)
      continue;
    noteOf(itsName, [&](FileHint& hint) {
      hint.isModified |= (event.mask & IN_MODIFY) != 0;
      hint.isMoved |= (event.mask & IN_MOVE_SELF) != 0;
    });
    pend();
  }
  if (event.wd == m_nFolder && (event.mask & kOfFolder) != 0)
    hearOfName(event);
  const bool isOnWay =
      event.wd == m_nFolder || std::find(m_vWay.begin(), m_vWay.end(), event.wd) != m_vWay.end();
  if (isOnWay && (event.mask & kGoneItself) != 0) {
    m_oWork.isRenewed = true;
    pend();
  }
}

// Has what happened until now told, and adds to the hint what it says of the name: so the hint and
// a file that was seen to have left agree. False when it is for a later call to tell: as events
// were lost, which is told first, or as the system cannot say that there are no more of them.
bool VarnFileWatch::State::hearAllOf(const std::string& name, FileHint& hint) {
  const bool isAll = awaitChangesIn(place.folder);
  const LoopLock lock;
  if (!isEnlisted())
    return true;
  loop().folders().read();
  if (const auto later = m_oWork.names.find(name); later != m_oWork.names.end()) {
    hint.add(later->second);
    m_oWork.names.erase(later);
  }
  if (!isAll) {
    m_bIncomplete = true;
    noteOf(name, [&](FileHint& noted) { noted = hint; });
  }
  return isAll && !m_oWork.isLost;
}

void VarnFileWatch::State::hearLoss() {
  assert(LoopLock::isHeld());
  noteLoss();
  m_oWork.isRenewed = true;
  pend();
}

void VarnFileWatch::State::onDeadline() {
  m_bRetrySet = false;
  m_oWork.isDue = true;
  pend();
}

void VarnFileWatch::State::leaveLoop() {
  detach();
  for (const auto& [target, name] : m_vTargets)
    loop().folders().remove(target, *this);
  m_vTargets.clear();
}

// Requires: the lock is held.
void VarnFileWatch::State::detach() {
  assert(LoopLock::isHeld());
  for (const int watch : m_vWay)
    loop().folders().remove(watch, *this);
  m_vWay.clear();
  if (m_nFolder >= 0)
    loop().folders().remove(m_nFolder, *this);
  m_nFolder = -1;
}

// Returns the watch, or minus the system's code. What it is for is noted before the lock, which the
// caller holds, is given back: so nothing is heard of it before.
int VarnFileWatch::State::addWatch(LoopLock& lock, const std::string& path, std::uint32_t events) {
  if (!isEnlisted())
    return -ECANCELED;
  FolderWatches& folders = loop().folders();
  const int watch = folders.add(lock, *this, path.c_str(), events);
  if (watch < 0 || isEnlisted())
    return watch;
  folders.remove(watch, *this);  // the object was withdrawn meanwhile
  return -ECANCELED;
}

int VarnFileWatch::State::addWayWatch(const std::string& path, std::uint32_t events) {
  LoopLock lock;
  m_vWay.reserve(m_vWay.size() + 1);
  const int watch = addWatch(lock, path, events | kOfItself);
  if (watch >= 0)
    m_vWay.push_back(watch);
  return watch;
}

int VarnFileWatch::State::addFolderWatch() {
  LoopLock lock;
  m_nFolder = addWatch(lock, place.folder, kOfFolder | kOfItself | IN_ONLYDIR);
  return m_nFolder;
}

// Whether the path leads to another folder than the one that is watched, or at last to one: the
// system has one watch for each.
bool VarnFileWatch::State::isFolderElsewhere() {
  LoopLock lock;
  const int watch = addWatch(lock, place.folder, kOfFolder | kOfItself | IN_ONLYDIR);
  if (watch >= 0)
    loop().folders().remove(watch, *this);  // the one that was added just now
  return watch != m_nFolder;
}

int VarnFileWatch::State::addTargetWatch(const std::string& path, const std::string& name) {
  std::pair<int, std::string> target(-1, name);
  LoopLock lock;
  m_vTargets.reserve(m_vTargets.size() + 1);
  target.first = addWatch(lock, path, kOfTarget);
  const int watch = target.first;
  if (watch >= 0)
    m_vTargets.push_back(std::move(target));
  return watch;
}

void VarnFileWatch::State::removeTargetWatch(int watch, const std::string& name) {
  const LoopLock lock;
  if (isEnlisted() && std::erase(m_vTargets, std::pair(watch, name)) > 0)
    loop().folders().remove(watch, *this);
}

// From the root downwards: what changes below a folder once it is watched is told. One that may be
// passed and not read has no watch.
void VarnFileWatch::State::attach() {
  {
    const LoopLock lock;
    if (!isEnlisted())
      return;
    detach();
  }
  int refusal = 0;
  m_bDoubtful = false;
  const auto addToWay = [&](const std::string& path, std::uint32_t events) {
    const int watch = addWayWatch(path, events);
    m_bDoubtful |= watch < 0;
    if (watch != -EACCES)
      refusal = std::max(refusal, refusalOf(watch));
  };
  for (std::size_t end = 1; end < place.folder.size(); ++end) {
    end = std::min(place.folder.find('/', end), place.folder.size());
    const std::string path = place.folder.substr(0, end);
    addToWay(path, IN_ONLYDIR);
    if (FileStatus::of(path).isLink)
      addToWay(path, IN_DONT_FOLLOW);
  }
  const int watch = addFolderWatch();
  m_bMissing = watch < 0;
  refusal = std::max(refusal, refusalOf(watch));
  if (std::exchange(m_nRefusal, refusal) == refusal || refusal == 0 || m_bBeginning)
    return;
  OwnRecords::write(OwnRecords::FAILURE, describe(),
                    ": the folder cannot be watched: ", errorText(refusal));
}

}  // namespace VarnSupport
