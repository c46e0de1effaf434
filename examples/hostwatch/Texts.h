// The texts of hostwatch in the language of its environment.
#ifndef HOSTWATCH_TEXTS_H
#define HOSTWATCH_TEXTS_H

#include <VarnSupport/VarnSupport.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace hostwatch {

class Texts {
 public:
  // Throws VarnException when there are no message files at all.
  Texts();

  // The message with its <name> references replaced by the given values.
  std::string text(const std::string& key,
                   std::initializer_list<std::pair<std::string, std::string>> values = {}) const;

 private:
  VarnSupport::VarnMessageSet m_oMessages;
};

}  // namespace hostwatch

#endif
