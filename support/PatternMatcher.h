// The stack walk that finds a pattern in a text.
#ifndef SUPPORT_PATTERNMATCHER_H
#define SUPPORT_PATTERNMATCHER_H

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "PatternProgram.h"

namespace VarnSupport {

// One search. Program and text must outlive it.
//
// The match stack is kept as runs: all entries that one token left, end to end. A walk never comes
// back to a token, so that there is at most one run of each, and memory does not depend on the
// text. Giving back the entries of a run one by one until the failed token matches is a search
// backwards through the run.
//
// A walk that fails starts again one character further. After a few of them, what is learned about
// stretches of the text is kept: how far a run reaches, and where in a run another token has no
// match. Walks over the same stretch then cost a few steps each instead of its length, so that a
// megabyte that does not match takes time in proportion. What matches is found by the same steps,
// whatever is known.
template <typename StringType>
class PatternMatcher {
 public:
  using Program = PatternProgram<StringType>;
  using Implementation = VarnRegularExpressionImplementation<StringType>;

  // With `traced`, searches for literals are written to the log.
  PatternMatcher(const Program& program, const StringType& text, bool traced)
      : m_oProgram(program), m_sText(text), m_bTraced(traced) {
    if (program.tokens.size() > kNearTokens) {
      m_pFarRuns = std::make_unique_for_overwrite<Run[]>(program.tokens.size());
      m_pRuns = m_pFarRuns.get();
    }
  }
  PatternMatcher(const PatternMatcher&) = delete;
  PatternMatcher& operator=(const PatternMatcher&) = delete;

  // False when no walk from `start` on comes to the end of the tokens with a match on the stack.
  bool walk(std::size_t start);

  // After a walk to the end. Whether the anchors hold is another question.
  std::size_t position() const { return m_pRuns[0].begin; }
  std::size_t length() const { return m_nPosition - m_pRuns[0].begin; }
  bool anchorsHold(std::size_t start) const {
    const auto& tokens = m_oProgram.tokens;
    return (tokens.front().type != ExpressionToken::BEGIN || position() == start) &&
           (tokens.back().type != ExpressionToken::END || m_nPosition == m_sText.size());
  }

  // Writes the match stack to the log.
  void traceStack() const;

 private:
  using Token = typename Program::Token;
  using ExpressionToken = typename Program::ExpressionToken;
  using CharT = typename Program::CharT;

  enum class tOutcome { Matched, Passed, Failed };

  struct Run {
    std::size_t token;
    std::size_t begin;
    std::size_t count;  // of entries; more than one only when they are one character long
    bool fixed;         // the first entry cannot be given back
  };

  // Known about a token and the run of an earlier one: the token has no match at [begin, end).
  // About a token and its own run: it matches at all of [begin, end) and not at the end.
  struct Stretch {
    std::size_t key;
    std::size_t begin;
    std::size_t end;
  };

  bool beginWalk();
  bool finishWalk();
  tOutcome giveBack(std::size_t token);
  void push(std::size_t token);
  bool lacksRequired(std::size_t from) const;
  void learnFromFailure();
  Stretch& stretchOf(std::size_t token, std::size_t runToken);
  std::size_t widthOf(const Token& token) const;

  bool matchesHere(const Token& token) const;
  std::size_t firstMatch(const Token& token, std::size_t from) const;
  std::size_t firstMiss(const Token& token, std::size_t from) const;
  std::size_t lastMatch(const Token& token, std::size_t from, std::size_t to) const;
  std::size_t knownFirstMiss(std::size_t token, std::size_t from);
  std::size_t lastMatchIn(const Run& run, std::size_t token);
  void traceSearch(const Token& token, std::size_t from, std::size_t found) const;

  static constexpr std::size_t kNone = Program::kNone;
  static constexpr std::size_t kNearTokens = 32;
  static constexpr std::size_t kStretches = 256;
  static constexpr unsigned int kPatience = 4;  // failed walks until learning begins

  const Program& m_oProgram;
  const std::basic_string_view<CharT> m_sText;
  const bool m_bTraced;
  unsigned int m_nFailures = 0;
  bool m_bHopeless = false;  // no walk further on can come to the end
  std::size_t m_nPosition = 0;
  std::size_t m_nRuns = 0;
  // Room for patterns of ordinary length, so that a search allocates nothing.
  std::array<Run, kNearTokens> m_aNearRuns;
  std::array<Stretch, kStretches> m_aStretches;
  std::unique_ptr<Run[]> m_pFarRuns;
  Run* m_pRuns = m_aNearRuns.data();
};

extern template class PatternMatcher<std::string>;
extern template class PatternMatcher<std::wstring>;

}  // namespace VarnSupport

#endif
