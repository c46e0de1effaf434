// Observers: a VarnCollaborator tells its VarnDependents about a VarnNotification.
//
// Dependents are not owned: each must outlive its registration, and any call to it that is under
// way. They are called on the notifying thread, in the order of registration, without the list lock
// held. All operations are safe from any thread, and from inside a callback.
#ifndef VARNSUPPORT_VARNCOLLABORATOR_H
#define VARNSUPPORT_VARNCOLLABORATOR_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class KeptDependent;
class VarnCollaborator;

// What observers are told: an id, and whatever derived classes add.
class VSUPT_EXPORT VarnNotification {
 public:
  explicit VarnNotification(int id = 0) : m_nId(id) {}
  VarnNotification(const VarnNotification&) = default;
  VarnNotification& operator=(const VarnNotification&) = default;
  VarnNotification& operator=(int id);
  virtual ~VarnNotification();

  int getId() const { return m_nId; }
  void setId(int id) { m_nId = id; }

 private:
  std::int32_t m_nId;
};

// Sent by an event that is set; its id is 1.
class VSUPT_EXPORT VarnEventNotification : public VarnNotification {
 public:
  VarnEventNotification();
  ~VarnEventNotification() override;
};

// For clients that tell dependents of a changed property; its id is 2.
class VSUPT_EXPORT PropertyChanged : public VarnNotification {
 public:
  explicit PropertyChanged(const std::string& name);
  ~PropertyChanged() override;

  const std::string& getName() const { return m_sName; }

 private:
  std::string m_sName;
};

// An observer. A copy is registered with nobody.
class VSUPT_EXPORT VarnDependent {
 public:
  VarnDependent() = default;
  VarnDependent(const VarnDependent&) = default;
  VarnDependent& operator=(const VarnDependent&) = default;
  virtual ~VarnDependent();

  // Does nothing by default.
  virtual void handleNotification(VarnCollaborator& source, const VarnNotification& notification);
};

class VSUPT_EXPORT VarnCollaborator {
 public:
  VarnCollaborator();
  // Dependents are never copied: a copy starts without any, and assignment leaves the target's.
  VarnCollaborator(const VarnCollaborator&);
  VarnCollaborator& operator=(const VarnCollaborator&);
  // May run inside a callback of its own walk, which then ends.
  virtual ~VarnCollaborator();

  // A dependent that is added twice is called twice.
  void addDependent(VarnDependent& dependent);
  // Takes out every occurrence. Does not wait for a call that is under way on another thread.
  void removeDependent(VarnDependent& dependent);

  // Calls every dependent. The walk goes by position over the live list: an entry added meanwhile
  // is called too, and removing an entry at or before the current one skips the one that moves into
  // its place; callers rely on it.
  virtual void notify(const VarnNotification& notification);

 private:
  // Of the library itself: notify(), which tells whether the collaborator lives.
  friend bool deliver(VarnCollaborator& collaborator, const VarnNotification& notification);
  friend bool neverHadDependents(const VarnCollaborator& collaborator);
  friend class TrackedDependent;
  friend class KeptDependent;
  class Cursor;

  VSUPT_LOCAL void addEntry(VarnDependent* entry);
  VSUPT_LOCAL KeptDependent& keep(KeptDependent& made);

  VarnCriticalSectionObject m_oLock;
  std::vector<VarnDependent*> m_vDependents VSUPT_GUARDED_BY(m_oLock);
  std::atomic<std::uint64_t> m_nChanges{0};  // of the list, counted under the lock
};

}  // namespace VarnSupport

#endif
