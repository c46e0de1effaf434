// Exceptions that leave functions of users, and are dropped.
#ifndef SUPPORT_THREADS_UNCAUGHT_H
#define SUPPORT_THREADS_UNCAUGHT_H

#include <functional>
#include <string>

namespace VarnSupport {

// All are called in the handler of the exception, after passOnCancellation(), and never unwind.
class Uncaught {
 public:
  // May fail, and need not be asked.
  using tText = std::function<std::string()>;

  // Tells the handler that is set, if there is one. `origin` says whose function it was.
  static void tell(const tText& origin) noexcept;
  // The same, after a record of level 1: that an exception has left the function, or another text.
  static void report(const tText& origin) noexcept;
  static void report(const tText& origin, const tText& record) noexcept;
};

}  // namespace VarnSupport

#endif
