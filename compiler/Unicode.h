#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The little that filter lists need of Unicode: ASCII fast, the rest through ICU.
namespace tamsel::Unicode {

/// U+FFFD, what stands for bytes that are no UTF-8.
inline constexpr std::string_view replacement = "\xEF\xBF\xBD";

bool isAscii(std::string_view text) noexcept;

/// The text in lower case by Unicode's full, language-independent mapping. Invalid UTF-8 becomes
/// U+FFFD where ICU has to look at it.
std::string lowercased(std::string_view text);

/// The text without the tabs and space separators (category Zs) at both ends.
std::string_view trimmed(std::string_view text) noexcept;

/// The length of the line break that `text` begins with; 0 when it begins with none.
std::size_t lineBreakLength(std::string_view text) noexcept;

/// The text without the tabs, space separators and line breaks at both ends.
std::string_view stripped(std::string_view text) noexcept;

/// The beginning of UTF-8 text, at most this many bytes, that ends with a whole character.
std::string_view beginning(std::string_view text, std::size_t bytes) noexcept;

/// The length of the valid UTF-8 sequence that `text` begins with; 0 when it begins with none.
std::size_t sequenceLength(std::string_view text) noexcept;

/// The text with every byte that is no part of valid UTF-8 replaced by U+FFFD.
std::string repaired(std::string text);

/// `c` in lower case when it is an ASCII capital.
constexpr char asciiLower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

}  // namespace tamsel::Unicode
