// Patterns on which all sides agree: compiled, and searched for in texts.
#include <memory>
#include <regex>
#include <string_view>

#include "Workload.h"

#ifdef PEER_RE2
#include <re2/re2.h>
#endif
#ifdef PEER_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#endif

namespace {

using Bench::Workload;

constexpr std::size_t kNone = std::string::npos;

class Ours {
 public:
  explicit Ours(const std::string& pattern) { m_oExpression.setPattern(pattern); }

  std::size_t find(const std::string& text) const {
    unsigned int length = 0;
    const unsigned int position = m_oExpression.find(text, length, 0);
    return position == decltype(m_oExpression)::npos ? kNone : position;
  }

 private:
  VarnSupport::VarnRegularExpression<std::string> m_oExpression;
};

class Standard {
 public:
  explicit Standard(const std::string& pattern) : m_oExpression(pattern) {}

  std::size_t find(const std::string& text) const {
    std::smatch match;
    return std::regex_search(text, match, m_oExpression)
               ? static_cast<std::size_t>(match.position())
               : kNone;
  }

 private:
  std::regex m_oExpression;
};

#ifdef PEER_RE2
class WithRe2 {
 public:
  explicit WithRe2(const std::string& pattern) : m_oExpression(pattern, RE2::Quiet) {}

  std::size_t find(const std::string& text) const {
    re2::StringPiece match;
    if (!m_oExpression.Match(text, 0, text.size(), RE2::UNANCHORED, &match, 1))
      return kNone;
    return static_cast<std::size_t>(match.data() - text.data());
  }

 private:
  RE2 m_oExpression;
};
#endif

#ifdef PEER_PCRE2
template <bool jit>
class WithPcre2 {
 public:
  explicit WithPcre2(const std::string& pattern) {
    int error = 0;
    PCRE2_SIZE offset = 0;
    m_pCode = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), 0, &error,
                            &offset, nullptr);
    if (jit)
      pcre2_jit_compile(m_pCode, PCRE2_JIT_COMPLETE);
    m_pMatch = pcre2_match_data_create(1, nullptr);
  }
  WithPcre2(const WithPcre2&) = delete;
  WithPcre2& operator=(const WithPcre2&) = delete;
  ~WithPcre2() {
    pcre2_match_data_free(m_pMatch);
    pcre2_code_free(m_pCode);
  }

  std::size_t find(const std::string& text) const {
    const auto* const subject = reinterpret_cast<PCRE2_SPTR>(text.data());
    const int result = jit ? pcre2_jit_match(m_pCode, subject, text.size(), 0, 0, m_pMatch, nullptr)
                           : pcre2_match(m_pCode, subject, text.size(), 0, 0, m_pMatch, nullptr);
    return result > 0 ? pcre2_get_ovector_pointer(m_pMatch)[0] : kNone;
  }

 private:
  pcre2_code* m_pCode;
  pcre2_match_data* m_pMatch;
};
#endif

struct Case {
  const char* name;
  std::string pattern;
  std::string text;
  std::size_t position;
};

// Words without the letters that the patterns look for, filled up in front of `end`.
std::string words(std::size_t size, const std::string& end) {
  std::string text;
  while (text.size() + end.size() < size)
    text += "the old house stands on a hill near the river ";
  text.resize(size - end.size());
  return text + end;
}

// Letters in no order, without an "a" close before a "c".
std::string letters(std::size_t size) {
  std::string text;
  for (unsigned int state = 1; text.size() < size;) {
    state = state * 1103515245 + 12345;
    const char letter = static_cast<char>('a' + (state >> 16) % 26);
    const std::size_t a = text.rfind('a');
    if (letter != 'c' || a == std::string::npos || text.size() - a > 2)
      text += letter;
  }
  return text;
}

const Case g_aCases[] = {
    {"pattern, literal in 1 KiB", "needle", words(1024, "needle"), 1018},
    {"pattern, absent literal in 1 KiB", "needle", words(1024, ""), kNone},
    {"pattern, any in 1 KiB", "q.z", words(1024, "qaz"), 1021},
    {"pattern, log line",
     "error [0-9]+:", "20240131_23:59:59 5 Worker     [123] run: error 1042: the disk is full", 42},
    {"pattern, set run", "[0-9]+", "20240131235959 the rest of a line", 0},
    {"pattern, key", "^[a-zA-Z_]+=", "connection_timeout=30", 0},
    {"pattern, a.c absent in letters", "a.c", letters(1024), kNone},
    {"pattern, x*y behind a longer run", "x*y",
     std::string(500, 'x') + "z" + std::string(500, 'x') + "y", 501},
    {"pattern, x*y absent", "x*y", words(1024, ""), kNone},
    {"pattern, x*y found", "x*y", words(1024, "xxxy"), 1020},
};

template <typename Side>
void add(const std::string& side) {
  Workload("pattern, compile").side(side, [](benchmark::State& state) {
    const std::string pattern("error [0-9]+:");
    Bench::require(state, Side(pattern).find("error 7:") == 0);
    for (auto _ : state) {
      const Side expression(pattern);
      benchmark::DoNotOptimize(&expression);
    }
  });
  for (const Case& row : g_aCases) {
    Workload(row.name).side(side, [&row](benchmark::State& state) {
      const Side expression(row.pattern);
      Bench::measure(state, 1, row.position, [&] { return expression.find(row.text); });
    });
  }
  for (const std::size_t size : {1024U, 10240U, 102400U}) {
    Workload("growth of find, per byte of " + std::to_string(size))
        .side(side, [size](benchmark::State& state) {
          const Side expression("q.z");
          const std::string text = words(size, "qaz");
          Bench::measure(state, static_cast<std::int64_t>(size), size - 3,
                         [&] { return expression.find(text); });
        });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  add<Standard>("std");
#ifdef PEER_RE2
  add<WithRe2>("RE2");
#endif
#ifdef PEER_PCRE2
  add<WithPcre2<false>>("PCRE2");
  add<WithPcre2<true>>("PCRE2 JIT");
#endif
  Workload("pattern, literal in 1 KiB").side("limit: memmem", [](benchmark::State& state) {
    const Case& row = g_aCases[0];
    Bench::measure(state, 1, row.position, [&] {
      const void* const found =
          memmem(row.text.data(), row.text.size(), row.pattern.data(), row.pattern.size());
      return static_cast<std::size_t>(static_cast<const char*>(found) - row.text.data());
    });
  });
  return true;
}();

}  // namespace
