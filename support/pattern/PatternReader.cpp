// One pass over the text, one token at a time. A token is gathered at the end of the program's
// texts or members, where it stays: nothing is copied once the token is finished.
//
// What looks like an accident of the grammar is kept on purpose, as patterns in the field depend on
// it: a sign behind several characters repeats the last one alone, even out of a set; a set that is
// not closed ends where a literal would; and a NUL cuts what is gathered.
#include "pattern/PatternReader.h"

#include <algorithm>
#include <cassert>

namespace VarnSupport {

namespace {

// For how many tokens, and ranges of sets, room is made at once.
constexpr std::size_t kExpected = 4;

constexpr char kEmptySet[] = "empty set in pattern";
constexpr char kLoneEscape[] = "bad escape expression";
constexpr char kOpenEscape[] = "bad regular expression";
constexpr char kWrongRange[] = "invalid endpoint in range";
constexpr char kOpenRange[] = "end of expression found in pattern";
constexpr char kMisplacedEnd[] = "end token found inside expression";

// Reads a pattern from left to right. The functions return null, or what is wrong.
template <typename StringType>
class PatternReader {
 public:
  using Program = PatternProgram<StringType>;
  using CharT = typename Program::CharT;
  using ExpressionToken = typename Program::ExpressionToken;
  using tType = typename ExpressionToken::tType;
  using tFactor = typename ExpressionToken::tFactor;

  PatternReader(const StringType& pattern, Program& program)
      : m_sPattern(pattern), m_oProgram(program) {}

  const char* read() {
    m_oProgram.tokens.reserve(kExpected);
    while (!atEnd()) {
      if (const char* const fault = readToken())
        return fault;
    }
    return nullptr;
  }

 private:
  const char* readToken();
  const char* readSet();
  const char* gather(tType type);
  void gatherPlainText();
  const char* gatherRange();
  const char* gatherEscape();
  bool endsToken(CharT c) const { return c == '$' || c == '.' || c == '['; }
  bool isSign(CharT c) const { return c == '*' || c == '+' || c == '?'; }
  bool atEnd() const { return m_nPosition == m_sPattern.size(); }
  tFactor readFactor();

  void begin(tType type);
  bool isEmpty() const;
  bool hasSeveral() const;
  void add(CharT c);
  CharT takeLast();
  void finish(tFactor factor);
  void finishSet();

  const StringType& m_sPattern;
  Program& m_oProgram;
  std::size_t m_nPosition = 0;
  typename Program::Token m_oToken{};  // being read
};

// A "^" is an anchor at the very beginning, and text elsewhere; a "$" is an anchor at the very end,
// and refused elsewhere.
template <typename StringType>
const char* PatternReader<StringType>::readToken() {
  assert(!atEnd());
  const CharT c = m_sPattern[m_nPosition];
  const bool isLast = m_nPosition + 1 == m_sPattern.size();
  if (c == '\\' && isLast)
    return kLoneEscape;
  if (c == '$' && !isLast)
    return kMisplacedEnd;
  const bool isBegin = c == '^' && m_nPosition == 0;
  if (c != '$' && c != '.' && c != '[' && !isBegin)
    return gather(ExpressionToken::LITERAL_SEGMENT);
  ++m_nPosition;
  if (c == '[')
    return readSet();
  begin(isBegin ? ExpressionToken::BEGIN : c == '$' ? ExpressionToken::END : ExpressionToken::ANY);
  finish(readFactor());
  return nullptr;
}

// A "]" right behind the beginning is no member: the set is empty, and refused.
template <typename StringType>
const char* PatternReader<StringType>::readSet() {
  const auto isEmptyHere = [this] { return atEnd() || m_sPattern[m_nPosition] == ']'; };
  if (isEmptyHere())
    return kEmptySet;
  if (m_oProgram.members.empty())
    m_oProgram.members.reserve(kExpected);
  if (m_sPattern[m_nPosition] != '^')
    return gather(ExpressionToken::IN_SET);
  ++m_nPosition;
  if (isEmptyHere())
    return kEmptySet;
  return gather(ExpressionToken::NOT_IN_SET);
}

// Gathers the text of a literal or the members of a set. What ends a literal ends a set that is
// still open, too; callers rely on it.
template <typename StringType>
const char* PatternReader<StringType>::gather(tType type) {
  begin(type);
  if (type == ExpressionToken::LITERAL_SEGMENT)
    gatherPlainText();
  bool closed = false;
  while (!atEnd() && !closed) {
    const CharT c = m_sPattern[m_nPosition];
    if (endsToken(c) || isSign(c))
      break;
    ++m_nPosition;
    const char* fault = nullptr;
    if (c == '\\')
      fault = gatherEscape();
    else if (c == '-' && m_oToken.isSet())
      fault = gatherRange();
    else if (c == ']' && m_oToken.isSet())
      closed = true;
    else
      add(c);
    if (fault != nullptr)
      return fault;
  }
  if (!closed && !atEnd() && isSign(m_sPattern[m_nPosition]) && hasSeveral()) {
    // The sign is for the last character alone, a literal even when it was the member of a set.
    const CharT last = takeLast();
    finish(ExpressionToken::ONE);
    begin(ExpressionToken::LITERAL_SEGMENT);
    add(last);
  }
  finish(readFactor());
  return nullptr;
}

// Takes over the characters of a literal as far as they stand for themselves.
template <typename StringType>
void PatternReader<StringType>::gatherPlainText() {
  const std::size_t from = m_nPosition;
  while (!atEnd() && !endsToken(m_sPattern[m_nPosition]) && !isSign(m_sPattern[m_nPosition]) &&
         m_sPattern[m_nPosition] != '\\')
    ++m_nPosition;
  m_oProgram.texts.append(m_sPattern, from, m_nPosition - from);
}

// Stretches the last range up to the character behind the "-", which stands for itself where a set
// begins.
template <typename StringType>
const char* PatternReader<StringType>::gatherRange() {
  if (atEnd())
    return kOpenRange;
  if (isEmpty()) {
    add('-');
    return nullptr;
  }
  const std::int32_t end = signedValue(m_sPattern[m_nPosition++]);
  CharacterRange& last = m_oProgram.members.back();
  assert(last.low <= last.high);
  if (last.high > end)
    return kWrongRange;
  last.high = end;
  return nullptr;
}

template <typename StringType>
const char* PatternReader<StringType>::gatherEscape() {
  if (atEnd())
    return kOpenEscape;
  const CharT c = m_sPattern[m_nPosition++];
  switch (c) {
    case 'b':
      add('\b');
      break;
    case 'f':
      add('\f');
      break;
    case 'n':
      add('\n');
      break;
    case 'r':
      add('\r');
      break;
    case 't':
      add('\t');
      break;
    case '0':
    case '^':
    case 'e':
    case 'x':
      break;  // stands for nothing; callers rely on it
    default:
      add(c);
  }
  return nullptr;
}

template <typename StringType>
auto PatternReader<StringType>::readFactor() -> tFactor {
  if (atEnd() || !isSign(m_sPattern[m_nPosition]))
    return ExpressionToken::ONE;
  const CharT sign = m_sPattern[m_nPosition++];
  return sign == '+'   ? ExpressionToken::ONE_OR_MORE
         : sign == '?' ? ExpressionToken::ZERO_OR_ONE
                       : ExpressionToken::ZERO_OR_MORE;
}

// Gathers behind what the token before has gathered.
template <typename StringType>
void PatternReader<StringType>::begin(tType type) {
  m_oToken = {};
  m_oToken.type = type;
  m_oToken.begin = m_oToken.isSet() ? m_oProgram.members.size() : m_oProgram.texts.size();
}

template <typename StringType>
bool PatternReader<StringType>::isEmpty() const {
  return (m_oToken.isSet() ? m_oProgram.members.size() : m_oProgram.texts.size()) == m_oToken.begin;
}

// True when more than one character was gathered.
template <typename StringType>
bool PatternReader<StringType>::hasSeveral() const {
  if (!m_oToken.isSet())
    return m_oProgram.texts.size() - m_oToken.begin > 1;
  const std::size_t ranges = m_oProgram.members.size() - m_oToken.begin;
  return ranges > 1 ||
         (ranges == 1 && m_oProgram.members.back().low < m_oProgram.members.back().high);
}

// Members that follow one another are one range, so that sets that were gathered
// alike have the same ranges.
template <typename StringType>
void PatternReader<StringType>::add(CharT c) {
  if (!m_oToken.isSet()) {
    m_oProgram.texts += c;
    return;
  }
  auto& members = m_oProgram.members;
  const std::int32_t value = signedValue(c);
  if (!isEmpty() && value > members.back().high && value - 1 == members.back().high)
    members.back().high = value;
  else
    members.push_back({value, value});
}

// Takes back the character that was gathered last.
template <typename StringType>
auto PatternReader<StringType>::takeLast() -> CharT {
  assert(!isEmpty());
  if (!m_oToken.isSet()) {
    const CharT last = m_oProgram.texts.back();
    m_oProgram.texts.pop_back();
    return last;
  }
  CharacterRange& range = m_oProgram.members.back();
  const auto last = static_cast<CharT>(range.high);
  if (range.low == range.high)
    m_oProgram.members.pop_back();
  else
    --range.high;
  return last;
}

// Appends the token, its text cut at the first NUL.
template <typename StringType>
void PatternReader<StringType>::finish(tFactor factor) {
  m_oToken.factor = factor;
  if (m_oToken.isSet()) {
    finishSet();
  } else {
    StringType& texts = m_oProgram.texts;
    texts.resize(std::min(texts.find(CharT(), m_oToken.begin), texts.size()));
    m_oToken.length = texts.size() - m_oToken.begin;
  }
  m_oProgram.tokens.push_back(m_oToken);
}

// Cuts the members at the first NUL, as a literal is cut; of a range that holds NUL the part below
// it stays.
template <typename StringType>
void PatternReader<StringType>::finishSet() {
  auto& members = m_oProgram.members;
  const auto first = members.begin() + static_cast<std::ptrdiff_t>(m_oToken.begin);
  const auto cut = std::find_if(first, members.end(), [](const CharacterRange& range) {
    return range.low <= 0 && range.high >= 0;
  });
  if (cut != members.end()) {
    const bool keepsFront = cut->low < 0;
    cut->high = -1;
    members.erase(keepsFront ? cut + 1 : cut, members.end());
  }
  assert(m_oToken.begin <= members.size());
  m_oToken.length = members.size() - m_oToken.begin;
  m_oToken.set = &m_oProgram.sets.emplace_front(members.data() + m_oToken.begin, m_oToken.length,
                                                m_oToken.type == ExpressionToken::NOT_IN_SET);
}

}  // namespace

template <typename StringType>
const char* readPattern(const StringType& text, PatternProgram<StringType>& program) {
  assert(program.tokens.empty() && program.texts.empty() && program.members.empty());
  const char* const fault = PatternReader<StringType>(text, program).read();
  program.finish();
  return fault;
}

template const char* readPattern(const std::string&, PatternProgram<std::string>&);
template const char* readPattern(const std::wstring&, PatternProgram<std::wstring>&);

}  // namespace VarnSupport
