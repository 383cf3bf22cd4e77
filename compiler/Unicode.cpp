#include "compiler/Unicode.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>

namespace tamsel::Unicode {
namespace {

// The space separators beyond ASCII (general category Zs), as UTF-8.
constexpr std::array<std::string_view, 16> wideSpaces = {
    "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83",
    "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89",
    "\xE2\x80\x8A", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"};

bool isAsciiSpace(char c) noexcept {
  return c == ' ' || c == '\t';
}
bool isAsciiByte(char c) noexcept {
  return static_cast<unsigned char>(c) < 0x80;
}

std::size_t leadingSpace(std::string_view text) noexcept {
  if (text.empty()) return 0;
  if (isAsciiByte(text.front())) return isAsciiSpace(text.front()) ? 1 : 0;
  for (std::string_view space : wideSpaces) {
    if (text.starts_with(space)) return space.size();
  }
  return 0;
}

std::size_t trailingSpace(std::string_view text) noexcept {
  if (text.empty()) return 0;
  if (isAsciiByte(text.back())) return isAsciiSpace(text.back()) ? 1 : 0;
  for (std::string_view space : wideSpaces) {
    if (text.ends_with(space)) return space.size();
  }
  return 0;
}

}  // namespace

bool isAscii(std::string_view text) noexcept {
  constexpr std::uint64_t highBits = 0x8080808080808080;
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + i, sizeof word);
    if ((word & highBits) != 0) return false;
  }
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(), isAsciiByte);
}

std::string lowercased(std::string_view text) {
  std::string lower;
  // ICU counts in 32 bits; a text beyond that is no filter that anybody could have written.
  if (isAscii(text) || text.size() > std::numeric_limits<std::int32_t>::max()) {
    lower.resize(text.size());
    std::transform(text.begin(), text.end(), lower.begin(), asciiLower);
    return lower;
  }
  icu::StringByteSink<std::string> sink(&lower);
  UErrorCode status = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower("", 0, {text.data(), static_cast<std::int32_t>(text.size())}, sink,
                            nullptr, status);
  return lower;
}

std::string_view trimmed(std::string_view text) noexcept {
  while (const std::size_t length = leadingSpace(text)) text.remove_prefix(length);
  while (const std::size_t length = trailingSpace(text)) text.remove_suffix(length);
  return text;
}

std::size_t lineBreakLength(std::string_view text) noexcept {
  if (text.empty()) return 0;
  if (text.front() >= '\n' && text.front() <= '\r') return 1;
  for (const std::string_view wide : {"\u0085", "\u2028", "\u2029"}) {
    if (text.starts_with(wide)) return wide.size();
  }
  return 0;
}

std::string_view stripped(std::string_view text) noexcept {
  while (true) {
    text = trimmed(text);
    if (const std::size_t length = lineBreakLength(text)) {
      text.remove_prefix(length);
      continue;
    }
    std::size_t shorter = text.size();
    for (const std::size_t length : {1U, 2U, 3U}) {
      if (text.size() >= length && lineBreakLength(text.substr(text.size() - length)) == length) {
        shorter = text.size() - length;
      }
    }
    if (shorter == text.size()) return text;
    text = text.substr(0, shorter);
  }
}

std::string_view beginning(std::string_view text, std::size_t bytes) noexcept {
  if (text.size() <= bytes) return text;
  while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0U) == 0x80U) --bytes;
  return text.substr(0, bytes);
}

std::size_t sequenceLength(std::string_view text) noexcept {
  if (text.empty()) return 0;
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continues = [&](std::size_t i, unsigned low, unsigned high) {
    return i < text.size() && byte(i) >= low && byte(i) <= high;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continues(1, 0x80, 0xBF) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
    return continues(1, low, high) && continues(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    return continues(1, low, high) && continues(2, 0x80, 0xBF) && continues(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

std::string repaired(std::string text) {
  const std::string_view all = text;
  std::size_t valid = 0;
  while (valid < all.size()) {
    const std::size_t length = sequenceLength(all.substr(valid));
    if (length == 0) break;
    valid += length;
  }
  if (valid == all.size()) return text;

  std::string result(all.substr(0, valid));
  result.reserve(all.size() + 64);
  for (std::size_t i = valid; i < all.size();) {
    const std::size_t length = sequenceLength(all.substr(i));
    result += length == 0 ? replacement : all.substr(i, length);
    i += std::max<std::size_t>(length, 1);
  }
  return result;
}

}  // namespace tamsel::Unicode
