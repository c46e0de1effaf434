#include "PatternProgram.h"

#include <algorithm>
#include <iterator>

namespace VarnSupport {

namespace {

// Room for that many tokens, and ranges of sets, is made at once.
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

template <typename StringType>
const char* PatternReader<StringType>::readToken() {
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

template <typename StringType>
auto PatternReader<StringType>::takeLast() -> CharT {
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
  m_oToken.length = members.size() - m_oToken.begin;
  m_oToken.set = &m_oProgram.sets.emplace_front(members.data() + m_oToken.begin, m_oToken.length,
                                                m_oToken.type == ExpressionToken::NOT_IN_SET);
}

void include(CharacterMap& map, std::size_t low, std::size_t high) {
  std::fill(map.begin() + low, map.begin() + high + 1, true);
}

void invert(CharacterMap& map) {
  for (bool& accepted : map)
    accepted = !accepted;
}

// Sorts ranges and merges those that overlap.
void makeDisjoint(std::vector<CharacterRange>& ranges) {
  std::sort(
      ranges.begin(), ranges.end(),
      [](const CharacterRange& left, const CharacterRange& right) { return left.low < right.low; });
  std::size_t kept = 0;
  for (const CharacterRange& range : ranges) {
    if (kept > 0 && range.low <= ranges[kept - 1].high)
      ranges[kept - 1].high = std::max(ranges[kept - 1].high, range.high);
    else
      ranges[kept++] = range;
  }
  ranges.resize(kept);
}

}  // namespace

// A narrow range is either negative or positive, and so without a gap among the unsigned values.
NarrowSet::NarrowSet(const CharacterRange* members, std::size_t count, bool negated) {
  for (std::size_t i = 0; i < count; ++i)
    include(m_aMap, static_cast<unsigned char>(members[i].low),
            static_cast<unsigned char>(members[i].high));
  if (negated)
    invert(m_aMap);
}

WideSet::WideSet(const CharacterRange* members, std::size_t count, bool negated)
    : m_bNegated(negated) {
  constexpr std::int32_t firstBeyond = std::tuple_size_v<CharacterMap>;
  for (std::size_t i = 0; i < count; ++i) {
    const auto [low, high] = members[i];
    if (low < 0) {
      m_vBeyond.push_back(members[i]);
      continue;
    }
    if (low < firstBeyond)
      include(m_aMap, static_cast<std::size_t>(low),
              static_cast<std::size_t>(std::min(high, firstBeyond - 1)));
    if (high >= firstBeyond)
      m_vBeyond.push_back({std::max(low, firstBeyond), high});
  }
  if (negated)
    invert(m_aMap);
  makeDisjoint(m_vBeyond);
}

bool WideSet::acceptsBeyondMap(std::int32_t value) const {
  const auto behind = std::upper_bound(
      m_vBeyond.begin(), m_vBeyond.end(), value,
      [](std::int32_t wanted, const CharacterRange& range) { return wanted < range.low; });
  const bool isMember = behind != m_vBeyond.begin() && value <= std::prev(behind)->high;
  return isMember != m_bNegated;
}

template <typename StringType>
PatternProgram<StringType>::PatternProgram() = default;

template <typename StringType>
PatternProgram<StringType>::PatternProgram(const PatternProgram& source)
    : ProgramMemory(),
      pattern(source.pattern),
      texts(source.texts),
      first(source.first),
      required(source.required),
      second(source.second),
      farthest(source.farthest) {
  members = source.members;
  tokens = source.tokens;
  for (Token& token : tokens) {
    if (token.isSet())
      token.set = &sets.emplace_front(*token.set);
  }
}

template <typename StringType>
PatternProgram<StringType>::~PatternProgram() = default;

template <typename StringType>
const char* PatternProgram<StringType>::compile(const StringType& text) {
  tokens.reserve(kExpected);
  const char* const fault = PatternReader<StringType>(text, *this).read();
  first = !tokens.empty() && tokens.front().type == ExpressionToken::BEGIN ? 1 : 0;
  findLiterals();
  return fault;
}

// Matches in between may be given back, down to the first token.
template <typename StringType>
void PatternProgram<StringType>::findLiterals() {
  bool isClose = first < tokens.size() && isFirmLiteral(tokens[first]) && tokens[first].length == 1;
  std::size_t reach = 1;
  for (std::size_t i = first + 1; i < tokens.size(); ++i) {
    const Token& token = tokens[i];
    if (isFirmLiteral(token)) {
      required = i;
      if (isClose) {
        second = i;
        farthest = reach;
      }
      isClose = false;
    }
    ++reach;
    isClose = isClose && !token.mayRepeat() && reach <= kClose;
  }
}

template <typename StringType>
bool PatternProgram<StringType>::areAlike(const Token& left, const Token& right) const {
  if (!left.isSet())
    return textOf(left) == textOf(right);
  return std::equal(members.data() + left.begin, members.data() + left.begin + left.length,
                    members.data() + right.begin);
}

template <typename StringType>
auto PatternProgram<StringType>::list() const -> std::vector<ExpressionToken> {
  std::vector<ExpressionToken> listed;
  for (const Token& token : tokens) {
    ExpressionToken& entry = listed.emplace_back(ExpressionToken{token.type, token.factor, {}});
    if (!token.isSet()) {
      entry.segment = textOf(token);
      continue;
    }
    for (std::size_t i = token.begin; i < token.begin + token.length; ++i) {
      for (std::int64_t value = members[i].low;
           value <= members[i].high && entry.segment.size() < kListedMembers; ++value)
        entry.segment += static_cast<CharT>(value);
    }
  }
  return listed;
}

template struct PatternProgram<std::string>;
template struct PatternProgram<std::wstring>;

}  // namespace VarnSupport
