#include "PatternMatcher.h"

#include <algorithm>

#include "TextSearch.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

namespace {

constexpr int kTraceLevel = 9;
// Below this a look for the literal that is needed further on costs more than it saves.
constexpr std::size_t kLongText = 64;

}  // namespace

template <typename StringType>
bool PatternMatcher<StringType>::walk(std::size_t start) {
  const std::size_t first = m_oProgram.first;
  if (first >= m_oProgram.tokens.size() || m_oProgram.tokens[first].type == ExpressionToken::END ||
      start > m_sText.size())
    return false;
  if (m_oProgram.tokens[first].mayRepeat() && m_sText.size() - start >= kLongText &&
      lacksRequired(start))
    return false;
  m_nPosition = start;
  while (beginWalk()) {
    if (finishWalk())
      return true;
    m_nPosition = m_pRuns[0].begin + 1;
    learnFromFailure();
    if (m_bHopeless)
      break;
  }
  m_nRuns = 0;
  return false;
}

// Finds the first match. Only literals, and what may be absent, look further than the position.
template <typename StringType>
bool PatternMatcher<StringType>::beginWalk() {
  const Token& token = m_oProgram.tokens[m_oProgram.first];
  const bool isLiteral = token.type == ExpressionToken::LITERAL_SEGMENT;
  if (isLiteral || token.mayBeAbsent()) {
    const std::size_t found = firstMatch(token, m_nPosition);
    if (isLiteral && m_bTraced)
      traceSearch(token, m_nPosition, found);
    if (found == kNone)
      return false;
    m_nPosition = found;
  } else if (!matchesHere(token)) {
    return false;
  }
  m_nRuns = 0;
  push(m_oProgram.first);
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
// that comes upon its equal is satisfied by that one.
template <typename StringType>
auto PatternMatcher<StringType>::giveBack(std::size_t index) -> tOutcome {
  const Token& token = m_oProgram.tokens[index];
  // Whether it matches nowhere further on, from the bottom of the stack to the end of the text.
  bool nowhere = token.factor == ExpressionToken::ONE && m_nPosition == m_sText.size();
  while (true) {
    Run& top = m_pRuns[m_nRuns - 1];
    const Token& topToken = m_oProgram.tokens[top.token];
    if (m_oProgram.areEqualRepeats(topToken, token))
      return tOutcome::Passed;
    const std::size_t found = lastMatchIn(top, index);
    if (found != kNone) {
      top.count = found - top.begin;
      if (top.count == 0)
        --m_nRuns;
      m_nPosition = found;
      return tOutcome::Matched;
    }
    if (top.fixed) {
      m_bHopeless = nowhere && lastMatch(token, m_pRuns[0].begin + 1, top.begin + 1) == kNone;
      return tOutcome::Failed;
    }
    nowhere = nowhere && lastMatch(token, top.begin + 1, top.begin + widthOf(topToken)) == kNone;
    m_nPosition = top.begin;
    --m_nRuns;
  }
}

// Puts the match of a token at the position on the stack, with all its repetitions. One that
// matches nothing is not repeated.
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
    m_nPosition = knownFirstMiss(index, m_nPosition);
    run.count = m_nPosition - run.begin;
  }
  m_pRuns[m_nRuns++] = run;
}

template <typename StringType>
bool PatternMatcher<StringType>::lacksRequired(std::size_t from) const {
  return m_oProgram.required != kNone &&
         firstMatch(m_oProgram.tokens[m_oProgram.required], from) == kNone;
}

template <typename StringType>
void PatternMatcher<StringType>::learnFromFailure() {
  ++m_nFailures;
  if (m_nFailures == 1 && lacksRequired(m_nPosition))
    m_bHopeless = true;
  if (m_nFailures == kPatience)
    m_aStretches.fill({kNone, 0, 0});
}

// What is known so far, or nothing. In patterns of many tokens pairs share places, and forget.
template <typename StringType>
auto PatternMatcher<StringType>::stretchOf(std::size_t token, std::size_t runToken) -> Stretch& {
  const std::size_t key = token * m_oProgram.tokens.size() + runToken;
  Stretch& stretch = m_aStretches[key % kStretches];
  if (stretch.key != key)
    stretch = {key, kNone, 0};
  return stretch;
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

// The first position at or after `from` where a token of one character does not match.
template <typename StringType>
std::size_t PatternMatcher<StringType>::firstMiss(const Token& token, std::size_t from) const {
  if (token.type == ExpressionToken::ANY)
    return m_sText.size();
  if (token.type == ExpressionToken::LITERAL_SEGMENT)
    return skipCharacter(m_sText, m_oProgram.texts[token.begin], from);
  const auto& set = *token.set;
  while (from < m_sText.size() && set.accepts(m_sText[from]))
    ++from;
  return from;
}

// The last position in [from, to) where a token matches. Requires: it is not an empty literal.
template <typename StringType>
std::size_t PatternMatcher<StringType>::lastMatch(const Token& token, std::size_t from,
                                                  std::size_t to) const {
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

template <typename StringType>
std::size_t PatternMatcher<StringType>::knownFirstMiss(std::size_t token, std::size_t from) {
  if (m_nFailures < kPatience)
    return firstMiss(m_oProgram.tokens[token], from);
  Stretch& hits = stretchOf(token, token);
  if (from < hits.begin || from > hits.end) {
    hits.begin = from;
    hits.end = firstMiss(m_oProgram.tokens[token], from);
  }
  return hits.end;
}

// The last entry of a run that may be given back and where a later token matches.
template <typename StringType>
std::size_t PatternMatcher<StringType>::lastMatchIn(const Run& run, std::size_t token) {
  const std::size_t from = run.begin + (run.fixed ? 1 : 0);
  const std::size_t to = run.begin + run.count;
  if (m_nFailures < kPatience || run.count == 1)
    return lastMatch(m_oProgram.tokens[token], from, to);
  Stretch& misses = stretchOf(token, run.token);
  if (to < misses.begin || to > misses.end)
    misses.begin = misses.end = to;
  if (from >= misses.begin)
    return kNone;
  const std::size_t found = lastMatch(m_oProgram.tokens[token], from, misses.begin);
  misses.begin = found == kNone ? from : found + 1;
  return found;
}

template <typename StringType>
void PatternMatcher<StringType>::traceSearch(const Token& token, std::size_t from,
                                             std::size_t found) const {
  VarnLogRecord(kTraceLevel) << StringType(m_sText) << ".find ("
                             << StringType(m_oProgram.textOf(token)) << ", " << from
                             << ") = " << static_cast<unsigned int>(found);
}

template <typename StringType>
void PatternMatcher<StringType>::traceStack() const {
  const auto listed = m_oProgram.list();
  VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::find: match stack begin";
  std::size_t index = 0;
  int previousLink = -1;
  for (std::size_t i = 0; i < m_nRuns; ++i) {
    const Run& run = m_pRuns[i];
    const Token& token = m_oProgram.tokens[run.token];
    const bool takesOverLink =
        i > 0 && token.factor == ExpressionToken::ONE_OR_MORE &&
        !m_oProgram.areEqualRepeats(m_oProgram.tokens[m_pRuns[i - 1].token], token);
    for (std::size_t k = 0; k < run.count; ++k, ++index) {
      if (k > 0 || !takesOverLink)
        previousLink = static_cast<int>(index) - 1;
      const std::size_t width = widthOf(token);
      const typename Implementation::MatchToken entry{
          StringType(m_sText.substr(run.begin + k, width)),
          static_cast<unsigned int>(run.begin + k), static_cast<unsigned int>(width), previousLink,
          listed[run.token]};
      VarnLogRecord(kTraceLevel) << entry.text << " at " << entry.position << ", length "
                                 << entry.length << ", back-link " << entry.backLink << ", type "
                                 << static_cast<int>(entry.token.type) << ", factor "
                                 << static_cast<int>(entry.token.factor);
    }
  }
  VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::find: match stack end";
}

template class PatternMatcher<std::string>;
template class PatternMatcher<std::wstring>;

}  // namespace VarnSupport
