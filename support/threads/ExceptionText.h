// What an exception says; VarnWhat() is the rest of it.
#ifndef SUPPORT_THREADS_EXCEPTIONTEXT_H
#define SUPPORT_THREADS_EXCEPTIONTEXT_H

#include <string>

namespace VarnSupport {

// The type of the exception that is being handled, and after ": " what VarnWhat() says of it; for
// what is not of a class of exceptions, the latter alone. Requires: there is one.
std::string describeException();

}  // namespace VarnSupport

#endif
