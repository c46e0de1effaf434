// Events only say where to look. The loop notes the names that they are about, and a call looks at
// these names and compares what is there with what was known: who is told of changes is told of
// what is so, however many events there were and in whatever order the looks fell between them.
// Lost events, and a folder that is another one now, have all names looked at. Whether a file that
// has left its name was moved, and where to, events alone know: they are read to the end before.
//
// The folder is watched for what happens to its names. Each folder above it is watched for being
// moved or removed itself, and each symbolic link on the way for being replaced; of all these the
// system says nothing in quiet times. As long as the folder is missing or cannot be read, or a name
// is a link that leads nowhere, the path is tried every second; so it is where a folder above may
// be passed but not read, which the system does not watch, lest another folder takes the place.
//
// A folder that cannot be read at once, for want of descriptors, is still being found: what turns
// up in it was there when the object was made, unless an event told that it was made since, or
// events were lost, or another folder has come.
#include "VarnSupport/VarnFileWatch.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>

#include "VarnSupport/VarnException.h"
#include "loop/EventLoop.h"
#include "loop/FileWatchState.h"
#include "loop/LoopThread.h"
#include "runtime/Cancellation.h"
#include "runtime/System.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr std::chrono::seconds kBetweenTries{1};

}  // namespace

FileWatchPlace::FileWatchPlace(const std::string& path) : given(path) {
  if (path.empty())
    throw VarnException("VarnFileWatch: there is no path", 0);
  if (hasNul(path))
    throwSystemError("VarnFileWatch of " + escapedText(path), EINVAL);
  const std::size_t behind = path.rfind('/') + 1;
  shown = path.substr(0, behind);
  pattern = behind < path.size() ? path.substr(behind) : "*";
  std::error_code error;
  folder = std::filesystem::absolute(shown.empty() ? "." : shown, error).string();
  if (error)
    throwSystemError("VarnFileWatch of " + given, error.value());
  while (folder.size() > 1 && (folder.back() == '/' || folder.ends_with("/.")))
    folder.pop_back();
}

void VarnFileWatch::State::beginCall(MonotonicTime) {
  noteFirstCall();
  std::swap(m_oWork, m_oTaken);
}

// What was found by the constructor is told by the first call, as no function is called inside of a
// constructor. A function may destroy the watch, and nothing is told after that.
void VarnFileWatch::State::makeCall() {
  guarded([this] {
    for (const Change& change : std::exchange(m_vFound, {})) {
      if (!isOver())
        guarded([&] { function(change); });
    }
    m_bUndone = true;
    FileWork work = std::exchange(m_oTaken, {});
    if (work.isDue) {
      work.isForAll |= m_bIncomplete;
      work.isRenewed = work.isRenewed || isFolderElsewhere();
    }
    m_bFinding &= !work.isLost && !work.isRenewed;
    if (work.isLost)
      tell({LOST, place.given, {}, 0});
    if (work.isRenewed)
      attach();
    if (work.isRenewed || work.isLost || work.isForAll) {
      lookAtAll(work);
    } else {
      for (const auto& [name, hint] : work.names)
        lookAt(name, hint);
    }
    m_bUndone = false;
  });
}

// What there was no memory for is done at the next try, like after a loss of events.
void VarnFileWatch::State::endCall() {
  if (std::exchange(m_bUndone, false)) {
    noteLoss();
    m_oWork.isRenewed = true;
    m_bIncomplete = true;
  }
  if ((m_bIncomplete || m_bDoubtful) && !std::exchange(m_bRetrySet, true))
    setDeadline(monotonicNow() + kBetweenTries);
}

// Made before what is known changes: a change that there is no memory for is found again.
VarnFileWatch::Change VarnFileWatch::State::changeOf(tChange what, const std::string& name,
                                                     std::uint64_t size,
                                                     const std::string& newName) const {
  return {what, place.shown + name, newName.empty() ? newName : place.shown + newName, size};
}

void VarnFileWatch::State::tell(const Change& change) {
  if (isOver())
    return;
  if (m_bBeginning)
    m_vFound.push_back(change);
  else
    guarded([&] { function(change); });
}

void VarnFileWatch::State::lookAtAll(const FileWork& work) {
  std::set<std::string> names;
  bool isWhole = true;
  if (place.pattern.find_first_of("*?") == std::string::npos) {
    names.insert(place.pattern);
  } else {
    isWhole = addNamesIn(place.folder, place.pattern, names);
    for (const auto& [name, known] : m_mapKnown)
      names.insert(name);
  }
  m_bIncomplete = m_bMissing || !isWhole;
  for (const std::string& name : names) {
    const auto hint = work.names.find(name);
    lookAt(name, hint != work.names.end() ? hint->second : FileHint());
  }
  m_bFinding &= !isWhole;
}

// Of several files that have left the name since the last look, the first is the known one; a name
// that it has got may be that of another file by now.
void VarnFileWatch::State::forget(const std::string& name, const FileHint& hint) {
  const auto found = m_mapKnown.find(name);
  assert(found != m_mapKnown.end());
  const Known& known = found->second;
  const auto newName =
      std::find_if(hint.newNames.begin(), hint.newNames.end(), [&](const std::string& its) {
        return FileStatus::of(place.folder + '/' + its).isSameFile(known.status);
      });
  const Change change = newName != hint.newNames.end()
                            ? changeOf(MOVED, name, 0, *newName)
                            : changeOf(hint.isMoved ? MOVED : GONE, name);
  if (known.target >= 0)
    removeTargetWatch(known.target, name);
  m_mapKnown.erase(found);
  tell(change);
}

// The link may lead elsewhere by the time that its file is watched; and a file that may not be read
// has no watch, and is looked at every second.
void VarnFileWatch::State::watchTarget(const std::string& name, const std::string& path,
                                       Known& known) {
  if (!known.status.isLink || known.status.isFolder)
    return;
  known.target = addTargetWatch(path, name);
  if (known.target < 0 || !FileStatus::of(path).isSameFile(known.status))
    m_bIncomplete = true;
}

// A file that is not the known one any more is told of as gone first, and then as made.
void VarnFileWatch::State::lookAt(const std::string& name, FileHint hint) {
  const std::string path = place.folder + '/' + name;
  FileStatus now = FileStatus::of(path);
  auto found = m_mapKnown.find(name);
  if (found != m_mapKnown.end()) {
    const bool isReplaced = hint.isRemoved && !now.isSure();
    if (!now.exists || isReplaced || !now.isSameFile(found->second.status)) {
      if (!hearAllOf(name, hint))
        return;
      now = FileStatus::of(path);
      forget(name, hint);
      found = m_mapKnown.end();
    }
  }
  if (!now.exists) {
    m_bIncomplete |= now.isLink;
    return;
  }
  if (found == m_mapKnown.end()) {
    const Change change = changeOf(m_bFinding && !hint.isMade ? FOUND : MADE, name, now.size);
    std::map<std::string, Known> made;
    Known& known = made[name];
    known.status = now;
    watchTarget(name, path, known);
    m_mapKnown.merge(made);
    tell(change);
    return;
  }
  if (found->second.target < 0)
    watchTarget(name, path, found->second);
  FileStatus& before = found->second.status;
  const bool isCut = now.size < before.size;
  const bool isOther = hint.isModified || now.size != before.size || now.changed != before.changed;
  if (now.isFolder || !isOther) {
    before = now;
    return;
  }
  const Change change = changeOf(isCut ? CUT : CHANGED, name, now.size);
  before = now;
  tell(change);
}

// Calls are held until the first look is complete: what it finds is told before any change of it.
void VarnFileWatch::State::enterLoop() {
  {
    const LoopLock lock;
    enlist();
    holdCalls();
    loop().openFolders();
  }
  attach();
  if (m_nRefusal != 0)
    throwSystemError(describe(), m_nRefusal);
  lookAtAll({});
  m_bBeginning = false;
  const LoopLock lock;
  if (!m_vFound.empty())
    pend();
  endCall();
  letCalls();
}

VarnFileWatch::VarnFileWatch(const std::string& path, Function function, VarnCallbackPool* pool)
    : m_pState(std::make_shared<State>(path, std::move(function), pool)) {
  m_pState->activate();
}

VarnFileWatch::~VarnFileWatch() {
  const QuietCancellationGuard closed;
  m_pState->withdraw();
}

}  // namespace VarnSupport
