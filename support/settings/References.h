// <name> references in a text, found in one pass.
#ifndef SUPPORT_SETTINGS_REFERENCES_H
#define SUPPORT_SETTINGS_REFERENCES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace VarnSupport {

// Calls `onText` with what stands between references and `onReference` with their names, which are
// one or more characters other than '<' and '>'.
template <typename OnText, typename OnReference>
void walkReferences(std::string_view text, OnText onText, OnReference onReference) {
  std::size_t open = text.find('<');
  std::size_t done = 0;
  while (open != text.npos) {
    const std::size_t close = text.find_first_of("<>", open + 1);
    if (close == text.npos)
      break;
    if (text[close] == '<' || close == open + 1) {
      open = text.find('<', close);
      continue;
    }
    onText(text.substr(done, open - done));
    onReference(text.substr(open + 1, close - open - 1));
    done = close + 1;
    open = text.find('<', done);
  }
  onText(text.substr(done));
}

}  // namespace VarnSupport

#endif
