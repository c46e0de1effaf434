// The slow truth about patterns: every step of compiling and matching written down as it is
// defined, with texts for tokens and a copy of every match on the stack.
#ifndef TESTS_PLAINMATCHER_H
#define TESTS_PLAINMATCHER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

template <typename S>
class PlainMatcher {
 public:
  using C = typename S::value_type;

  enum Type { IN_SET, NOT_IN_SET, LITERAL, ANY, BEGIN, END };
  enum Factor { ONE, ZERO_OR_ONE, ZERO_OR_MORE, ONE_OR_MORE };
  struct Token {
    Type type;
    Factor factor;
    S segment;
    bool operator==(const Token&) const = default;
  };
  struct Result {
    std::size_t position;  // npos when nothing is found
    std::size_t length;    // npos when it was never set
  };
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  // Returns the error, empty for a good pattern.
  std::string compile(const S& pattern) {
    *this = PlainMatcher();
    p = pattern;
    while (i < p.size() && error.empty())
      token();
    return error;
  }

  Result find(const S& text, std::size_t start) const {
    struct Match {
      std::size_t position;
      S text;
      int backLink;
      const Token* token;
    };
    std::vector<Match> stack;
    bool begin = false;
    bool end = false;
    std::size_t pos = start;
    std::size_t current = 0;
    while (current < tokens.size()) {
      const Token& t = tokens[current];
      const bool repeats = t.factor == ZERO_OR_MORE || t.factor == ONE_OR_MORE;
      const bool optional = t.factor == ZERO_OR_ONE || t.factor == ZERO_OR_MORE;
      const bool afterEqual = !stack.empty() && t.factor == ONE_OR_MORE && *stack.back().token == t;
      if (t.type == BEGIN || t.type == END) {
        (t.type == BEGIN ? begin : end) = true;
        ++current;
        continue;
      }
      std::size_t at = pos;
      std::size_t length = 1;
      bool success = pos < text.size();
      if (t.type == LITERAL) {
        at = text.find(t.segment, pos);
        length = t.segment.size();
        success = at != S::npos && (at == pos || stack.empty());
      } else if (success && t.type != ANY) {
        success = (t.segment.find(text[pos]) != S::npos) == (t.type == IN_SET);
      }
      if (success) {
        const int previous = static_cast<int>(stack.size()) - 1;
        int link = previous;
        if (!stack.empty() && t.factor == ONE_OR_MORE && !afterEqual)
          link = stack.back().backLink;
        stack.push_back({at, text.substr(at, length), link, &t});
        pos = at + length;
        if (!repeats || length == 0)
          ++current;
      } else if (stack.empty()) {
        if (!optional || ++pos >= text.size())
          break;
      } else if (optional || afterEqual) {
        ++current;
      } else if (stack.back().backLink == -1) {
        pos = stack.front().position + 1;
        current = static_cast<std::size_t>(stack.front().token - tokens.data());
        stack.clear();
      } else {
        pos = stack.back().position;
        stack.pop_back();
      }
    }
    if (stack.empty())
      return {npos, npos};
    Result result{stack.front().position, 0};
    for (const Match& match : stack) {
      if (match.position != result.position + result.length)
        return {npos, result.length};
      result.length += match.text.size();
    }
    if ((begin && result.position != start) ||
        (end && result.position + result.length != text.size()))
      result.position = npos;
    return result;
  }

  std::vector<Token> tokens;

 private:
  void token() {
    const C c = p[i];
    const bool last = i + 1 == p.size();
    if (c == '\\' && last) {
      error = "bad escape expression";
    } else if (c == '$' && !last) {
      error = "end token found inside expression";
    } else if (c == '[') {
      ++i;
      const bool inverted = i < p.size() && p[i] == '^';
      if (inverted)
        ++i;
      if (i == p.size() || p[i] == ']')
        error = "empty set in pattern";
      else
        gather(inverted ? NOT_IN_SET : IN_SET);
    } else if (c == '$' || c == '.' || (c == '^' && i == 0)) {
      ++i;
      append(c == '$' ? END : c == '.' ? ANY : BEGIN, S());
    } else {
      gather(LITERAL);
    }
  }

  void gather(Type type) {
    const bool set = type != LITERAL;
    S text;
    while (i < p.size()) {
      const C c = p[i];
      if (c == '$' || c == '.' || c == '[')
        break;
      if (c == '*' || c == '+' || c == '?') {
        if (text.size() > 1) {
          tokens.push_back({type, ONE, cut(text.substr(0, text.size() - 1))});
          text = text.substr(text.size() - 1);
          type = LITERAL;
        }
        break;
      }
      ++i;
      if (c == ']' && set)
        break;
      if (c == '-' && set) {
        if (i == p.size()) {
          error = "end of expression found in pattern";
          return;
        }
        if (text.empty()) {
          text += c;
          continue;
        }
        const std::int64_t to = value(p[i++]);
        if (value(text.back()) > to) {
          error = "invalid endpoint in range";
          return;
        }
        for (std::int64_t member = value(text.back()) + 1; member <= to; ++member)
          text += static_cast<C>(member);
      } else if (c == '\\') {
        if (i == p.size()) {
          error = "bad regular expression";
          return;
        }
        escape(text, p[i++]);
      } else {
        text += c;
      }
    }
    append(type, text);
  }

  static void escape(S& text, C c) {
    const S from{'b', 'f', 'n', 'r', 't'};
    const S to{'\b', '\f', '\n', '\r', '\t'};
    if (c == '0' || c == '^' || c == 'e' || c == 'x')
      return;
    const std::size_t at = from.find(c);
    text += at == S::npos ? c : to[at];
  }

  static std::int64_t value(char c) { return static_cast<signed char>(c); }
  static std::int64_t value(wchar_t c) { return static_cast<std::int32_t>(c); }
  static S cut(const S& text) { return S(text.c_str()); }

  void append(Type type, const S& text) {
    Factor factor = ONE;
    const C sign = i < p.size() ? p[i] : C();
    if (sign == '+' || sign == '?' || sign == '*') {
      factor = sign == '+' ? ONE_OR_MORE : sign == '?' ? ZERO_OR_ONE : ZERO_OR_MORE;
      ++i;
    }
    tokens.push_back({type, factor, cut(text)});
  }

  S p;
  std::size_t i = 0;
  std::string error;
};

#endif
