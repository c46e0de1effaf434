// What a watch of files knows and does; VarnFileWatch.cpp says how.
#ifndef SUPPORT_LOOP_FILEWATCHSTATE_H
#define SUPPORT_LOOP_FILEWATCHSTATE_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VarnSupport/VarnFileWatch.h"
#include "loop/Callee.h"
#include "loop/EventLoop.h"
#include "loop/FileStatus.h"
#include "loop/FolderWatches.h"

namespace VarnSupport {

// Which names are watched.
struct FileWatchPlace {
  // Throws VarnException when there is no path.
  explicit FileWatchPlace(const std::string& path);

  std::string given;
  std::string shown;   // the folder as it was given, with its "/"
  std::string folder;  // absolute
  std::string pattern;
};

// What is known of a name from its events. A file that has left the name is the first that left.
struct FileHint {
  void noteLeaving(bool hasMoved) {
    isMoved |= hasMoved && !isRemoved;
    isRemoved = true;
  }
  void noteNewName(std::string_view name);
  // What came later.
  void add(const FileHint& later);

  bool isMade = false;  // since the object was
  bool isModified = false;
  bool isRemoved = false;
  bool isMoved = false;
  // Within the folder, of the first files that left, in their order.
  std::vector<std::string> newNames;
};

// What a call is to do.
struct FileWork {
  std::map<std::string, FileHint, std::less<>> names;
  bool isLost = false;
  bool isRenewed = false;  // the folder has to be found again
  bool isForAll = false;
  bool isDue = false;  // what was put off
};

struct VSUPT_LOCAL VarnFileWatch::State final : Callee, FolderListener {
  State(const std::string& path, Function itsFunction, const VarnCallbackPool* pool)
      : Callee("VarnFileWatch", itsFunction != nullptr, pool),
        place(path),
        function(std::move(itsFunction)) {}

  std::string describe() const override { return std::string(kind()) + " of " + place.given; }
  // The loop tells, or another call that reads events.
  void hear(const inotify_event& event) override;
  void hearLoss() override;
  void onDeadline() override;
  void enterLoop() override;
  // A call looks.
  void beginCall(MonotonicTime now) override;
  void makeCall() override;
  void endCall() override;
  void leaveLoop() override;

 private:
  struct Known {
    FileStatus status;
    int target = -1;  // watch of the file that a link leads to
  };

  template <typename Note>
  void noteOf(std::string_view name, Note note);
  void noteLoss();
  void hearOfName(const inotify_event& event);
  bool hearAllOf(const std::string& name, FileHint& hint);

  int addWatch(LoopLock& lock, const std::string& path, std::uint32_t events);
  int addWayWatch(const std::string& path, std::uint32_t events);
  int addTargetWatch(const std::string& path, const std::string& name);
  int addFolderWatch();
  void removeTargetWatch(int watch, const std::string& name);
  void attach();
  void detach();
  bool isFolderElsewhere();
  void lookAtAll(const FileWork& work);
  void lookAt(const std::string& name, FileHint hint);
  void forget(const std::string& name, const FileHint& hint);
  void watchTarget(const std::string& name, const std::string& path, Known& known);
  Change changeOf(tChange what, const std::string& name, std::uint64_t size = 0,
                  const std::string& newName = {}) const;
  void tell(const Change& change);

  const FileWatchPlace place;
  const Function function;

  // Guarded by the lock of the loop.
  FileWork m_oWork;
  std::string m_sLeaving;                               // the name that a file has left last,
  std::uint32_t m_nLeavingMove = 0;                     // and the number of its move
  int m_nFolder = -1;                                   // the watch, or minus the system's code
  std::vector<int> m_vWay;                              // watches of what leads to it
  std::vector<std::pair<int, std::string>> m_vTargets;  // watches of what links lead to, by name
  bool m_bRetrySet = false;

  // Of the call that is under way, and of the constructor before the first.
  FileWork m_oTaken;
  std::map<std::string, Known> m_mapKnown;
  std::vector<Change> m_vFound;  // not told yet
  bool m_bBeginning = true;      // in the constructor
  bool m_bFinding = true;        // what was there when the object was made
  bool m_bMissing = false;       // the folder is
  bool m_bIncomplete = false;    // names are to be looked at again
  bool m_bDoubtful = false;      // a move of the folder may not be told
  bool m_bUndone = false;        // the call ended in the middle
  int m_nRefusal = 0;            // the system's code that is in the log
};

}  // namespace VarnSupport

#endif
