// Reference-counted objects and the smart pointer that owns them.
//
// An object is created with new, starts with a count of 0 and is handed at once to a
// VarnSmartPointer; it is deleted when its count returns to 0. addRef() and release() are safe from
// any thread; while one holds the global critical section (g_pCriticalSection,
// VarnCriticalSection.h), the counts stand still for all others. One smart pointer object must not
// be assigned by two threads at once; distinct smart pointers to one object may be used from
// different threads.
#ifndef VARNSUPPORT_VARNOBJECTBASE_H
#define VARNSUPPORT_VARNOBJECTBASE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// The root of shared objects.
class VSUPT_EXPORT VarnObjectBase {
 public:
  VarnObjectBase() noexcept = default;
  // A count is never copied: the copy starts at 0.
  VarnObjectBase(const VarnObjectBase&) noexcept {}
  // Resets the count of an object that is assigned over, although references to it may exist;
  // callers rely on it. Assigning an object to itself changes nothing.
  VarnObjectBase& operator=(const VarnObjectBase& source) noexcept;
  virtual ~VarnObjectBase();

  // Raises the count and returns the new one.
  virtual int addRef();
  // Lowers the count and returns the new one; at 0 the object is deleted, after the global critical
  // section has been left, so that its destructor may release other objects.
  virtual int release();
  // A snapshot of the count, taken without the lock.
  virtual int refCount() const;
  // True when `className` is exactly what getClassName() returns; base classes do not match.
  virtual bool isA(const std::string& className) const;
  // The normalized run-time type name of the object's dynamic class.
  virtual std::string getClassName() const;

  // Turns a run-time type name into a class name: "14VarnObjectBase" gives "VarnObjectBase",
  // "Q211VarnSupport14VarnObjectBase" gives "VarnSupport::VarnObjectBase". A nested name of the
  // N...E form only loses its first character and digits; callers rely on it.
  // Throws std::out_of_range ("basic_string::substr...") when a length points past the end.
  static std::string normalizeClassName(const std::string& rawName);

 protected:
  // For classes whose counts the global section does not guard. Both return the new count.
  int raiseCountAtomically() noexcept;
  int lowerCountAtomically() noexcept;

 private:
  std::atomic<std::int32_t> m_nReferences{0};
};

// Owns one reference to a T, which derives from VarnObjectBase; empty when it holds null.
template <typename T>
class VSUPT_EXPORT VarnSmartPointer {
 public:
  VarnSmartPointer() noexcept = default;
  // Shares `object` (may be null) by raising its count.
  VarnSmartPointer(T* object) : m_pObject(object) { share(); }
  VarnSmartPointer(const VarnSmartPointer& source) : m_pObject(source.m_pObject) { share(); }
  ~VarnSmartPointer() {
    if (m_pObject != nullptr)
      m_pObject->release();
  }
  // There are no move operations: a pointer that was moved from keeps its object, as after a copy.

  // The new object is shared before the old one is released, so that `p = p->next` is safe and a
  // destructor that the release runs already sees the new pointer.
  VarnSmartPointer& operator=(const VarnSmartPointer& source) {
    if (&source != this)
      *this = source.m_pObject;
    return *this;
  }
  VarnSmartPointer& operator=(T* object) {
    if (object != m_pObject) {
      T* const old = m_pObject;
      if (object != nullptr)
        object->addRef();
      m_pObject = object;
      if (old != nullptr)
        old->release();
    }
    return *this;
  }

  // The raw pointer, null when empty; ownership does not change.
  T* operator->() { return m_pObject; }
  T* operator->() const { return m_pObject; }
  operator T*() const { return m_pObject; }
  // Requires: not empty.
  T& operator*() { return *m_pObject; }
  T& operator*() const { return *m_pObject; }

  bool operator==(const VarnSmartPointer& other) const { return m_pObject == other.m_pObject; }
  bool operator!=(const VarnSmartPointer& other) const { return m_pObject != other.m_pObject; }
  bool operator==(std::nullptr_t) const { return m_pObject == nullptr; }
  bool operator!=(std::nullptr_t) const { return m_pObject != nullptr; }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
  bool operator==(U* object) const {
    return m_pObject == object;
  }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, const T*>>>
  bool operator!=(U* object) const {
    return m_pObject != object;
  }
  // Always false: all smart pointers are equivalent under ordering; callers rely on it.
  bool operator<(const VarnSmartPointer&) const { return false; }

  // Empties the smart pointer without releasing: its reference passes to the caller, who must
  // release it.
  T* getOwnership() {
    T* const object = m_pObject;
    m_pObject = nullptr;
    return object;
  }

 private:
  void share() {
    if (m_pObject != nullptr)
      m_pObject->addRef();
  }

  T* m_pObject = nullptr;
};

extern template class VarnSmartPointer<VarnObjectBase>;

// A marker base without behaviour.
class VSUPT_EXPORT VarnExemplar {
 public:
  VarnExemplar() = default;
  VarnExemplar(const VarnExemplar&) = default;
  VarnExemplar& operator=(const VarnExemplar&) = default;
  virtual ~VarnExemplar();
};

}  // namespace VarnSupport

#endif
