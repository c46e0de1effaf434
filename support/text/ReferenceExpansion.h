// The expansion of <name> references, whatever the names stand for.
#ifndef SUPPORT_TEXT_REFERENCEEXPANSION_H
#define SUPPORT_TEXT_REFERENCEEXPANSION_H

#include <functional>
#include <string>

namespace VarnSupport {

// The value of an environment variable, empty when it is not set.
std::string environmentValue(const std::string& name);

// `text` with each <name> replaced by what `valueOf` gives for it, and that expanded in turn. Logs
// what it does at level 9, as VarnExpandString. An expansion that never ends can be cancelled.
// Requires: cancellation is closed.
std::string expandReferences(const std::string& text,
                             const std::function<std::string(const std::string& name)>& valueOf);

}  // namespace VarnSupport

#endif
