// Tells when a file of a given name, or of a name that matches a wildcard, is made, changed, moved
// or gone.
//
//   VarnFileWatch watch("/var/log/app/*.log", [&](const VarnFileWatch::Change& change) {
//     tails.follow(change);
//   });
//
// Whatever has the name is told of, a folder or a FIFO, too. MADE says that it is there, not that
// its writer has finished: a file that is to be taken when it is whole is best written under a name
// that does not match, and then renamed.
//
// A name is followed, not a file: a rotation by rename tells MOVED and then MADE, one that copies
// and cuts tells CUT. Changes that come together are told as one, and what was made and is gone
// again not at all: of quick rotations the files between are not told of. The folder may be
// missing, vanish and come back, and is looked for once a second then. A name that is a symbolic
// link stands for the file that it leads to; that a further link on the way there is changed is
// told if this one is in the folder, too. The system tells (inotify), not of what other hosts do to
// a network file system, nor of writes through a mapping.
//
// Calls are made by the thread of the loop ("vsupt-loop") or by a VarnCallbackPool, never two of
// one object at once. Safe from any thread, from their own functions too. What a function throws is
// written to the log at level 1, and a call that takes more than a second is told there as well. In
// the child of a fork an object is inert; a new one works. When the process exits, no call begins.
#ifndef VARNSUPPORT_VARNFILEWATCH_H
#define VARNSUPPORT_VARNFILEWATCH_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "VarnSupport/VarnCallbackPool.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnFileWatch {
 public:
  enum tChange {
    FOUND,    // was there when the object was made
    MADE,     // has come to be there since: under this name there is a file not known before
    CHANGED,  // was written to
    CUT,      // has become shorter than it was known to be
    MOVED,    // the file has left the name for another one
    GONE,     // there is no file of the name any more, or another one
    LOST      // the system dropped events; what is found now is told as the changes that follow
  };
  struct Change {
    tChange what = FOUND;
    std::string path;        // as the object was given it, with the name in place of the wildcard
    std::string newPath;     // where in its folder just this file is, if it was moved; else empty
    std::uint64_t size = 0;  // of a file that is there
  };
  using Function = std::function<void(const Change& change)>;

  // What is behind the last "/" is the name: "*" and "?" are wildcards as VarnFindFile has them, no
  // name is "*". A relative path begins at the working directory of this moment. Whatever changes
  // after the constructor has begun is told. `pool` must outlive the object; null is the thread of
  // the loop. Throws VarnException, with the system's code, when the system has no more watches to
  // give, the folder is there but may not be read (EACCES) or the path has a NUL, and with code 0
  // when there is no function or no path.
  VarnFileWatch(const std::string& path, Function function, VarnCallbackPool* pool = nullptr);
  VarnFileWatch(const VarnFileWatch&) = delete;
  VarnFileWatch& operator=(const VarnFileWatch&) = delete;
  // Waits for a call that is under way on another thread. No call runs afterwards, but for one that
  // it is called from.
  ~VarnFileWatch();

 private:
  struct State;

  const std::shared_ptr<State> m_pState;
};

}  // namespace VarnSupport

#endif
