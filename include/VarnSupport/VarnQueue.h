// A queue between threads: some give, others take, and both may wait.
//
// All operations are safe from any thread. Elements come out in the order in which they went in,
// each once. A wait ends when the queue is closed, and when the VarnFunctionThread that waits is
// asked to stop; a VarnThread that is killed unwinds out of it, and no element is lost with it. In
// the child of a fork a queue is whole and has no waiters. The queue locks by itself: getLock()
// guards nothing here, and is free for what callers want to do undisturbed among themselves.
//
// Elements are moved under the queue's lock, so moving one must neither wait nor use the queue;
// they are copied, converted and destroyed outside of it.
#ifndef VARNSUPPORT_VARNQUEUE_H
#define VARNSUPPORT_VARNQUEUE_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <type_traits>
#include <utility>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLatchedEvent.h"
#include "VarnSupport/VarnProducerConsumer.h"

namespace VarnSupport {

// Who may give to a queue, or take from it, when: of VarnQueue, and nothing for others.
class VSUPT_EXPORT VarnQueueTurns {
 public:
  using tMoment = std::chrono::steady_clock::time_point;
  // Moves elements, with the queue's lock held.
  using tMove = void (*)(void* what);

  explicit VarnQueueTurns(std::size_t capacity)
      : m_nCapacity(capacity), m_pState(makeState(capacity)) {}
  VarnQueueTurns(const VarnQueueTurns&) = delete;
  VarnQueueTurns& operator=(const VarnQueueTurns&) = delete;
  ~VarnQueueTurns() { giveUpState(); }

  // Each waits until `deadline` for room, or an element, and has it moved; false when there was
  // none. What a move throws goes on to the caller, and the number of elements stays.
  bool give(tMoment deadline, tMove move, void* what);
  bool take(tMoment deadline, tMove move, void* what);
  // Has all elements moved.
  void clear(tMove move, void* what);
  void close();

  bool isClosed() const;
  std::size_t size() const;
  std::size_t capacity() const { return m_nCapacity; }

 private:
  struct State;

  static State* makeState(std::size_t capacity);
  void giveUpState();

  const std::size_t m_nCapacity;
  State* const m_pState;
};

template <typename T>
class VarnQueue : public VarnBaseSynchronizedQueue {
 public:
  // With 0 there is no limit to the number of elements.
  explicit VarnQueue(std::size_t capacity = 0) : m_oTurns(capacity) {}
  // What is left is destroyed. Requires: nobody waits, unless the process exits.
  ~VarnQueue() override = default;

  // Puts an element at the end, after waiting for room. False when the queue is closed, or when the
  // thread was asked to stop while it waited. A T that is moved is moved from only when it went in.
  template <typename U = T>
  bool give(U&& element) {
    return put(std::forward<U>(element), tMoment::max());
  }
  // The same; false also when the queue is full.
  template <typename U = T>
  bool tryGive(U&& element) {
    return put(std::forward<U>(element), tMoment::min());
  }

  // Waits for an element and takes the first. Nothing when the queue is closed and empty, or when
  // the thread was asked to stop and the queue is empty.
  std::optional<T> take() { return takeUntil(tMoment::max()); }
  // The same; nothing also when `limit` has passed. A limit of 0 takes what is there.
  template <typename Number, typename Period>
  std::optional<T> take(const std::chrono::duration<Number, Period>& limit) {
    return takeUntil(limit > limit.zero() ? VarnDeadline(limit) : tMoment::min());
  }

  // Refuses elements from here on, for good, and wakes everyone. What is in the queue can be taken.
  void close() { m_oTurns.close(); }
  bool isClosed() const { return m_oTurns.isClosed(); }
  // Destroys all elements; those who wait for room get it.
  void clear() override {
    tElements elements;
    Transfer<tElements> transfer{*this, elements};
    m_oTurns.clear(
        [](void* what) {
          auto& [queue, gone] = *static_cast<Transfer<tElements>*>(what);
          gone.swap(queue.m_vElements);
        },
        &transfer);
  }
  std::size_t size() const { return m_oTurns.size(); }
  // 0 when there is no limit.
  std::size_t capacity() const { return m_oTurns.capacity(); }

 private:
  using tElements = std::deque<T>;
  using tMoment = VarnQueueTurns::tMoment;

  // What is moved, between a queue and its caller.
  template <typename Subject>
  struct Transfer {
    VarnQueue& queue;
    Subject& subject;
  };

  template <typename U>
  bool put(U&& element, tMoment deadline) {
    static_assert(std::is_convertible_v<U&&, T>, "what is given becomes an element");
    if constexpr (std::is_same_v<U, T>) {
      Transfer<T> transfer{*this, element};
      return m_oTurns.give(
          deadline,
          [](void* what) {
            auto& [queue, given] = *static_cast<Transfer<T>*>(what);
            queue.m_vElements.push_back(std::move(given));
          },
          &transfer);
    } else {
      return put<T>(static_cast<T>(std::forward<U>(element)), deadline);
    }
  }

  std::optional<T> takeUntil(tMoment deadline) {
    std::optional<T> element;
    Transfer<std::optional<T>> transfer{*this, element};
    m_oTurns.take(
        deadline,
        [](void* what) {
          auto& [queue, taken] = *static_cast<Transfer<std::optional<T>>*>(what);
          taken.emplace(std::move(queue.m_vElements.front()));
          queue.m_vElements.pop_front();
        },
        &transfer);
    return element;
  }

  VarnQueueTurns m_oTurns;
  tElements m_vElements;  // guarded by the turns
};

}  // namespace VarnSupport

#endif
