#include "engine/UrlProgram.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <optional>

#include "compiler/Unicode.h"
#include "compiler/UrlPattern.h"

namespace tamsel {
namespace {

namespace Syntax = FilterCompiler::UrlFilterSyntax;

// What a byte is to the syntax of expressions.
struct ByteSyntax {
  bool printable = false;
  bool quantifier = false;
  bool special = false;         // has a meaning when it stands alone
  bool identityEscape = false;  // stands for itself behind a backslash
};

constexpr std::array<ByteSyntax, 256> byteSyntax = [] {
  std::array<ByteSyntax, 256> table{};
  const auto at = [&table](char c) -> ByteSyntax& { return table[static_cast<unsigned char>(c)]; };
  for (char c = 0x20; c <= 0x7E; ++c) at(c).printable = true;
  for (char c : std::string_view("*+?{")) at(c).quantifier = true;
  for (char c : Syntax::escaped) at(c).special = at(c).identityEscape = true;
  for (char c : std::string_view("*^")) at(c).special = at(c).identityEscape = true;
  // Beside what has to be escaped, what people escape without need.
  for (char c : std::string_view("/-&=:%")) at(c).identityEscape = true;
  return table;
}();

const ByteSyntax& syntaxOf(char c) {
  return byteSyntax[static_cast<unsigned char>(c)];
}
bool isPrintable(char c) {
  return syntaxOf(c).printable;
}
bool isQuantifier(char c) {
  return syntaxOf(c).quantifier;
}
bool isIdentityEscape(char c) {
  return syntaxOf(c).identityEscape;
}
bool isSyntax(char c) {
  return syntaxOf(c).special;
}

// Whether `piece`, which has no wildcard, matches `text` at its beginning.
bool pieceMatches(std::string_view piece, const char* text) noexcept {
  for (std::size_t i = 0; i < piece.size(); ++i) {
    if (piece[i] == UrlProgram::separator) {
      if (runCharacters[static_cast<unsigned char>(text[i])]) return false;
    } else if (piece[i] != text[i]) {
      return false;
    }
  }
  return true;
}

// Where `piece` first matches in `text` from `from` on; npos when it does not.
std::size_t findPiece(std::string_view piece, std::string_view text, std::size_t from,
                      Budget& budget) noexcept {
  if (text.size() - from < piece.size()) return std::string_view::npos;
  // A search by the processor's wide instructions covers some thirty bytes in a unit.
  constexpr std::size_t bytesPerUnit = 32;
  budget.spend(static_cast<std::int64_t>((text.size() - from) / bytesPerUnit));
  if (piece.find(UrlProgram::separator) == std::string_view::npos) {
    const void* found =
        ::memmem(text.data() + from, text.size() - from, piece.data(), piece.size());
    if (found == nullptr) return std::string_view::npos;
    return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
  }
  const std::size_t last = text.size() - piece.size();
  for (std::size_t i = from; i <= last; ++i) {
    if (piece.front() != UrlProgram::separator) {
      i = text.find(piece.front(), i);
      if (i > last) break;  // also when it is nowhere
    }
    if (!budget.spend(static_cast<std::int64_t>(piece.size()))) break;
    if (pieceMatches(piece, text.data() + i)) return i;
  }
  return std::string_view::npos;
}

std::string_view subject(const UrlProgram& program, const UrlText& url) {
  return program.caseSensitive ? url.original() : url.lower();
}

// Matches the code behind a wildcard from `position` on: each piece as early as it can be, which
// leaves the most room for the next, and the last at the end when it is anchored there.
bool restMatches(std::string_view rest, bool endAnchor, std::string_view text, std::size_t position,
                 Budget& budget) noexcept {
  while (true) {
    const std::size_t end = std::min(rest.find(UrlProgram::wildcard), rest.size());
    const std::string_view piece = rest.substr(0, end);
    const bool last = end == rest.size();
    if (last && endAnchor) {
      return text.size() - position >= piece.size() &&
             pieceMatches(piece, text.data() + text.size() - piece.size());
    }
    if (!piece.empty()) {
      const std::size_t found = findPiece(piece, text, position, budget);
      if (found == std::string_view::npos) return false;
      position = found + piece.size();
    }
    if (last) return true;
    rest.remove_prefix(end + 1);
  }
}

// Writes the exact code over `code`; nothing when the expression has syntax beyond programs.
std::optional<UrlProgram> compileExact(std::string_view expression, bool caseSensitive,
                                       std::string& code) {
  constexpr char separator = UrlProgram::separator;
  constexpr char wildcard = UrlProgram::wildcard;
  using Anchor = UrlProgram::Anchor;
  UrlProgram program;
  program.caseSensitive = caseSensitive;
  if (expression.starts_with(Syntax::hostAnchor)) {
    program.anchor = Anchor::host;
    expression.remove_prefix(Syntax::hostAnchor.size());
  } else if (expression.starts_with('^')) {
    program.anchor = Anchor::start;
    expression.remove_prefix(1);
  }
  code.resize(expression.size());  // no syntax gets longer
  char* end = code.data();
  for (std::size_t i = 0; i < expression.size();) {
    char c = expression[i];
    std::size_t length = 1;
    if (c == '[') {
      if (!expression.substr(i).starts_with(Syntax::separator)) return std::nullopt;
      c = separator;
      length = Syntax::separator.size();
    } else if (c == '.') {
      if (!expression.substr(i).starts_with(Syntax::wildcard)) return std::nullopt;
      c = wildcard;
      length = Syntax::wildcard.size();
    } else if (c == '$') {
      if (i + 1 != expression.size()) return std::nullopt;
      program.endAnchor = true;
      break;
    } else if (c == '\\') {
      if (i + 1 == expression.size() || !isIdentityEscape(expression[i + 1])) return std::nullopt;
      c = expression[i + 1];
      length = 2;
    } else if (isSyntax(c) || !isPrintable(c)) {
      return std::nullopt;
    }
    i += length;
    if (i < expression.size() && isQuantifier(expression[i])) return std::nullopt;
    if (c == wildcard && end != code.data() && end[-1] == wildcard) continue;
    *end++ = caseSensitive ? c : Unicode::asciiLower(c);
  }
  code.resize(static_cast<std::size_t>(end - code.data()));
  return program;
}

// Whether the code is the text of a host and a separator.
bool isHostAndSeparator(std::string_view code) {
  if (code.size() < 2 || code.back() != UrlProgram::separator) return false;
  code.remove_suffix(1);
  return std::all_of(code.begin(), code.end(),
                     [](char c) { return c != '%' && isRunCharacter(c); });
}

// Whether the host, at whose end `position` is, is followed by a port or nothing and by "/".
bool hostEndsAt(std::string_view text, std::size_t position) noexcept {
  if (position < text.size() && text[position] == ':') {
    const std::size_t port = ++position;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') ++position;
    if (position == port) return false;
  }
  return position < text.size() && text[position] == '/';
}

// Whether an expression has something that makes it uncertain what a match must contain:
// alternatives, groups with flags or conditions, quotations, classes that begin with a bracket.
bool isUncertain(std::string_view expression) {
  for (std::string_view syntax : {"|", "(?", R"(\Q)", "[]", "[^]"}) {
    if (expression.find(syntax) != std::string_view::npos) return true;
  }
  return false;
}

// Writes over `texts` what whatever the expression matches must contain.
void writeRequiredTexts(std::string_view expression, std::string& texts) {
  texts.clear();
  if (isUncertain(expression)) return;
  const auto endText = [&texts] {
    if (!texts.empty()) texts += UrlProgram::wildcard;
  };
  std::size_t groups = 0;  // those that are open: what is in one may be optional
  std::size_t classes = 0;
  for (std::size_t i = 0; i < expression.size(); ++i) {
    const char c = expression[i];
    char literal = 0;
    if (c == '\\') {
      if (++i == expression.size()) break;
      if (isIdentityEscape(expression[i])) {
        literal = expression[i];
      } else if (std::string_view("dDwWsSbBAZz").find(expression[i]) == std::string_view::npos) {
        break;  // an escape with an operand, which is not to be taken for text
      }
    } else if (c == '[') {
      ++classes;
    } else if (c == ']' && classes > 0) {
      --classes;
    } else if (classes == 0 && c == '(') {
      ++groups;
    } else if (classes == 0 && c == ')' && groups > 0) {
      --groups;
    } else if (!isSyntax(c) && isPrintable(c)) {
      literal = c;
    }

    const char next = i + 1 < expression.size() ? expression[i + 1] : '\0';
    const bool optional = next == '*' || next == '?' || next == '{';
    if (literal != 0 && classes == 0 && groups == 0 && !optional) {
      texts += Unicode::asciiLower(literal);
      if (next == '+') endText();
    } else {
      endText();
    }
    if (next == '{' && classes == 0) {  // a count
      i = expression.find('}', i);
      if (i == std::string_view::npos) break;
    }
  }
}

}  // namespace

UrlProgram UrlProgram::compile(std::string_view expression, bool caseSensitive,
                               bool isHardenedException, std::string& code) {
  UrlProgram program;
  if (const auto exact = compileExact(expression, caseSensitive, code)) {
    program = *exact;
    program.endsHost = isHardenedException && program.anchor == Anchor::host &&
                       !program.endAnchor && isHostAndSeparator(code);
  } else {
    writeRequiredTexts(expression, code);
    program.caseSensitive = caseSensitive;
    program.exact = false;
  }
  if (code.size() > std::numeric_limits<std::uint32_t>::max()) {
    code.clear();  // ICU will not take that expression either
    program.exact = false;
  }
  program.setCode(code);
  return program;
}

bool UrlProgram::matchesAt(const UrlText& url, std::size_t position,
                           Budget& budget) const noexcept {
  if (anchor == Anchor::start && position != 0) return false;
  if (anchor == Anchor::host && !url.isHostStart(position)) return false;
  const std::string_view text = subject(*this, url);
  const std::size_t end =
      singlePiece ? code().size() : std::min(code().find(wildcard), code().size());
  if (position > text.size() || text.size() - position < end) return false;
  if (endsHost) {
    return pieceMatches(code().substr(0, end - 1), text.data() + position) &&
           hostEndsAt(text, position + end - 1);
  }
  if (!pieceMatches(code().substr(0, end), text.data() + position)) return false;
  position += end;
  if (end == code().size()) return !endAnchor || position == text.size();
  return restMatches(code().substr(end + 1), endAnchor, text, position, budget);
}

bool UrlProgram::matches(const UrlText& url, Budget& budget) const noexcept {
  switch (anchor) {
    case Anchor::start:
      return matchesAt(url, 0, budget);
    case Anchor::host: {
      budget.spend(static_cast<std::int64_t>(url.original().size() / 4));
      return url.anyHostStart([&](std::size_t position) {
        return budget.spend(8) && matchesAt(url, position, budget);
      });
    }
    case Anchor::none:
      break;
  }
  return restMatches(code(), endAnchor, subject(*this, url), 0, budget);
}

}  // namespace tamsel
