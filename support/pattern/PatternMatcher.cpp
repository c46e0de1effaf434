// How the parts work together: walk() makes walks until one comes to the end. Each begins with the
// first token (beginWalk()) and takes the others in turn (finishWalk()). A token that does not
// match takes matches off the stack (giveBack()). All three look at the text through a few
// questions: the first match from a position on, the end of a run, the last match before a
// position. What is learned about the text answers the last two, first the stretch that was seen
// last, then blocks.
//
// The order of the walks, and what they give back, is that of the plain method with one entry per
// match, since callers see which match is found; only the cost is another one.
#include "pattern/PatternMatcher.h"

#include <algorithm>
#include <cassert>

#include "pattern/PatternTrace.h"
#include "text/TextSearch.h"

namespace VarnSupport {

namespace {

// Below this a look for the token that is needed further on costs more than it saves.
constexpr std::size_t kLongText = 64;

}  // namespace

template <typename StringType>
bool PatternMatcher<StringType>::walk(std::size_t start) {
  const std::size_t first = m_oProgram.first;
  if (first >= m_oProgram.tokens.size() || m_oProgram.tokens[first].type == ExpressionToken::END ||
      start > m_sText.size())
    return false;
  if (m_oProgram.tokens[first].mayRepeat() && m_sText.size() - start >= kLongText)
    m_bHopeless = m_bHopeless || lacksRequired(start);
  m_nPosition = start;
  for (bool again = false; !m_bHopeless && beginWalk(); again = true) {
    if (finishWalk())
      return true;
    m_nPosition = m_nNextBegin;
    if (!again)
      m_bHopeless = m_bHopeless || lacksRequired(m_nPosition);
  }
  m_nRuns = 0;
  return false;
}

// Finds the first match. Only literals, and what may be absent, look further than the position.
template <typename StringType>
bool PatternMatcher<StringType>::beginWalk() {
  assert(m_nPosition <= m_sText.size() + 1);  // beyond the end after a match of nothing there
  const Token& token = m_oProgram.tokens[m_oProgram.first];
  const bool isLiteral = token.type == ExpressionToken::LITERAL_SEGMENT;
  if (isLiteral || token.mayBeAbsent()) {
    const std::size_t found = firstBegin(token, m_nPosition);
    if (isLiteral && m_bTraced)
      traceSearch(token, m_nPosition, found);
    if (found == kNone)
      return false;
    m_nPosition = found;
  } else if (!matchesHere(token)) {
    return false;
  }
  if (++m_nWalks == kPatience)
    beginLearning();
  m_nRuns = 0;
  push(m_oProgram.first);
  m_nNextBegin = token.mayRepeat() && widthOf(token) > 0 ? m_nPosition : m_pRuns[0].begin + 1;
  return true;
}

// Takes all further tokens. False when the walk has to begin anew further on.
template <typename StringType>
bool PatternMatcher<StringType>::finishWalk() {
  const std::size_t count = m_oProgram.tokens.size();
  for (std::size_t i = m_oProgram.first + 1; i < count; ++i) {
    const Token& token = m_oProgram.tokens[i];
    if (token.type == ExpressionToken::END)
      break;
    if (!matchesHere(token)) {
      if (token.mayBeAbsent())
        continue;
      const tOutcome outcome = giveBack(i);
      if (outcome == tOutcome::Passed)
        continue;
      if (outcome == tOutcome::Failed)
        return false;
    }
    push(i);
  }
  return true;
}

// Takes matches off the stack until the failed token matches where one of them began. A repetition
// that comes upon a run of its equal is satisfied by that run.
template <typename StringType>
auto PatternMatcher<StringType>::giveBack(std::size_t index) -> tOutcome {
  const Token& token = m_oProgram.tokens[index];
  const bool isAtEnd = m_nPosition == m_sText.size();
  // A fixed literal gives back nothing.
  if (m_nRuns == 1 && !isAtEnd && widthOf(m_oProgram.tokens[m_oProgram.first]) > 1)
    return tOutcome::Failed;
  bool isNowhere = false;  // between the bottom of the stack and the position
  std::size_t found = m_nPosition;
  for (bool sought = false;; sought = true) {
    assert(m_nRuns > 0);  // the bottom is fixed: the loop ends there
    Run& top = m_pRuns[m_nRuns - 1];
    const Token& topToken = m_oProgram.tokens[top.token];
    if (m_oProgram.areEqualRepeats(topToken, token))
      return tOutcome::Passed;
    if (!sought) {
      found = lastMatchBefore(index, m_nPosition);
      isNowhere = found == kNone;
    }
    if (found != kNone && found > top.begin && widthOf(topToken) > 1)
      found = lastMatchBefore(index, top.begin + 1);  // only where the literal begins
    if (found != kNone && found >= top.begin + (top.fixed ? 1 : 0)) {
      top.count = found - top.begin;
      if (top.count == 0)
        --m_nRuns;
      m_nPosition = found;
      return tOutcome::Matched;
    }
    if (top.fixed) {
      m_bHopeless = isAtEnd && isNowhere && token.factor == ExpressionToken::ONE;
      return tOutcome::Failed;
    }
    m_nPosition = top.begin;
    --m_nRuns;
  }
}

// Puts the match of a token at the position on the stack, with all its repetitions. A match of
// nothing is not repeated.
template <typename StringType>
void PatternMatcher<StringType>::push(std::size_t index) {
  const Token& token = m_oProgram.tokens[index];
  Run run{index, m_nPosition, 1, m_nRuns == 0};
  if (m_nRuns > 0 && token.factor == ExpressionToken::ONE_OR_MORE) {
    // The first repetition is as firm as what stands before it; callers rely on it.
    const Run& top = m_pRuns[m_nRuns - 1];
    run.fixed = top.fixed && top.count == 1 &&
                !m_oProgram.areEqualRepeats(m_oProgram.tokens[top.token], token);
  }
  const std::size_t width = widthOf(token);
  m_nPosition += width;
  if (token.mayRepeat() && width > 0) {
    m_nPosition = endOfHits(index, m_nPosition);
    run.count = m_nPosition - run.begin;
  }
  assert(m_nRuns < m_oProgram.tokens.size() && m_nPosition <= m_sText.size());
  m_pRuns[m_nRuns++] = run;
}

// Whether no match of the required token is left, which ends the search. Where the next one
// stands is looked up again only when walks have passed it.
template <typename StringType>
bool PatternMatcher<StringType>::lacksRequired(std::size_t from) {
  if (m_oProgram.required == kNone)
    return false;
  if (!m_bRequiredSought || m_nRequiredAt < from)
    m_nRequiredAt = firstMatch(m_oProgram.tokens[m_oProgram.required], from);
  m_bRequiredSought = true;
  return m_nRequiredAt == kNone;
}

template <typename StringType>
std::size_t PatternMatcher<StringType>::widthOf(const Token& token) const {
  return token.type == ExpressionToken::LITERAL_SEGMENT ? token.length : 1;
}

template <typename StringType>
bool PatternMatcher<StringType>::matchesHere(const Token& token) const {
  if (token.type == ExpressionToken::LITERAL_SEGMENT)
    return token.length == 0 || (m_sText.size() - m_nPosition >= token.length &&
                                 matchesAt(m_sText, m_nPosition, m_oProgram.textOf(token)));
  if (m_nPosition >= m_sText.size())
    return false;
  return token.type == ExpressionToken::ANY || token.set->accepts(m_sText[m_nPosition]);
}

// The first match of the first token with which a walk may come to the end.
template <typename StringType>
std::size_t PatternMatcher<StringType>::firstBegin(const Token& token, std::size_t from) const {
  if (m_oProgram.second == kNone || m_bTraced)
    return firstMatch(token, from);
  return searchPair(m_sText, m_oProgram.texts[token.begin],
                    m_oProgram.texts[m_oProgram.tokens[m_oProgram.second].begin],
                    m_oProgram.farthest, from);
}

template <typename StringType>
std::size_t PatternMatcher<StringType>::firstMatch(const Token& token, std::size_t from) const {
  if (from > m_sText.size())
    return kNone;
  if (token.type == ExpressionToken::LITERAL_SEGMENT) {
    const auto literal = m_oProgram.textOf(token);
    if (literal.empty())
      return from;
    return literal.size() == 1 ? m_sText.find(literal.front(), from)
                               : searchText(m_sText, literal, from);
  }
  if (token.type == ExpressionToken::ANY)
    return from < m_sText.size() ? from : kNone;
  const auto& set = *token.set;
  while (from < m_sText.size() && !set.accepts(m_sText[from]))
    ++from;
  return from < m_sText.size() ? from : kNone;
}

// The first position in [from, to) where a token of one character does not match, else `to`.
template <typename StringType>
std::size_t PatternMatcher<StringType>::firstMiss(const Token& token, std::size_t from,
                                                  std::size_t to) const {
  assert(widthOf(token) == 1 && to <= m_sText.size());
  if (token.type == ExpressionToken::ANY)
    return to;
  if (token.type == ExpressionToken::LITERAL_SEGMENT)
    return skipCharacter(m_sText.substr(0, to), m_oProgram.texts[token.begin], from);
  const auto& set = *token.set;
  while (from < to && set.accepts(m_sText[from]))
    ++from;
  return from;
}

// The last position in [from, to) where a token matches. Requires: the token is no empty literal.
template <typename StringType>
std::size_t PatternMatcher<StringType>::lastMatch(const Token& token, std::size_t from,
                                                  std::size_t to) const {
  assert(widthOf(token) > 0);
  // Matches of nothing stand on the stack even at the end of the text.
  to = std::min(to, m_sText.size() - std::min(m_sText.size(), widthOf(token) - 1));
  if (token.type == ExpressionToken::ANY)
    return to > from ? to - 1 : kNone;
  if (token.type == ExpressionToken::LITERAL_SEGMENT) {
    const auto literal = m_oProgram.textOf(token);
    while (to > from) {
      to = lastCharacter(m_sText, literal.front(), from, to);
      if (to == kNone || matchesAt(m_sText, to, literal))
        return to;
    }
    return kNone;
  }
  const auto& set = *token.set;
  while (to > from) {
    if (set.accepts(m_sText[--to]))
      return to;
  }
  return kNone;
}

// Few searches take more than a few walks: only then is room made, and work done, for what a walk
// can learn from those before it.
template <typename StringType>
void PatternMatcher<StringType>::beginLearning() {
  const std::size_t count = m_oProgram.tokens.size();
  if (count > kNearTokens)
    m_pFarKnown = std::make_unique_for_overwrite<Known[]>(count);
  m_pKnown = count > kNearTokens ? m_pFarKnown.get() : m_aNearKnown.data();
  std::fill_n(m_pKnown, count, Known{{kNone, 0}, {kNone, 0}});
}

// The first position at or after `from` where a token of one character does not match.
template <typename StringType>
std::size_t PatternMatcher<StringType>::endOfHits(std::size_t index, std::size_t from) {
  if (m_pKnown == nullptr)
    return firstMiss(m_oProgram.tokens[index], from, m_sText.size());
  Stretch& hits = m_pKnown[index].hits;
  if (from < hits.begin || from > hits.end)
    hits = {from, endOfHitsByBlocks(index, from)};
  return hits.end;
}

// The same, for a stretch that is not known: the rest of the block at `from` is looked at, whole
// blocks behind it are looked up, and the block that ends the stretch is looked at.
template <typename StringType>
std::size_t PatternMatcher<StringType>::endOfHitsByBlocks(std::size_t index, std::size_t from) {
  const Token& token = m_oProgram.tokens[index];
  const std::size_t near = std::min((from / kBlock + 1) * kBlock, m_sText.size());
  const std::size_t miss = firstMiss(token, from, near);
  if (miss < near || near == m_sText.size())
    return miss;
  const auto isHitThroughout = [&](std::ptrdiff_t block) {
    const std::size_t begin = static_cast<std::size_t>(block) * kBlock;
    return firstMiss(token, begin, begin + kBlock) == begin + kBlock;
  };
  const std::ptrdiff_t far =
      blocksOf(index).hits.firstOther(blockOf(near), blockOf(m_sText.size()), isHitThroughout);
  return firstMiss(token, static_cast<std::size_t>(far) * kBlock, m_sText.size());
}

// The last position before `to` where a token matches and a match may stand that can be given back:
// behind the bottom of the stack, unless that is empty. No later walk looks in front of it either.
template <typename StringType>
std::size_t PatternMatcher<StringType>::lastMatchBefore(std::size_t index, std::size_t to) {
  const Token& token = m_oProgram.tokens[index];
  assert(m_nRuns > 0);
  const Run& bottom = m_pRuns[0];
  const std::size_t from =
      bottom.begin + std::min<std::size_t>(widthOf(m_oProgram.tokens[bottom.token]), 1);
  if (m_pKnown == nullptr || token.type == ExpressionToken::ANY)
    return lastMatch(token, from, to);
  Stretch& misses = m_pKnown[index].misses;
  if (to < misses.begin || to > misses.end + kBlock)
    misses = {to, to};
  if (to > misses.end) {
    const std::size_t found = lastMatch(token, std::max(from, misses.end), to);
    misses.end = to;
    if (found != kNone) {
      misses.begin = found + 1;
      return found;
    }
  }
  if (misses.begin <= from)
    return kNone;
  const std::size_t found = lastMatchByBlocks(index, from, misses.begin);
  misses.begin = found == kNone ? from : found + 1;
  return found;
}

// The last match in [from, to), by the same steps backwards.
template <typename StringType>
std::size_t PatternMatcher<StringType>::lastMatchByBlocks(std::size_t index, std::size_t from,
                                                          std::size_t to) {
  const Token& token = m_oProgram.tokens[index];
  assert(from < to);
  const std::size_t near = std::max(from, (to - 1) / kBlock * kBlock);
  const std::size_t found = lastMatch(token, near, to);
  if (found != kNone || near == from)
    return found;
  const auto isMissThroughout = [&](std::ptrdiff_t block) {
    const std::size_t begin = static_cast<std::size_t>(block) * kBlock;
    return lastMatch(token, begin, begin + kBlock) == kNone;
  };
  const std::ptrdiff_t far =
      blocksOf(index).misses.firstOther(blockOf(near) - 1, blockOf(from) - 1, isMissThroughout);
  return far < blockOf(from) ? kNone
                             : lastMatch(token, from, (static_cast<std::size_t>(far) + 1) * kBlock);
}

template <typename StringType>
auto PatternMatcher<StringType>::blocksOf(std::size_t token) -> KnownBlocks& {
  assert(token < m_oProgram.tokens.size());
  if (m_pBlocks == nullptr)
    m_pBlocks = std::make_unique<KnownBlocks[]>(m_oProgram.tokens.size());
  return m_pBlocks[token];
}

template class PatternMatcher<std::string>;
template class PatternMatcher<std::wstring>;

}  // namespace VarnSupport
