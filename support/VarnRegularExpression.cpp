#include "VarnSupport/VarnRegularExpression.h"

#include <tuple>
#include <utility>

#include "BriefHold.h"
#include "Cancellation.h"
#include "PatternMatcher.h"
#include "PatternProgram.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

namespace {

constexpr int kTraceLevel = 9;

struct Match {
  std::size_t position;
  std::size_t length;
};

// Returns whether there is a match that the anchors let pass. One that they refuse fills `match`
// too.
template <typename StringType>
bool search(const PatternProgram<StringType>& program, const StringType& text, std::size_t start,
            Match& match) {
  const bool traced = VarnLogging::admits(kTraceLevel);
  PatternMatcher<StringType> matcher(program, text, traced);
  bool found = matcher.walk(start);
  if (traced)
    matcher.traceStack();
  if (!found)
    return false;
  match = {matcher.position(), matcher.length()};
  found = matcher.anchorsHold(start);
  if (found && traced)
    VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::find: match found at "
                               << match.position;
  return found;
}

}  // namespace

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::VarnRegularExpressionImplementation() = default;

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::VarnRegularExpressionImplementation(
    const VarnRegularExpressionImplementation& source) {
  const CancellationGuard closed;
  std::tie(m_sPattern, m_pProgram) = source.snapshot();
}

template <typename StringType>
auto VarnRegularExpressionImplementation<StringType>::operator=(
    const VarnRegularExpressionImplementation& source) -> VarnRegularExpressionImplementation& {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  auto [pattern, program] = source.snapshot();
  const BriefHold hold(m_oLock);
  m_sPattern.swap(pattern);
  m_pProgram.swap(program);
  return *this;
}

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::~VarnRegularExpressionImplementation() {
  const QuietCancellationGuard closed;
  m_pProgram.reset();
  m_sPattern = StringType();
}

template <typename StringType>
auto VarnRegularExpressionImplementation<StringType>::currentProgram() const
    -> std::shared_ptr<const Program> {
  const BriefHold hold(m_oLock);
  return m_pProgram;
}

template <typename StringType>
auto VarnRegularExpressionImplementation<StringType>::snapshot() const
    -> std::pair<StringType, std::shared_ptr<const Program>> {
  const BriefHold hold(m_oLock);
  return {m_sPattern, m_pProgram};
}

template <typename StringType>
bool VarnRegularExpressionImplementation<StringType>::compile(const StringType& pattern,
                                                              std::string& error) {
  const CancellationGuard closed;
  auto program = std::make_shared<Program>();
  const char* const fault = program->compile(pattern);
  std::shared_ptr<const Program> replaced = std::move(program);
  {
    const BriefHold hold(m_oLock);
    if (fault == nullptr)
      m_sPattern = pattern;
    m_pProgram.swap(replaced);
  }
  if (fault != nullptr)
    error = fault;
  return fault == nullptr;
}

template <typename StringType>
unsigned int VarnRegularExpressionImplementation<StringType>::find(const StringType& text,
                                                                   unsigned int& length,
                                                                   unsigned int start) const {
  const CancellationGuard closed;
  const std::shared_ptr<const Program> program = currentProgram();
  Match match{npos, 0};  // as it stays when nothing matches
  if (program == nullptr)
    return npos;
  const bool found = search(*program, text, start, match);
  if (match.position >= npos || match.length > npos)
    return npos;
  length = static_cast<unsigned int>(match.length);
  return found ? static_cast<unsigned int>(match.position) : npos;
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
  const auto [pattern, program] = snapshot();
  VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::print: pattern " << pattern;
  if (program == nullptr)
    return;
  for (const ExpressionToken& token : program->list())
    VarnLogRecord(kTraceLevel) << "VarnRegularExpressionImplementation::print: type "
                               << static_cast<int>(token.type) << ", factor "
                               << static_cast<int>(token.factor) << ", segment " << token.segment;
}

template <typename StringType>
VarnRegularExpression<StringType>::VarnRegularExpression() = default;

template <typename StringType>
VarnRegularExpression<StringType>::VarnRegularExpression(const VarnRegularExpression& source)
    : VarnRegularExpressionImplementation<StringType>(source) {}

template <typename StringType>
auto VarnRegularExpression<StringType>::operator=(const VarnRegularExpression& source)
    -> VarnRegularExpression& {
  const CancellationGuard closed;
  const VarnCriticalSection inUse(m_oUseLock);
  VarnRegularExpressionImplementation<StringType>::operator=(source);
  return *this;
}

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
  const CancellationGuard closed;
  const BriefHold inUse(m_oUseLock);  // the lock of the base nests inside it, never around it
  return this->compile(pattern, error);
}

template <typename StringType>
StringType VarnRegularExpression<StringType>::match(const StringType& text,
                                                    unsigned int start) const {
  const CancellationGuard closed;
  unsigned int length = 0;
  const unsigned int position = this->find(text, length, start);
  return position == this->npos ? StringType() : text.substr(position, length);
}

// Works on the original text: no match looks at anything before `start`, so that what is replaced
// need not be there when the rest is searched.
template <typename StringType>
StringType VarnRegularExpression<StringType>::replace(const StringType& text,
                                                      const StringType& replacement,
                                                      Occurrence occurrence,
                                                      unsigned int start) const {
  const CancellationGuard closed;
  const VarnCriticalSection inUse(m_oUseLock);
  StringType result;
  std::size_t done = 0;
  std::size_t from = start;
  while (from <= text.size() && from < this->npos) {
    unsigned int length = 0;
    const unsigned int position = this->find(text, length, static_cast<unsigned int>(from));
    if (position == this->npos)
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
