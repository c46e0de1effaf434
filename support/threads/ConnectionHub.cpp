// A hub is one dependent of its source for all connections to it: a source knows dependents, and
// functions stand behind the hub in the order of their numbers. A delivery looks for the next
// number again after each call, as any call may add and remove connections; what is added meanwhile
// is for the next delivery.
//
// A connection's calls are counted under the hub's mutex, with those among them whose threads wait
// in disconnect(): these wait for the others and not for each other. Whoever disconnects from
// outside waits for all. Which calls are its own a thread finds in its scopes. The function is gone
// before disconnect() returns, unless that is called in the function.
#include "threads/ConnectionHub.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/ProcessExit.h"
#include "runtime/ThreadScope.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

// Guarded by the mutex of the hub, apart from what does not change.
struct VarnConnection::State {
  State(std::shared_ptr<ConnectionHub> itsHub, tFunction itsFunction)
      : hub(std::move(itsHub)), function(std::move(itsFunction)) {}

  const std::shared_ptr<ConnectionHub> hub;
  tFunction function;  // changed only when there is no call of it
  std::uint64_t number = 0;
  int calls = 0;
  int leaving = 0;  // calls whose threads wait for the others
  std::uint32_t forks = g_nForks;
  std::atomic<unsigned> changes{0};  // of the calls

  // Calls of threads that a fork left behind never return.
  void forgetLost() {
    if (forks == g_nForks)
      return;
    calls = leaving = 0;
    forks = g_nForks;
  }
  void tellChange() {
    changes.fetch_add(1);
    changes.notify_all();
  }
};

// Counts a call of the connection next in line behind `last`, if there is one up to `newest`.
class ConnectionHub::Use {
 public:
  Use(ConnectionHub& hub, std::uint64_t last, std::uint64_t newest) : m_oHub(hub) {
    const BriefMutex::Hold hold(m_oHub.m_oMutex);
    auto next = m_oHub.atLocked(last + 1);
    while (next != m_oHub.m_vConnections.end() && next->connection == nullptr)
      ++next;
    if (next == m_oHub.m_vConnections.end() || next->number > newest)
      return;
    m_pConnection = next->connection;
    m_pConnection->forgetLost();
    ++m_pConnection->calls;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    if (m_pConnection == nullptr)
      return;
    {
      const BriefMutex::Hold hold(m_oHub.m_oMutex);
      --m_pConnection->calls;
      assert(m_pConnection->calls >= 0 && m_pConnection->forks == g_nForks);
    }
    m_pConnection->tellChange();
    m_pConnection.reset();
  }

  // Null when there is none.
  Connection* connection() const { return m_pConnection.get(); }

 private:
  ConnectionHub& m_oHub;
  std::shared_ptr<Connection> m_pConnection;
};

// A call on the calling thread.
class ConnectionHub::Call : public ThreadScopeOf<Call> {
 public:
  explicit Call(const Use& use) : m_oUse(use) {}

  void make(const VarnNotification& notification) const {
    try {
      m_oUse.connection()->function(notification);
    } catch (...) {
      passOnCancellation();
      Uncaught::report([] { return "a connection"; });
    }
  }

  // How many there are of one connection.
  static int countHere(const Connection& connection) {
    int count = 0;
    for (const Call* call = innermost(); call != nullptr; call = call->outer())
      count += call->m_oUse.connection() == &connection ? 1 : 0;
    return count;
  }
  // In the child of a fork that was made inside of a call, which goes on there.
  static void countAgain() {
    for (const Call* call = innermost(); call != nullptr; call = call->outer()) {
      call->m_oUse.connection()->forgetLost();
      ++call->m_oUse.connection()->calls;
    }
  }

 private:
  const Use& m_oUse;
};

// On threads that race for it one gets its hub into the source, and the others drop theirs.
std::shared_ptr<ConnectionHub> ConnectionHub::of(VarnCollaborator& source) {
  auto made = std::make_shared<ConnectionHub>();
  auto& kept = static_cast<ConnectionHub&>(keptBy(source, *made));
  if (&kept != made.get())
    return kept.shared_from_this();
  made->m_pOwn = made;
  return made;
}

// The source is in its destructor. Connections are dropped without the mutex, as what a function
// holds may have a destructor that comes back here.
void ConnectionHub::leaveSource() {
  const QuietCancellationGuard closed;
  const std::shared_ptr<ConnectionHub> kept = std::move(m_pOwn);
  tConnections connections;
  const BriefMutex::Hold hold(m_oMutex);
  connections.swap(m_vConnections);
}

// A function may destroy the source, and its own connection.
void ConnectionHub::handleNotification(VarnCollaborator&, const VarnNotification& notification) {
  const CancellationGuard closed;
  const std::shared_ptr<ConnectionHub> kept = shared_from_this();
  ProcessExit::watch();
  std::uint64_t newest = 0;
  {
    const BriefMutex::Hold hold(m_oMutex);
    newest = m_nNewest;
  }
  for (std::uint64_t last = 0; last < newest;) {
    const Use use(*this, last, newest);
    if (use.connection() == nullptr)
      return;
    last = use.connection()->number;
    Call(use).make(notification);
  }
}

void ConnectionHub::add(const std::shared_ptr<Connection>& connection) {
  const BriefMutex::Hold hold(m_oMutex);
  assert(connection->number == 0);
  m_vConnections.push_back({m_nNewest + 1, connection});
  connection->number = ++m_nNewest;
}

void ConnectionHub::remove(Connection& connection) {
  const int own = Call::countHere(connection);
  std::shared_ptr<Connection> kept;
  {
    const BriefMutex::Hold hold(m_oMutex);
    const auto found = atLocked(connection.number);
    if (found != m_vConnections.end() && found->connection.get() == &connection) {
      kept = std::move(found->connection);
      ++m_nGone;
      dropGoneLocked();
    }
    connection.forgetLost();
    connection.leaving += own;
  }
  assert(connection.number > 0 && own >= 0);
  if (own > 0)
    connection.tellChange();
  ProcessExit::await(connection.changes, [&] {
    const BriefMutex::Hold hold(m_oMutex);
    return connection.calls == (own > 0 ? connection.leaving : 0);
  });
  VarnConnection::tFunction function;
  const BriefMutex::Hold hold(m_oMutex);
  connection.leaving -= own;
  if (connection.calls == 0)
    function.swap(connection.function);
}

bool ConnectionHub::has(const Connection& connection) {
  const BriefMutex::Hold hold(m_oMutex);
  const auto found = atLocked(connection.number);
  return found != m_vConnections.end() && found->connection.get() == &connection;
}

// The first with that number or a higher one. Requires: the mutex is held.
ConnectionHub::tConnections::iterator ConnectionHub::atLocked(std::uint64_t number) {
  return std::lower_bound(
      m_vConnections.begin(), m_vConnections.end(), number,
      [](const Entry& entry, std::uint64_t wanted) { return entry.number < wanted; });
}

// Moves the others together when half of all have gone, so that each of them pays for one move.
void ConnectionHub::dropGoneLocked() {
  if (m_nGone * 2 < m_vConnections.size())
    return;
  std::erase_if(m_vConnections, [](const Entry& entry) { return entry.connection == nullptr; });
  m_nGone = 0;
}

void ConnectionHub::forgetLostCalls() { Call::countAgain(); }

constinit const ForkPart connectionFork{[] {},
                                        [](ForkSide side) {
                                          if (side == ForkSide::CHILD)
                                            ConnectionHub::forgetLostCalls();
                                        }};

void VarnConnection::disconnect() {
  const QuietCancellationGuard closed;
  if (m_pState != nullptr)
    m_pState->hub->remove(*m_pState);
}

bool VarnConnection::isConnected() const {
  const QuietCancellationGuard closed;
  return m_pState != nullptr && m_pState->hub->has(*m_pState);
}

VarnCollaborator& dependentsOf(VarnEvent& event);

// The function may look at its connection as soon as the hub has it.
void VarnConnection::connect(VarnCollaborator* source, VarnEvent* event, tFunction function) {
  const CancellationGuard closed;
  ProcessExit::noteObject();
  m_pState = std::make_shared<State>(
      ConnectionHub::of(source != nullptr ? *source : dependentsOf(*event)), std::move(function));
  m_pState->hub->add(m_pState);
}

}  // namespace VarnSupport
