// An expression is one word (ProgramSlot) that holds the program of its pattern. A search takes the
// program that is current when it begins and keeps it to its end, so that patterns may be set while
// others search. compile() builds the new program aside and puts it in place at once; the one that
// it replaces goes with the last search that uses it.
#include "VarnSupport/VarnRegularExpression.h"

#include <memory>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "log/OwnRecords.h"
#include "pattern/PatternMatcher.h"
#include "pattern/PatternReader.h"
#include "pattern/ProgramSlot.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

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
    OwnRecords::write(OwnRecords::TRACE,
                      "VarnRegularExpressionImplementation::find: match found at ",
                      matcher.position());
  return static_cast<unsigned int>(matcher.position());
}

}  // namespace

// A copy gets a program of its own: the takes of a program are counted in the one word that holds
// it.
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
  const ProgramUse<StringType> copied(source.m_nProgram);
  using Slot = ProgramSlot<StringType>;
  using Entry = typename Slot::Entry;
  Slot(m_nProgram)
      .replace(copied.isEmpty() ? std::make_unique_for_overwrite<Entry>()
                                : std::make_unique<Entry>(*copied));
  return *this;
}

template <typename StringType>
VarnRegularExpressionImplementation<StringType>::~VarnRegularExpressionImplementation() {
  const QuietCancellationGuard closed;
  ProgramSlot<StringType>(m_nProgram).clear();
}

// A pattern with a fault leaves the tokens before the fault in force, and the text of the pattern
// as it was.
template <typename StringType>
bool VarnRegularExpressionImplementation<StringType>::compile(const StringType& pattern,
                                                              std::string& error) {
  const CancellationGuard closed;
  using Slot = ProgramSlot<StringType>;
  auto made = std::make_unique_for_overwrite<typename Slot::Entry>();
  const char* const fault = readPattern(pattern, made->program);
  if (fault == nullptr)
    made->program.pattern = pattern;
  else if (const ProgramUse<StringType> replaced(m_nProgram); !replaced.isEmpty())
    made->program.pattern = replaced->pattern;
  Slot(m_nProgram).replace(std::move(made));
  if (fault != nullptr)
    error = fault;
  return fault == nullptr;
}

template <typename StringType>
unsigned int VarnRegularExpressionImplementation<StringType>::find(const StringType& text,
                                                                   unsigned int& length,
                                                                   unsigned int start) const {
  const CancellationGuard closed;
  const ProgramUse<StringType> program(m_nProgram);
  if (program.isEmpty())
    return npos;
  PatternMatcher<StringType> matcher(*program, text, OwnRecords::areWanted(OwnRecords::TRACE));
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
  if (!OwnRecords::areWanted(OwnRecords::TRACE))
    return;
  const CancellationGuard closed;
  const ProgramUse<StringType> program(m_nProgram);
  OwnRecords::write(OwnRecords::TRACE, "VarnRegularExpressionImplementation::print: pattern ",
                    program.isEmpty() ? StringType() : program->pattern);
  if (program.isEmpty())
    return;
  for (const ExpressionToken& token : program->list())
    OwnRecords::write(OwnRecords::TRACE, "VarnRegularExpressionImplementation::print: type ",
                      static_cast<int>(token.type), ", factor ", static_cast<int>(token.factor),
                      ", segment ", token.segment);
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
  const ProgramUse<StringType> program(this->m_nProgram);
  if (program.isEmpty())
    return text;
  PatternMatcher<StringType> matcher(*program, text, OwnRecords::areWanted(OwnRecords::TRACE));
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
