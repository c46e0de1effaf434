// A replacement may hold references, begin one that ends behind it, or end one that began before
// it, so each search starts again at the beginning. Nothing before a reference that was found holds
// a '<', though: that part is finished and moves out. The rest is kept backwards, so that taking
// from its front and putting a replacement there costs the length of what moves. The whole is
// linear in the text and its replacements.
#include "text/ReferenceExpansion.h"

#include <pthread.h>

#include <cassert>
#include <cstdlib>

#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

void trace(const char* step, const std::string& value) {
  OwnRecords::write(OwnRecords::TRACE, "VarnExpandString: ", step, value);
}

// Replacements may bring references for ever: a thread that is killed leaves between two of them.
void letCancellationBegin() {
  const BlockingCall cancellable;
  pthread_testcancel();
}

}  // namespace

std::string environmentValue(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value != nullptr ? std::string(value) : std::string();
}

std::string expandReferences(const std::string& text,
                             const std::function<std::string(const std::string& name)>& valueOf) {
  trace("expand = ", text);
  std::string finished;
  std::string backwards(text.rbegin(), text.rend());
  while (true) {
    const std::size_t open = backwards.rfind('<');
    if (open == std::string::npos)
      break;
    const std::size_t close = backwards.rfind('>', open);
    if (close == std::string::npos)
      break;
    assert(close < open);  // backwards, what follows stands in front
    const auto begin = backwards.rbegin();
    const auto reference = backwards.rend() - static_cast<std::ptrdiff_t>(open) - 1;
    finished.append(begin, reference);
    const std::string name(reference + 1,
                           backwards.rend() - static_cast<std::ptrdiff_t>(close) - 1);
    trace("Lookup ", name);
    const std::string value = valueOf(name);
    backwards.resize(close);
    backwards.append(value.rbegin(), value.rend());
    letCancellationBegin();
  }
  finished.append(backwards.rbegin(), backwards.rend());
  trace("result = ", finished);
  return finished;
}

}  // namespace VarnSupport
