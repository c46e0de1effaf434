// Exceptions that leave functions of users, and are dropped.
#ifndef SUPPORT_THREADS_UNCAUGHT_H
#define SUPPORT_THREADS_UNCAUGHT_H

#include <functional>
#include <string>

namespace VarnSupport {

// Both are called in the handler of the exception, after passOnCancellation(), and never unwind.
class Uncaught {
 public:
  // Says whose function it was. May fail, and need not be asked.
  using tOrigin = std::function<std::string()>;

  // Tells the handler that is set, if there is one.
  static void tell(const tOrigin& origin) noexcept;
  // The same, after a record of level 1.
  static void report(const tOrigin& origin) noexcept;
};

}  // namespace VarnSupport

#endif
