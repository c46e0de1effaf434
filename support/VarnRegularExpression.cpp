#include "VarnSupport/VarnRegularExpression.h"

#include <memory>
#include <utility>

#include "Cancellation.h"
#include "PatternMatcher.h"
#include "PatternProgram.h"
#include "SharedProgram.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

namespace {

constexpr int kTraceLevel = 9;

constexpr unsigned int npos = VarnRegularExpressionImplementation<std::string>::npos;

// One search, as find() of the class.
template <typename StringType>
unsigned int findWith(PatternMatcher<StringType>& matcher, unsigned int& length,
                      std::size_t start) {
  const bool matched = matcher.walk(start);
  if (matcher.isTraced())
    matcher.traceStack();
  if (!matched || matcher.position() >= npos || matcher.length() > npos)
    return npos;
  length = static_cast<unsigned int>(matcher.length());
  if (!matcher.anchorsHold(start))
    return npos;
  if (matcher.isTraced())
    VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::find: match found at "
                               << matcher.position();
  return static_cast<unsigned int>(matcher.position());
}

}  // namespace

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::VarnRegularExpressionImplementation() = default;

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::VarnRegularExpressionImplementation(
    const VarnRegularExpressionImplementation& source) {
  *this = source;
}

template <typename StringType>
auto VarnRegularExpressionImplementation<StringType>::operator=(
    const VarnRegularExpressionImplementation& source) -> VarnRegularExpressionImplementation& {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  const Program copied(source.m_nProgram);
  using Copy = typename Program::Program;
  Program::replace(m_nProgram, copied.get() != nullptr ? std::make_unique<Copy>(*copied)
                                                       : std::make_unique<Copy>());
  return *this;
}

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::~VarnRegularExpressionImplementation() {
  const QuietCancellationGuard closed;
  Program::clear(m_nProgram);
}

template <typename StringType>
bool VarnRegularExpressionImplementation<StringType>::compile(const StringType& pattern,
                                                              std::string& error) {
  const CancellationGuard closed;
  auto program = std::make_unique<typename Program::Program>();
  const char* const fault = program->compile(pattern);
  if (fault == nullptr)
    program->pattern = pattern;
  else if (const Program replaced(m_nProgram); replaced.get() != nullptr)
    program->pattern = replaced->pattern;
  Program::replace(m_nProgram, std::move(program));
  if (fault != nullptr)
    error = fault;
  return fault == nullptr;
}

template <typename StringType>
unsigned int VarnRegularExpressionImplementation<StringType>::find(const StringType& text,
                                                                   unsigned int& length,
                                                                   unsigned int start) const {
  const CancellationGuard closed;
  const Program program(m_nProgram);
  if (program.get() == nullptr)
    return npos;
  PatternMatcher<StringType> matcher(*program, text, VarnLogging::admits(kTraceLevel));
  return findWith(matcher, length, start);
}

template <typename StringType>
unsigned int VarnRegularExpressionImplementation<StringType>::find(const StringType& text,
                                                                   unsigned int start) const {
  unsigned int length = 0;
  return find(text, length, start);
}

template <typename StringType>
void VarnRegularExpressionImplementation<StringType>::print() const {
  if (!VarnLogging::admits(kTraceLevel))
    return;
  const CancellationGuard closed;
  const Program program(m_nProgram);
  const bool isEmpty = program.get() == nullptr;
  VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::print: pattern "
                             << (isEmpty ? StringType() : program->pattern);
  if (isEmpty)
    return;
  for (const ExpressionToken& token : program->list())
    VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::print: type "
                               << static_cast<int>(token.type) << ", factor "
                               << static_cast<int>(token.factor) << ", segment " << token.segment;
}

template <typename StringType>
VarnRegularExpression<StringType>::VarnRegularExpression() = default;

template <typename StringType>
VarnRegularExpression<StringType>::VarnRegularExpression(const VarnRegularExpression& source) =
    default;

template <typename StringType>
auto VarnRegularExpression<StringType>::operator=(const VarnRegularExpression& source)
    -> VarnRegularExpression& = default;

template <typename StringType>
VarnRegularExpression<StringType>::~VarnRegularExpression() = default;

template <typename StringType>
void VarnRegularExpression<StringType>::setPattern(const StringType& pattern) {
  const CancellationGuard closed;
  std::string error;
  if (!setPatternImpl(pattern, error))
    throw VarnException(error, 0);
}

template <typename StringType>
bool VarnRegularExpression<StringType>::setPatternImpl(const StringType& pattern,
                                                       std::string& error) {
  return this->compile(pattern, error);
}

template <typename StringType>
StringType VarnRegularExpression<StringType>::match(const StringType& text,
                                                    unsigned int start) const {
  const CancellationGuard closed;
  unsigned int length = 0;
  const unsigned int position = this->find(text, length, start);
  return position == npos ? StringType() : text.substr(position, length);
}

// Works with one program, and on the original text: no match looks at anything before `start`, so
// that what is replaced need not be there when the rest is searched. One matcher makes all
// searches, as each learns from those before it.
template <typename StringType>
StringType VarnRegularExpression<StringType>::replace(const StringType& text,
                                                      const StringType& replacement,
                                                      Occurrence occurrence,
                                                      unsigned int start) const {
  const CancellationGuard closed;
  const typename VarnRegularExpression::Program program(this->m_nProgram);
  if (program.get() == nullptr)
    return text;
  PatternMatcher<StringType> matcher(*program, text, VarnLogging::admits(kTraceLevel));
  StringType result;
  std::size_t done = 0;
  std::size_t from = start;
  while (from <= text.size() && from < npos) {
    unsigned int length = 0;
    const unsigned int position = findWith(matcher, length, from);
    if (position == npos)
      break;
    result.append(text, done, position - done);
    result += replacement;
    done = std::size_t{position} + length;
    from = length == 0 ? done + 1 : done;  // an empty match is not found twice
    if (occurrence != ALL_OCCURRENCES)
      break;
  }
  return result.append(text, done);
}

template class VarnRegularExpressionImplementation<std::string>;
template class VarnRegularExpressionImplementation<std::wstring>;
template class VarnRegularExpression<std::string>;
template class VarnRegularExpression<std::wstring>;

}  // namespace VarnSupport
