// Patterns on which all sides agree: compiled, and searched for in texts that are drawn.
#include <memory>
#include <regex>
#include <string_view>

#include "Data.h"
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

struct Subject {
  std::string pattern;
  std::string text;
};
using Bench::Draw;

// What the patterns do not look for, in front of `end`: words, letters in no order, or log lines.
std::string fill(Draw& draw, std::size_t size, const std::string& end = "") {
  static const std::vector<std::string> words = {"the ",   "old ", "house ", "stands ",
                                                 "on ",    "a ",   "hill ",  "near ",
                                                 "river ", "and ", "there "};
  std::string text;
  while (text.size() + end.size() < size) {
    const std::string pieces[] = {
        draw.oneOf(words), draw.text(8, 8, "abcdefghijklmnoprstuvw"),
        Bench::joined({"2024", draw.text(4, 4, "0123"), " INFO  [", draw.text(3, 3, "456789"),
                       "] served ", draw.text(1, 5, "abcdef"), "\t"})};
    text += Bench::ofShape(pieces);
  }
  text.resize(size - end.size());
  return text + end;
}

// Letters of a large, a small or a middle alphabet, without an "a" close before a "c".
std::string letters(Draw& draw, std::size_t size) {
  const std::string alphabets[] = {"abcdefghijklmnopqrstuvwxyz", "abcd", "aeiouc st"};
  std::string text;
  while (text.size() < size) {
    const char letter = draw.oneOf(Bench::ofShape(alphabets));
    const std::size_t a = text.rfind('a');
    if (letter != 'c' || a == std::string::npos || text.size() - a > 2)
      text += letter;
  }
  return text;
}

// Of letters that the text has.
std::string needle(Draw& draw) {
  const std::string needles[] = {draw.text(6, 8, "thelodsanir"),
                                 draw.text(6, 12, "abcdefghijklmnop"),
                                 Bench::joined({"served ", draw.text(6, 8, "abcdef")})};
  return Bench::ofShape(needles);
}

struct Case {
  const char* name;
  Subject (*make)(Draw& draw);
};

const Case g_aCases[] = {
    {"literal in 1 KiB",
     [](Draw& draw) {
       const std::string wanted = needle(draw);
       return Subject{wanted, fill(draw, 1024, wanted)};
     }},
    {"absent literal in 1 KiB",
     [](Draw& draw) {
       return Subject{needle(draw), fill(draw, 1024)};
     }},
    {"any in 1 KiB",
     [](Draw& draw) {
       return Subject{"q.z", fill(draw, 1024, "qaz")};
     }},
    {"log line",
     [](Draw& draw) {
       static constexpr std::string_view digits("0123456789");
       return Subject{
           "error [0-9]+:",
           Bench::joined({"20240131_23:59:59 5 ", draw.text(4, 10), " [", draw.text(3, 6, digits),
                          "] run: error ", draw.text(2, 6, digits), ": the disk is full"})};
     }},
    {"set run",
     [](Draw& draw) {
       return Subject{"[0-9]+", draw.text(10, 18, "0123456789") + " the rest of a line"};
     }},
    {"key",
     [](Draw& draw) {
       return Subject{"^[a-zA-Z_]+=", draw.text(12, 24, "abcdefghijklmnopq_RSTU") + "=30"};
     }},
    {"a.c absent in letters",
     [](Draw& draw) {
       return Subject{"a.c", letters(draw, 1024)};
     }},
    {"x*y behind a longer run",
     [](Draw& draw) {
       return Subject{
           "x*y", Bench::joined({draw.text(400, 600, "x"), "z", draw.text(400, 500, "x"), "y"})};
     }},
    {"x*y absent",
     [](Draw& draw) {
       return Subject{"x*y", fill(draw, 1024)};
     }},
    {"x*y found",
     [](Draw& draw) {
       return Subject{"x*y", fill(draw, 1024, "xxxy")};
     }},
};

// What std::regex finds is right.
template <typename Side>
void find(benchmark::State& state, const Subject& subject, std::int64_t units) {
  const Side expression(subject.pattern);
  Bench::measure(state, units, Standard(subject.pattern).find(subject.text),
                 [&] { return expression.find(subject.text); });
}

template <typename Side>
void compile(benchmark::State& state) {
  Draw draw("compiled");
  const std::string word = draw.text(3, 8);
  const std::string patterns[] = {Bench::joined({word, " [0-9]+:"}),
                                  Bench::joined({"^[a-z_]+=", word}),
                                  Bench::joined({word, ".*end[^x]?"})};
  const std::string& pattern = Bench::ofShape(patterns);
  const std::string text = Bench::joined({"text_=", word, " 7:end"});
  Bench::require(state, Side(pattern).find(text) == Standard(pattern).find(text));
  for (auto _ : state) {
    const Side expression(pattern);
    benchmark::DoNotOptimize(&expression);
  }
}

template <typename Side>
void add(const std::string& side) {
  Workload("pattern, compile").alsoInVarnThread().side(side, compile<Side>);
  for (const Case& row : g_aCases) {
    Workload(std::string("pattern, ") + row.name)
        .alsoInVarnThread()
        .side(side, [&row](benchmark::State& state) {
          Draw draw(row.name);
          find<Side>(state, row.make(draw), 1);
        });
  }
  for (const std::size_t size : {1024U, 10240U, 102400U}) {
    Workload("growth of find, per byte of " + std::to_string(size))
        .side(side, [size](benchmark::State& state) {
          Draw draw("growth");
          find<Side>(state, {"q.z", fill(draw, size, "qaz")}, static_cast<std::int64_t>(size));
        });
  }
}

// Of a literal only.
class WithMemmem {
 public:
  explicit WithMemmem(const std::string& literal) : m_sLiteral(literal) {}

  std::size_t find(const std::string& text) const {
    const void* const found =
        memmem(text.data(), text.size(), m_sLiteral.data(), m_sLiteral.size());
    return found == nullptr
               ? kNone
               : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
  }

 private:
  std::string m_sLiteral;
};

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
    Draw draw(g_aCases[0].name);
    find<WithMemmem>(state, g_aCases[0].make(draw), 1);
  });
  return true;
}();

}  // namespace
