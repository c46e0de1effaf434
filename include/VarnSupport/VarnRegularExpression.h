// A small pattern matcher for narrow and wide text.
//
//   abc      literal text                  [a-z_]   one of the characters, ranges included
//   .        any character                 [^a-z]   any other character
//   * + ?    any number, at least one, at most one of the single character or set before it
//   ^ $      first and last in the pattern: the match begins at `start`, ends with the text
//   \b \f \n \r \t   control characters    \0 \^ \e \x   nothing    \c   any other character c
//
// There are no groups and no alternatives, and matching is a stack walk of its own, not the usual
// backtracking: giving back a match gives its text to the token that failed, so that "a.c" matches
// "ac" and ".*a" does not match "ab". Only literal text, and what may repeat no times, look for
// their first match beyond `start`: "[a-c]" finds nothing in "xb". Callers rely on all of this.
//
// Any number of threads may search with one object while others set its pattern; a search works on
// the pattern of the moment it began. A bad pattern is reported; no match is npos, never an error.
#ifndef VARNSUPPORT_VARNREGULAREXPRESSION_H
#define VARNSUPPORT_VARNREGULAREXPRESSION_H

#include <atomic>
#include <cstdint>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// The searching half of VarnRegularExpression.
template <typename StringType>
class VSUPT_EXPORT VarnRegularExpressionImplementation {
 public:
  // One token of a pattern, as print() lists it.
  struct ExpressionToken {
    enum tType : int {
      IN_SET = 0,
      NOT_IN_SET = 1,
      LITERAL_SEGMENT = 2,
      ANY = 3,
      BEGIN = 4,
      END = 5
    };
    enum tFactor : int { ONE = 0, ZERO_OR_ONE = 1, ZERO_OR_MORE = 2, ONE_OR_MORE = 3 };

    tType type;
    tFactor factor;
    StringType segment;  // the literal text, or the members of a set with ranges expanded
  };

  // One entry of the match stack, as the trace of a search lists it.
  struct MatchToken {
    StringType text;
    unsigned int position;
    unsigned int length;
    int backLink;  // an earlier entry; -1 when backtracking may not undo this one
    const ExpressionToken& token;
  };

  static constexpr unsigned int npos = ~0U;

  // Never matches until a pattern is compiled.
  VarnRegularExpressionImplementation();
  // The copy has the source's pattern of that moment.
  VarnRegularExpressionImplementation(const VarnRegularExpressionImplementation& source);
  VarnRegularExpressionImplementation& operator=(const VarnRegularExpressionImplementation& source);
  ~VarnRegularExpressionImplementation();

  // Returns the position of the match, or npos; `length` becomes that of the match. A match that
  // only an anchor refuses still sets `length`; without any it is left alone. Positions beyond 32
  // bits are not found.
  unsigned int find(const StringType& text, unsigned int& length, unsigned int start) const;
  unsigned int find(const StringType& text, unsigned int start) const;

  // Writes the pattern and its tokens to the log, at level 9.
  void print() const;

 protected:
  // On a bad pattern `error` says what is wrong, and false is returned: the tokens read before the
  // error are in force then, while the stored pattern stays the old one; callers rely on it.
  bool compile(const StringType& pattern, std::string& error);

  // The token list, with the last pattern that compiled. It never changes: searches share it.
  mutable std::atomic<std::uint64_t> m_nProgram{0};
};

// A pattern to search and replace with, for std::string and std::wstring.
template <typename StringType>
class VSUPT_EXPORT VarnRegularExpression : public VarnRegularExpressionImplementation<StringType> {
 public:
  enum Occurrence : unsigned int { FIRST_OCCURRENCE = 0, ALL_OCCURRENCES = 1 };

  // The empty pattern, which never matches.
  VarnRegularExpression();
  VarnRegularExpression(const VarnRegularExpression& source);
  VarnRegularExpression& operator=(const VarnRegularExpression& source);
  ~VarnRegularExpression();

  // The second form returns false with the reason, where the first throws VarnException (code 0)
  // with it as text. A bad pattern leaves the tokens before its fault in force; callers rely on it.
  void setPattern(const StringType& pattern);
  bool setPatternImpl(const StringType& pattern, std::string& error);

  // Returns the text that find() finds; empty when there is none.
  StringType match(const StringType& text, unsigned int start = 0) const;

  // Returns `text` with the first match at or after `start` replaced, or every one for
  // ALL_OCCURRENCES. Replacements are not searched again.
  StringType replace(const StringType& text, const StringType& replacement, Occurrence occurrence,
                     unsigned int start = 0) const;
};

extern template class VarnRegularExpressionImplementation<std::string>;
extern template class VarnRegularExpressionImplementation<std::wstring>;
extern template class VarnRegularExpression<std::string>;
extern template class VarnRegularExpression<std::wstring>;

}  // namespace VarnSupport

#endif
