// The elements and their number are guarded by a mutex. Who waits sleeps on an event, which moves
// on once for each element, or place, that there is for somebody in line. Those in line who were
// not woken yet are counted under the mutex, so that nobody is woken twice.
//
// Who is alone in line looks for a while before it sleeps, as what it waits for mostly comes soon.
// Several would take turns at the processor, and at the mutex, for each single element.
//
// That count may be too high, as the system chooses whom it wakes; then a wake-up finds nobody. It
// is never too low: who is killed while there is something for the next in line, wakes the next.
#include "VarnSupport/VarnQueue.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <optional>

#include "runtime/BriefMutex.h"
#include "runtime/Cancellation.h"
#include "threads/LatchState.h"

namespace VarnSupport {

namespace {

using tMoment = VarnQueueTurns::tMoment;

// Those who wait to give, or to take. The counts are guarded by the mutex of the queue.
class Line : public EventState {
 public:
  // The threads to be woken at an address, which may be gone by then.
  struct Call {
    std::uint32_t* number;
    int threads = 0;

    void make() const {
      if (threads > 0)
        wake(number, threads);
    }
  };

  // The next in line, or all, may go on.
  Call next() {
    const bool isAsleep = m_nUnwoken > 0 && (--m_nUnwoken, moveOn());
    return {numberHalf(), isAsleep ? 1 : 0};
  }
  Call all() {
    m_nUnwoken = 0;
    return {numberHalf(), moveOn() ? INT_MAX : 0};
  }

  bool isEmpty() const { return m_nWaiting == 0; }
  void enter() {
    ++m_nWaiting;
    ++m_nUnwoken;
  }
  void leave() {
    --m_nWaiting;
    m_nUnwoken = std::min(m_nUnwoken, m_nWaiting);
  }

 private:
  std::size_t m_nWaiting = 0;
  std::size_t m_nUnwoken = 0;
};

}  // namespace

// What each turn changes lies in one line of the processor's cache.
struct alignas(64) VarnQueueTurns::State {
  explicit State(std::size_t itsCapacity) : capacity(itsCapacity) {}

  class Turn;
  class Place;

  const std::size_t capacity;
  BriefMutex mutex;
  // Changed under the mutex.
  std::atomic<std::size_t> size{0};
  std::atomic<bool> isClosed{false};
  Line givers;
  Line takers;

  void setSize(std::size_t now) { size.store(now, std::memory_order_relaxed); }
  bool hasRoom() const { return capacity == 0 || size < capacity; }
  // Whether there is an element for takers, or room in an open queue for givers.
  bool isOpenTo(const Line& line) const {
    return &line == &takers ? size > 0 : hasRoom() && !isClosed;
  }
};

// The mutex, until the end of the scope or before.
class VarnQueueTurns::State::Turn {
 public:
  explicit Turn(State& state) : m_oState(state), m_oHold(std::in_place, state.mutex) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  // Waits in line until there is something, and has it moved; false when that did not come to be.
  bool transfer(Line& line, tMoment deadline, tMove move, void* what);
  // Ends the turn, and wakes.
  void end(const Line::Call& call) {
    m_oHold.reset();
    call.make();
  }

 private:
  friend class Place;

  bool await(Line& line, tMoment deadline);

  State& m_oState;
  std::optional<BriefMutex::Hold> m_oHold;
};

// A place in line, without the mutex as long as it exists.
class VarnQueueTurns::State::Place {
 public:
  Place(Turn& turn, Line& line)
      : m_oTurn(turn), m_oLine(line), m_nTicket(line.number()), m_bAlone(line.isEmpty()) {
    m_oLine.enter();
    m_oTurn.m_oHold.reset();
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place() {
    m_oTurn.m_oHold.emplace(m_oTurn.m_oState.mutex);
    m_oLine.leave();
    if (m_bKilled && m_oTurn.m_oState.isOpenTo(m_oLine))
      m_oLine.next().make();
  }

  // Others may take time and again what there was: a request to end is noticed between two looks.
  void wait(tMoment deadline) {
    if (isCancellationDue())
      unwindIfPossible();
    const MonotonicTime* const limit = deadline == tMoment::max() ? nullptr : &deadline;
    if (!m_bAlone || StopScope::isRequested() || !m_oLine.comesSoon(m_nTicket, limit))
      awaitChange(m_oLine, m_nTicket, deadline);
    m_bKilled = false;
  }

 private:
  Turn& m_oTurn;
  Line& m_oLine;
  const std::uint32_t m_nTicket;
  const bool m_bAlone;
  bool m_bKilled = true;  // until the wait has come to its end
};

bool VarnQueueTurns::State::Turn::await(Line& line, tMoment deadline) {
  bool isLast = deadline == tMoment::min();
  while (!m_oState.isOpenTo(line)) {
    if (isLast || m_oState.isClosed)
      return false;
    Place(*this, line).wait(deadline);
    isLast = StopScope::isRequested() || (deadline != tMoment::max() && monotonicNow() >= deadline);
  }
  return true;
}

// What could not be moved is there for the next in line.
bool VarnQueueTurns::State::Turn::transfer(Line& line, tMoment deadline, tMove move, void* what) {
  if (!await(line, deadline))
    return false;
  try {
    move(what);
  } catch (...) {
    end(line.next());
    throw;
  }
  return true;
}

VarnQueueTurns::State* VarnQueueTurns::makeState(std::size_t capacity) {
  const CancellationGuard closed;
  return new State(capacity);
}

void VarnQueueTurns::giveUpState() {
  const QuietCancellationGuard closed;
  if (!m_pState->givers.staysBehind(this) && !m_pState->takers.staysBehind(this))
    delete m_pState;
}

bool VarnQueueTurns::give(tMoment deadline, tMove move, void* what) {
  const CancellationGuard closed;
  State::Turn turn(*m_pState);
  if (!turn.transfer(m_pState->givers, deadline, move, what))
    return false;
  m_pState->setSize(m_pState->size + 1);
  turn.end(m_pState->takers.next());
  return true;
}

bool VarnQueueTurns::take(tMoment deadline, tMove move, void* what) {
  const CancellationGuard closed;
  State::Turn turn(*m_pState);
  if (!turn.transfer(m_pState->takers, deadline, move, what))
    return false;
  m_pState->setSize(m_pState->size - 1);
  turn.end(m_pState->givers.next());
  return true;
}

void VarnQueueTurns::clear(tMove move, void* what) {
  const CancellationGuard closed;
  State::Turn turn(*m_pState);
  move(what);
  m_pState->setSize(0);
  turn.end(m_pState->givers.all());
}

void VarnQueueTurns::close() {
  const CancellationGuard closed;
  State::Turn turn(*m_pState);
  m_pState->isClosed = true;
  const Line::Call giversCall = m_pState->givers.all();
  turn.end(m_pState->takers.all());
  giversCall.make();
}

bool VarnQueueTurns::isClosed() const { return m_pState->isClosed; }

std::size_t VarnQueueTurns::size() const { return m_pState->size; }

}  // namespace VarnSupport
