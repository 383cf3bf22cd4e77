#include "platform/dialect/ContentBlockerDialect.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace tamsel::ContentBlockerDialect {
namespace {

using Reason = std::optional<std::string_view>;

// A set of ASCII characters.
struct CharacterSet {
  std::uint64_t low = 0;   // codes below 64
  std::uint64_t high = 0;  // codes from 64 on

  static CharacterSet all() { return {~std::uint64_t{0}, ~std::uint64_t{0}}; }
  static CharacterSet range(std::uint32_t first, std::uint32_t last) {
    CharacterSet set;
    if (first < 64) set.low = bits(first, std::min(last, 63U));
    if (last >= 64) set.high = bits(std::max(first, 64U) - 64, last - 64);
    return set;
  }
  CharacterSet operator|(CharacterSet other) const { return {low | other.low, high | other.high}; }
  CharacterSet operator~() const { return {~low, ~high}; }
  // With both cases of each letter that it has in one.
  CharacterSet folded() const {
    constexpr std::uint64_t letters = 0x7fffffe;
    const std::uint64_t either = (high | high >> 32) & letters;
    return {low, (high & ~(letters | letters << 32)) | either | either << 32};
  }
  bool overlaps(CharacterSet other) const { return ((low & other.low) | (high & other.high)) != 0; }
  bool operator==(const CharacterSet&) const = default;

 private:
  static std::uint64_t bits(std::uint32_t first, std::uint32_t last) {
    return ~std::uint64_t{0} >> (63 - (last - first)) << first;
  }
};

// WebKit's own words, as far as it has any.
constexpr std::string_view emptyExpression = "The expression is empty.";
constexpr std::string_view asciiOnly = "Only ASCII characters are supported in pattern.";
constexpr std::string_view characterClass = "Character class is not supported.";
constexpr std::string_view classAtom = "Builtins character class atoms are not supported yet.";
constexpr std::string_view wordBoundary = "Word boundaries assertions are not supported yet.";
constexpr std::string_view group = "Groups are not supported yet.";
constexpr std::string_view disjunction = "Disjunctions are not supported yet.";
constexpr std::string_view repetition = "Arbitrary atom repetitions are not supported.";
constexpr std::string_view backReference = "Patterns cannot contain backreferences.";
constexpr std::string_view startOfLine =
    "Start of line assertion can only appear as the first term in a filter.";
constexpr std::string_view endOfLine =
    "The end of line assertion must be the last term in an expression.";
constexpr std::string_view syntaxError = "The expression is not well formed.";
constexpr std::string_view tooLong = "The expression is too long.";
constexpr std::string_view tooDeep = "The groups are nested too deep.";
constexpr std::string_view tooManyOverlaps =
    "Too many wide classes overlap with the beginning of the expression.";
constexpr std::string_view nul = "The expression has a NUL character.";
constexpr std::string_view ambiguous =
    "The expression has an escape or a name without a clear meaning.";
constexpr std::string_view emptyDomain =
    "Invalid list of if-domain, unless-domain, if-top-url, or unless-top-url conditions.";
constexpr std::string_view upperDomain =
    "Domains must be lower case ASCII. Use punycode to encode non-ASCII characters.";
constexpr std::string_view badDomain = "The domain has a character that no domain can have.";
constexpr std::string_view longDomain = "The domain is too long.";

// The code of a character; expressions that have come that far are ASCII.
std::uint32_t codeOf(char c) {
  return static_cast<unsigned char>(c);
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads an expression from its first term to its last. `i_` is what is read next.
class ExpressionReader {
 public:
  explicit ExpressionReader(std::string_view text) : text_(text) {}

  Reason read() {
    if (text_.empty()) return emptyExpression;
    if (text_.size() > maxExpressionLength) return tooLong;
    unsigned char seen = 0;
    for (char c : text_) seen |= static_cast<unsigned char>(c);
    if (seen >= 0x80) return asciiOnly;
    if (text_.find('\0') != std::string_view::npos) return nul;
    while (peek() == '^') {
      begins_ = false;
      ++i_;
    }
    while (i_ < text_.size()) {
      if (const Reason reason = readTerm()) return reason;
    }
    if (depth_ != 0) return syntaxError;
    if (namedGroups_ > 1 || (namedGroups_ != 0 && namedReference_)) return ambiguous;
    return std::nullopt;
  }

 private:
  // What stands at `i_` plus `ahead`; NUL, which no expression has, beyond the end.
  char peek(std::size_t ahead = 0) const {
    return i_ + ahead < text_.size() ? text_[i_ + ahead] : '\0';
  }

  Reason readTerm() {
    const char c = text_[i_++];
    switch (c) {
      case '$':
        return depth_ == 0 && i_ == text_.size() ? Reason() : endOfLine;
      case '^':
        return startOfLine;
      case '|':
        return disjunction;
      case '(':
        return openGroup();
      case ')':
        if (depth_ == 0) return syntaxError;
        --depth_;
        quantifiable_ = true;
        afterGroup_ = true;
        return std::nullopt;
      case '*':
      case '+':
      case '?':
        return quantified(c != '?');
      case '{':
        return readBrace();
      case '[':
        return readClass();
      case '.':
        return wide(CharacterSet::all());
      case '\\':
        return readEscape();
      default:
        return single(codeOf(c));
    }
  }

  Reason wide(const CharacterSet& set) {
    ++wides_;
    return term(set, true);
  }

  Reason single(std::uint32_t code) { return term(CharacterSet::range(code, code), false); }

  // The automaton of an expression that can begin at many places, because it has no anchor or
  // because something in it repeats, has to remember every place where it may have begun. As long
  // as what follows cannot be a beginning too, there is one such place; each wide class that can be
  // both doubles what there is to remember. Terms that are all the same set do no harm: how many of
  // them there were is all there is to know.
  Reason term(const CharacterSet& set, bool isWide) {
    quantifiable_ = true;
    afterGroup_ = false;
    if (begins_) {
      isUniform_ = isUniform_ && (!hasBeginning_ || set == beginnings_);
      beginnings_ = beginnings_ | set;
      hasBeginning_ = true;
      begins_ = false;
      return std::nullopt;
    }
    if (!hasBeginning_) return std::nullopt;
    isUniform_ = isUniform_ && set == beginnings_;
    // A rule that says nothing else matches without regard to case.
    if (isWide && !isUniform_ && set.folded().overlaps(beginnings_)) return overlap(1);
    return std::nullopt;
  }

  Reason overlap(std::size_t count) {
    overlaps_ += count;
    return overlaps_ > maxOverlaps ? Reason(tooManyOverlaps) : Reason();
  }

  // A quantifier has been read up to a "?" that makes it lazy, which is of no consequence.
  Reason quantified(bool isLoop) {
    if (!quantifiable_) return syntaxError;
    quantifiable_ = false;
    if (peek() == '?') ++i_;
    begins_ = true;  // what follows may come earlier or later
    if (isLoop && afterGroup_) return overlap(wides_ - widesBefore_[depth_]);
    return std::nullopt;
  }

  Reason openGroup() {
    if (depth_ == maxNesting) return tooDeep;
    widesBefore_[depth_++] = wides_;
    quantifiable_ = false;
    if (peek() != '?') return std::nullopt;
    const char kind = peek(1);
    if (kind == ':') {
      i_ += 2;
      return std::nullopt;
    }
    if (kind != '<' || peek(2) == '=' || peek(2) == '!') {
      const bool known = kind == '=' || kind == '!' || kind == '<' || isLetter(kind) || kind == '-';
      return known ? group : syntaxError;
    }
    i_ += 2;
    return readGroupName();
  }

  Reason readGroupName() {
    const auto isName = [](char c) { return isLetter(c) || c == '_'; };
    if (!isName(peek())) return ambiguous;
    while (isName(peek()) || isDigit(peek())) ++i_;
    if (peek() != '>') return ambiguous;
    ++i_;
    ++namedGroups_;
    return std::nullopt;
  }

  // "{" begins a count, or is a character when no complete count follows.
  Reason readBrace() {
    std::size_t end = i_;
    const auto skipDigits = [&] {
      const std::size_t begin = end;
      while (end < text_.size() && isDigit(text_[end])) ++end;
      return end - begin;
    };
    const bool hasLeast = skipDigits() != 0;
    if (hasLeast && end < text_.size() && text_[end] == ',') {
      ++end;
      skipDigits();
    }
    if (!hasLeast || end == text_.size() || text_[end] != '}') {
      return single('{');
    }
    const std::string_view count = text_.substr(i_, end - i_);
    i_ = end + 1;
    if (!quantifiable_) return syntaxError;
    if (count != "0,1" && count != "0," && count != "1,") return repetition;
    return quantified(count != "0,1");
  }

  Reason readEscape() {
    if (i_ == text_.size()) return syntaxError;
    const char c = text_[i_];
    switch (c) {
      case 'd':
      case 'D':
      case 'w':
      case 'W':
      case 's':
      case 'S':
        return characterClass;
      case 'b':
      case 'B':
        return wordBoundary;
      case 'k':
        namedReference_ = true;
        if (peek(1) == '<') {
          return namedGroups_ != 0 ? backReference : ambiguous;
        }
        break;
      default:
        break;
    }
    std::uint32_t code = 0;
    if (const Reason reason = readEscapedCharacter(code)) return reason;
    return single(code);
  }

  // What stands behind a backslash, as a character code below 0x80.
  Reason readEscapedCharacter(std::uint32_t& code) {
    const char c = text_[i_++];
    code = codeOf(c);
    switch (c) {
      case 't':
      case 'n':
      case 'v':
      case 'f':
      case 'r':
        code = codeOf("\t\n\v\f\r"[std::string_view("tnvfr").find(c)]);
        return std::nullopt;
      case 'x':
        return readHexadecimal(2, code);
      case 'u':
        return readHexadecimal(4, code);
      case 'c':
        if (!isLetter(peek())) return ambiguous;
        code = codeOf(text_[i_++]) % 32;
        return std::nullopt;
      default:
        break;
    }
    if (c < '0' || c > '7') return std::nullopt;
    // An octal character of up to three digits and up to 0377, whatever groups there are.
    code = static_cast<std::uint32_t>(c - '0');
    for (int digits = 1; digits < 3 && peek() >= '0' && peek() <= '7'; ++digits) {
      const std::uint32_t longer = code * 8 + static_cast<std::uint32_t>(peek() - '0');
      if (longer > 0377) break;
      code = longer;
      ++i_;
    }
    return checkCode(code);
  }

  Reason readHexadecimal(std::size_t digits, std::uint32_t& code) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < digits; ++i) {
      const int digit = hexValue(peek(i));
      if (digit < 0) return std::nullopt;  // just the letter then
      value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    i_ += digits;
    code = value;
    return checkCode(value);
  }

  static Reason checkCode(std::uint32_t code) {
    if (code == 0) return nul;
    if (code >= 0x80) return asciiOnly;
    return std::nullopt;
  }

  Reason readClass() {
    CharacterSet set;
    const bool negated = peek() == '^';
    if (negated) ++i_;
    while (true) {
      if (i_ == text_.size()) return syntaxError;
      if (peek() == ']') break;
      std::uint32_t low = 0;
      if (const Reason reason = readClassCharacter(low)) return reason;
      std::uint32_t high = low;
      if (peek() == '-' && peek(1) != ']' && i_ + 1 < text_.size()) {
        ++i_;
        if (const Reason reason = readClassCharacter(high)) return reason;
      }
      if (high < low) return syntaxError;
      set = set | CharacterSet::range(low, high);
    }
    ++i_;
    return wide(negated ? ~set : set);
  }

  Reason readClassCharacter(std::uint32_t& code) {
    const char c = text_[i_++];
    code = codeOf(c);
    if (c != '\\') return std::nullopt;
    if (i_ == text_.size()) return syntaxError;
    if (std::string_view("dDwWsS").find(peek()) != std::string_view::npos) return classAtom;
    if (peek() == 'k') namedReference_ = true;
    if (peek() == 'b') {
      ++i_;
      code = '\b';
      return std::nullopt;
    }
    return readEscapedCharacter(code);
  }

  std::string_view text_;
  std::size_t i_ = 0;
  std::size_t depth_ = 0;
  bool quantifiable_ = false;  // what stands before `i_` may be repeated
  std::size_t namedGroups_ = 0;
  bool namedReference_ = false;

  bool begins_ = true;         // what is read next may come at several places
  bool hasBeginning_ = false;  // something that may come at several places has been read
  CharacterSet beginnings_;    // all that it begins with
  bool isUniform_ = true;      // every term since the first such one is the same set
  bool afterGroup_ = false;    // what stands before `i_` is a group
  std::size_t wides_ = 0;
  std::array<std::size_t, maxNesting> widesBefore_{};  // of each open group
  std::size_t overlaps_ = 0;
};

constexpr std::string_view longSelector = "The selector is too long.";
constexpr std::string_view openQuotation = "The selector has a quotation without an end.";
constexpr std::string_view openComment = "The selector has a comment without an end.";
constexpr std::string_view openBracket = "The selector has a bracket without an end.";
constexpr std::string_view badAddress = "The selector has an address that is not well formed.";
constexpr std::string_view trailingBackslash = "The selector ends with a backslash.";
constexpr std::string_view deepSelector = "The selector is nested too deep.";
constexpr std::string_view manyParts = "The selector has too many parts.";
constexpr std::string_view manyCombinations = "The selector has too many combinations of parts.";

bool isNewline(char c) {
  return c == '\n' || c == '\r' || c == '\f';
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || isNewline(c);
}

// What a CSS identifier is made of, apart from escapes. NUL counts as U+FFFD.
constexpr auto isInName = [] {
  std::array<bool, 256> is{};
  for (std::size_t c = 0; c < is.size(); ++c) {
    is[c] = c >= 0x80 || c == '\0' || c == '-' || c == '_' || (c >= '0' && c <= '9') ||
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  }
  return is;
}();

// Reads a selector as the tokens of CSS, as far as they tell where something ends. WebKit writes
// selectors one behind the other, with commas between them, into one style rule. In a selector that
// is not closed by itself, that comma and the other selectors would become a part of it:
//
//     [a="]"]               closed
//     :is(url( "b)c"))      closed: an address in a quotation
//     :is(url(a'b)c'))      not closed: the address is a bad one up to the first ")", so the last
//                           quotation mark begins something
//
// Brackets that close nothing and whole blocks are passed over. No selector has them, so that
// WebKit passes over the rule.
class SelectorReader {
 public:
  explicit SelectorReader(std::string_view text) : text_(text) { lists_[0] = {'\0', 0, 0, 0, 1}; }

  Reason read() {
    if (text_.size() > maxSelectorLength) return longSelector;
    while (i_ < text_.size()) {
      if (const Reason reason = readToken()) return reason;
    }
    if (depth_ != 0) return openBracket;
    return endOfAlternative();
  }

 private:
  // ":has(" looks through all that is in an element, and counts as so many parts.
  static constexpr std::size_t searchInParts = 25;

  // What is known of a list of alternatives, with commas between them, of which there is one in
  // every bracket and one outside.
  struct List {
    char closing;
    std::size_t combinations;       // of the complete alternatives
    std::size_t parts;              // of the alternative that is being read
    std::size_t innerCombinations;  // of the lists in it
    std::size_t reach;              // how many elements its combinators may lead to
  };

  char peek(std::size_t ahead = 0) const {
    return i_ + ahead < text_.size() ? text_[i_ + ahead] : '\0';
  }
  bool atName() const { return i_ < text_.size() && isInName[codeOf(text_[i_])]; }
  bool atEscape() const {
    return peek() == '\\' && i_ + 1 < text_.size() && !isNewline(text_[i_ + 1]);
  }
  List& list() { return lists_[depth_]; }

  Reason readToken() {
    if (atName()) return readName();
    const char c = text_[i_];
    switch (c) {
      case '\\':
        if (atEscape()) return readName();
        if (i_ + 1 == text_.size()) return trailingBackslash;
        break;
      case '"':
      case '\'':
        return readQuotation(c);
      case '/':
        if (peek(1) == '*') return readComment();
        break;
      case '<':
        // The dashes are no part of the name that may follow.
        if (text_.substr(i_).starts_with("<!--")) i_ += 3;
        break;
      case '#':
      case '@':
        ++i_;
        if (!atName() && !atEscape()) return std::nullopt;
        skipName();  // "#url" is never the beginning of an address
        return countPart();
      case '*':
      case '&':
        ++i_;
        return countPart();
      case ',':
        ++i_;
        return endOfAlternative();
      case '(':
        return open(')');
      case '[':
        if (const Reason reason = countPart()) return reason;
        return open(']');
      case '{':
        return open('}');
      default:
        if (c == list().closing) return close();
        if (list().parts != 0) reachFurther(c);
        break;
    }
    ++i_;
    return std::nullopt;
  }

  Reason readName() {
    const std::size_t begin = i_;
    skipName();
    if (peek() != '(') return countPart();
    if (isNamed("url", begin)) return readAddress();
    return countPart(isNamed("has", begin) ? searchInParts : 1);
  }

  void skipName() {
    while (true) {
      if (atName()) {
        ++i_;
      } else if (atEscape()) {
        skipEscape();
      } else {
        return;
      }
    }
  }

  // Returns the code that the escape stands for, as far as it is one of hexadecimal digits.
  std::uint32_t skipEscape() {
    ++i_;
    std::uint32_t code = 0;
    std::size_t digits = 0;
    for (; digits < 6 && hexValue(peek()) >= 0; ++digits) {
      code = code * 16 + static_cast<std::uint32_t>(hexValue(text_[i_++]));
    }
    if (digits == 0) return codeOf(text_[i_++]);
    if (isNewline(peek())) {
      skipNewline();
    } else if (isBlank(peek())) {
      ++i_;
    }
    return code;
  }

  void skipNewline() { i_ += peek() == '\r' && peek(1) == '\n' ? 2U : 1U; }
  void skipBlanks() {
    while (isBlank(peek())) ++i_;
  }

  // Whether what is read from there up to here is this name, in whatever case and however it is
  // escaped.
  bool isNamed(std::string_view name, std::size_t begin) {
    const std::size_t end = std::exchange(i_, begin);
    bool is = true;
    for (std::size_t k = 0; is && k < name.size(); ++k) {
      is = i_ < end;
      if (!is) break;
      const std::uint32_t code = atEscape() ? skipEscape() : codeOf(text_[i_++]);
      is = (code | 0x20U) == codeOf(name[k]);
    }
    return std::exchange(i_, end) == end && is;
  }

  Reason readAddress() {
    const std::size_t bracket = i_++;
    skipBlanks();
    if (peek() == '"' || peek() == '\'') {
      i_ = bracket;
      return open(')');
    }
    while (i_ < text_.size() && text_[i_] != ')') {
      const char c = text_[i_];
      if (isBlank(c)) {
        skipBlanks();
        if (i_ < text_.size() && peek() != ')') return badAddress;
      } else if (c == '\\') {
        if (i_ + 1 == text_.size()) return trailingBackslash;
        if (!atEscape()) return badAddress;
        skipEscape();
      } else if (codeOf(c) < 0x20 || c == '\x7F' || c == '"' || c == '\'' || c == '(') {
        return badAddress;
      } else {
        ++i_;
      }
    }
    if (i_ == text_.size()) return openBracket;
    ++i_;
    return std::nullopt;
  }

  Reason readQuotation(char mark) {
    ++i_;
    while (i_ < text_.size() && text_[i_] != mark) {
      const char c = text_[i_];
      if (isNewline(c)) return openQuotation;
      if (c != '\\') {
        ++i_;
      } else if (atEscape()) {
        skipEscape();
      } else if (++i_ == text_.size()) {
        return trailingBackslash;
      } else {
        skipNewline();
      }
    }
    if (i_ == text_.size()) return openQuotation;
    ++i_;
    return std::nullopt;
  }

  Reason readComment() {
    const std::size_t end = text_.find("*/", i_ + 2);
    if (end == std::string_view::npos) return openComment;
    i_ = end + 2;
    return std::nullopt;
  }

  Reason open(char closing) {
    if (depth_ == maxNesting) return deepSelector;
    ++i_;
    lists_[++depth_] = {closing, 0, 0, 0, 1};
    return std::nullopt;
  }

  Reason close() {
    if (const Reason reason = endOfAlternative()) return reason;
    ++i_;
    const std::size_t combinations = list().combinations;
    --depth_;
    list().innerCombinations += combinations;
    return std::nullopt;
  }

  // Names in square brackets are parts of one condition.
  Reason countPart(std::size_t count = 1) {
    if (list().closing == ']') return std::nullopt;
    ++list().parts;
    parts_ += count;
    return parts_ > maxSelectorParts ? Reason(manyParts) : Reason();
  }

  void reachFurther(char c) {
    constexpr std::size_t ancestors = 10;
    constexpr std::size_t siblings = 100;
    if (isBlank(c) || c == '>' || c == '+') list().reach = std::max(list().reach, ancestors);
    if (c == '~') list().reach = siblings;
  }

  // WebKit goes from each part of an alternative through all the others, and each time into the
  // lists in there, where it does the same. And where combinators lead to an element of the page,
  // all that is in those lists is held against it.
  Reason endOfAlternative() {
    List& current = list();
    current.combinations +=
        current.parts * (current.parts + current.innerCombinations * current.reach);
    current.parts = 0;
    current.innerCombinations = 0;
    current.reach = 1;
    return current.combinations > maxSelectorCombinations ? Reason(manyCombinations) : Reason();
  }

  std::string_view text_;
  std::size_t i_ = 0;
  std::size_t parts_ = 0;
  std::size_t depth_ = 0;
  std::array<List, maxNesting + 1> lists_;
};

}  // namespace

std::optional<std::string_view> refusalOfExpression(std::string_view expression) noexcept {
  return ExpressionReader(expression).read();
}

std::optional<std::string_view> refusalOfDomain(std::string_view domain) noexcept {
  if (domain.empty()) return emptyDomain;
  if (domain.size() > maxDomainLength) return longDomain;
  for (const char c : domain) {
    if (codeOf(c) >= 0x80 || (c >= 'A' && c <= 'Z')) return upperDomain;
    if (c == '\0' || std::string_view("|^()[]{}+").find(c) != std::string_view::npos) {
      return badDomain;
    }
  }
  return std::nullopt;
}

std::optional<std::string_view> refusalOfSelector(std::string_view selector) noexcept {
  return SelectorReader(selector).read();
}

}  // namespace tamsel::ContentBlockerDialect
