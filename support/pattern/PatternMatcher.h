// The stack walk that finds a pattern in a text.
#ifndef SUPPORT_PATTERN_PATTERNMATCHER_H
#define SUPPORT_PATTERN_PATTERNMATCHER_H

#include <array>
#include <cassert>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "pattern/AlikeBlocks.h"
#include "pattern/PatternProgram.h"

namespace VarnSupport {

// Searches in one text, each from where the one before began or later. Program and text must
// outlive it.
//
// The match stack is kept as runs: all entries that one token left, end to end. A walk never comes
// back to a token, so that there is at most one run of each. Giving back the entries of a run one
// by one until the failed token matches is a search backwards through the run.
//
// A walk that fails starts again further on. When the first token repeats, that is behind its run:
// a walk from within the run would reach the same end, and then fail at the latest where this one
// failed, as there is less to give back.
//
// So that no text takes longer than one step for each of its characters and each token, what is
// learned about the text is kept, after a few walks, for each token: the stretch along which it
// matched last, the one in which it was last found nowhere, and, when these get long, all such
// stretches by blocks. A step then looks at two blocks at most, and at no other block twice. What
// matches is found by the same steps, whatever is known.
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
  std::size_t position() const {
    assert(m_nRuns > 0);
    return m_pRuns[0].begin;
  }
  std::size_t length() const { return m_nPosition - position(); }
  bool anchorsHold(std::size_t start) const {
    const auto& tokens = m_oProgram.tokens;
    return (tokens.front().type != ExpressionToken::BEGIN || position() == start) &&
           (tokens.back().type != ExpressionToken::END || m_nPosition == m_sText.size());
  }

  bool isTraced() const { return m_bTraced; }
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

  // The part [begin, end) of the text.
  struct Stretch {
    std::size_t begin;
    std::size_t end;
  };

  // What is known about a token. The stretches of hits end where the token does not match.
  struct Known {
    Stretch hits;
    Stretch misses;
  };
  struct KnownBlocks {
    AlikeBlocks<1> hits;
    AlikeBlocks<-1> misses;
  };

  bool beginWalk();
  bool finishWalk();
  tOutcome giveBack(std::size_t token);
  void push(std::size_t token);
  bool lacksRequired(std::size_t from);
  std::size_t widthOf(const Token& token) const;

  bool matchesHere(const Token& token) const;
  std::size_t firstBegin(const Token& token, std::size_t from) const;
  std::size_t firstMatch(const Token& token, std::size_t from) const;
  std::size_t firstMiss(const Token& token, std::size_t from, std::size_t to) const;
  std::size_t lastMatch(const Token& token, std::size_t from, std::size_t to) const;

  void beginLearning();
  std::size_t endOfHits(std::size_t token, std::size_t from);
  std::size_t endOfHitsByBlocks(std::size_t token, std::size_t from);
  std::size_t lastMatchBefore(std::size_t token, std::size_t to);
  std::size_t lastMatchByBlocks(std::size_t token, std::size_t from, std::size_t to);
  KnownBlocks& blocksOf(std::size_t token);
  static std::ptrdiff_t blockOf(std::size_t position) {
    return static_cast<std::ptrdiff_t>(position / kBlock);
  }
  void traceSearch(const Token& token, std::size_t from, std::size_t found) const;

  static constexpr std::size_t kNone = Program::kNone;
  static constexpr std::size_t kNearTokens = 32;
  static constexpr std::size_t kBlock = 64;
  static constexpr unsigned int kPatience = 4;  // walks until learning begins

  const Program& m_oProgram;
  const std::basic_string_view<CharT> m_sText;
  const bool m_bTraced;
  bool m_bHopeless = false;           // no walk further on can come to the end
  bool m_bRequiredSought = false;     // the next is known:
  std::size_t m_nRequiredAt = kNone;  // where the program's required token is found next
  unsigned int m_nWalks = 0;
  std::size_t m_nPosition = 0;
  std::size_t m_nNextBegin = 0;  // of the walk after this one
  std::size_t m_nRuns = 0;
  // Room for patterns of ordinary length, so that an ordinary search allocates nothing.
  std::array<Run, kNearTokens> m_aNearRuns;
  std::array<Known, kNearTokens> m_aNearKnown;
  std::unique_ptr<Run[]> m_pFarRuns;
  std::unique_ptr<Known[]> m_pFarKnown;
  std::unique_ptr<KnownBlocks[]> m_pBlocks;
  Run* m_pRuns = m_aNearRuns.data();
  Known* m_pKnown = nullptr;  // null until learning begins
};

extern template class PatternMatcher<std::string>;
extern template class PatternMatcher<std::wstring>;

}  // namespace VarnSupport

#endif
