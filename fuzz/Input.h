// What the fuzz targets share: an input taken apart, and checks whose failure ends the run.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : m_sRest(data, data + size) {}

  bool isEmpty() const { return m_sRest.empty(); }
  // 0 at the end.
  unsigned byte() { return static_cast<unsigned char>(text(1)[0]); }
  // Up to the next line feed, or the end.
  std::string line() {
    std::string line = text(m_sRest.find('\n'));
    m_sRest.erase(0, 1);
    return line;
  }
  std::string rest() { return text(m_sRest.size()); }

 private:
  std::string text(std::size_t length) {
    std::string taken = m_sRest.substr(0, length);
    m_sRest.erase(0, length);
    return taken;
  }

  std::string m_sRest;
};

inline void require(bool holds, const char* rule) {
  if (holds)
    return;
  std::fprintf(stderr, "broken: %s\n", rule);
  std::abort();
}

#endif
