// What a search writes to the log at level 9. The match stack is kept as runs, but shown as the
// list of single matches that it stands for.
#ifndef SUPPORT_PATTERN_PATTERNTRACE_H
#define SUPPORT_PATTERN_PATTERNTRACE_H

#include <cstddef>

#include "log/OwnRecords.h"
#include "pattern/PatternMatcher.h"

namespace VarnSupport {

template <typename StringType>
void PatternMatcher<StringType>::traceSearch(const Token& token, std::size_t from,
                                             std::size_t found) const {
  OwnRecords::write(OwnRecords::TRACE, StringType(m_sText), ".find (",
                    StringType(m_oProgram.textOf(token)), ", ", from,
                    ") = ", static_cast<unsigned int>(found));
}

// Lists the runs as the single entries they stand for. An entry links back to the index of the
// entry below it; the first entry of a ONE_OR_MORE repetition takes over the link of that entry.
template <typename StringType>
void PatternMatcher<StringType>::traceStack() const {
  const auto listed = m_oProgram.list();
  OwnRecords::write(OwnRecords::TRACE,
                    "VarnRegularExpressionImplementation::find: match stack begin");
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
      OwnRecords::write(OwnRecords::TRACE, entry.text, " at ", entry.position, ", length ",
                        entry.length, ", back-link ", entry.backLink, ", type ",
                        static_cast<int>(entry.token.type), ", factor ",
                        static_cast<int>(entry.token.factor));
    }
  }
  OwnRecords::write(OwnRecords::TRACE,
                    "VarnRegularExpressionImplementation::find: match stack end");
}

}  // namespace VarnSupport

#endif
