// The connections of one source of notifications.
#ifndef SUPPORT_THREADS_CONNECTIONHUB_H
#define SUPPORT_THREADS_CONNECTIONHUB_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "VarnSupport/VarnFunctions.h"
#include "runtime/BriefMutex.h"
#include "threads/KeptDependent.h"

namespace VarnSupport {

// Its entry stays where it is, so that connections come and go without moving other entries from
// under a walk. The source keeps it until it goes itself, and so do the connections: neither
// touches the other.
class ConnectionHub : public KeptDependent, public std::enable_shared_from_this<ConnectionHub> {
 public:
  using Connection = VarnConnection::State;

  // The hub of a source, which gets one.
  static std::shared_ptr<ConnectionHub> of(VarnCollaborator& source);

  void leaveSource() override;
  void handleNotification(VarnCollaborator& source, const VarnNotification& notification) override;

  void add(const std::shared_ptr<Connection>& connection);
  // Waits for the calls on other threads.
  void remove(Connection& connection);
  bool has(const Connection& connection);

  // In the child of a fork: only the calling thread's calls go on.
  static void forgetLostCalls();

 private:
  class Use;
  class Call;
  // By numbers, that of a connection that has gone stays until there are many.
  struct Entry {
    std::uint64_t number;
    std::shared_ptr<Connection> connection;
  };
  using tConnections = std::vector<Entry>;

  tConnections::iterator atLocked(std::uint64_t number);
  void dropGoneLocked();

  std::shared_ptr<ConnectionHub> m_pOwn;  // as long as the source lives
  BriefMutex m_oMutex;
  // Guarded by the mutex.
  std::uint64_t m_nNewest = 0;
  tConnections m_vConnections;
  std::size_t m_nGone = 0;  // of the entries
};

}  // namespace VarnSupport

#endif
