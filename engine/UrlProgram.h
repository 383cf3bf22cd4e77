#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "engine/Budget.h"
#include "engine/UrlText.h"

namespace tamsel {

/// The expressions that URL patterns are converted to, in a form that matches without
/// backtracking: an anchor, then characters, "any one character that is no run character"
/// (separator) and "anything" (wildcard), then perhaps the end.
///
///     ^[^:]+:(//)?([^/]+\.)?ads\.example[^a-zA-Z0-9_.%-].*\.js$
///         an anchor at a host start, "ads.example", separator, wildcard, ".js", the end
///
/// A program says what an expression matches in URLs of printable ASCII only. Elsewhere one
/// character can fold to several, and "." does not match a line break.
///
/// Other expressions have an approximate program, which only says which texts a match must contain:
///
///     \.example\.com/[0-9]+\.js    ".example.com/" and ".js"
///     (ads)?x|y                     nothing is certain
struct UrlProgram {
  enum class Anchor : std::uint8_t { none, start, host };

  /// What stands in `code` for a separator and for a wildcard; everything else is a character.
  static constexpr char separator = 1;
  static constexpr char wildcard = 2;

  /// Characters (in lower case unless case matters), separators and wildcards; no two wildcards
  /// in a row. The program refers to it.
  std::string_view code() const noexcept { return {codeBegin, codeSize}; }

  // Pointer, size and flags fill sixteen bytes, so that a candidate costs one look at memory.
  const char* codeBegin = nullptr;
  std::uint32_t codeSize = 0;
  Anchor anchor = Anchor::none;
  bool endAnchor : 1 = false;
  bool caseSensitive : 1 = false;
  /// The code has no wildcard, so whatever it matches has its length.
  bool singlePiece : 1 = true;
  /// The last separator of the code stands for the end of the host: a port or nothing, and "/".
  bool endsHost : 1 = false;
  /// False for an approximate program: its code are texts in lower case, separated by wildcards,
  /// and only an expression engine can tell the rest.
  bool exact : 1 = true;

  /// Translates a plain expression, writing the code over `code`, which the result refers to.
  /// `isHardenedException`: as Hardening::urlFilter has it for exceptions.
  static UrlProgram compile(std::string_view expression, bool caseSensitive,
                            bool isHardenedException, std::string& code);

  /// Refers to other code of fewer than 2^32 characters from now on.
  void setCode(std::string_view code) noexcept {
    codeBegin = code.data();
    codeSize = static_cast<std::uint32_t>(code.size());
    singlePiece = code.find(wildcard) == std::string_view::npos;
  }

  // Both need an exact program and a URL of printable ASCII.

  /// Whether the expression matches anywhere in the URL. Searches are paid for from the budget.
  bool matches(const UrlText& url, Budget& budget) const noexcept;

  /// Whether it matches with its code beginning at `position`, where its anchor allows that.
  bool matchesAt(const UrlText& url, std::size_t position, Budget& budget) const noexcept;
};

}  // namespace tamsel
