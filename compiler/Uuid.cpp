#include "compiler/Uuid.h"

#include <cstring>
#include <random>

namespace tamsel {
namespace {

constexpr std::size_t textLength = 36;

constexpr bool isHyphenPosition(std::size_t index) {
  return index == 8 || index == 13 || index == 18 || index == 23;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::mt19937_64 seededGenerator() {
  std::random_device device;
  std::seed_seq seed{device(), device(), device(), device(), device(), device()};
  return std::mt19937_64(seed);
}

}  // namespace

Uuid Uuid::random() {
  // Identifiers only need to differ; a generator per thread spares a system call for each.
  thread_local std::mt19937_64 generator = seededGenerator();
  const std::array<std::uint64_t, 2> words{generator(), generator()};
  Uuid uuid;
  std::memcpy(uuid.bytes.data(), words.data(), uuid.bytes.size());
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // RFC variant
  return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) noexcept {
  if (text.size() != textLength) return std::nullopt;
  Uuid uuid;
  std::size_t digit = 0;
  for (std::size_t i = 0; i < textLength; ++i) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int value = hexValue(text[i]);
    if (value < 0) return std::nullopt;
    std::uint8_t& byte = uuid.bytes[digit / 2];
    byte = static_cast<std::uint8_t>(byte << 4 | value);
    ++digit;
  }
  return uuid;
}

std::string Uuid::string() const {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(textLength);
  for (std::uint8_t byte : bytes) {
    if (isHyphenPosition(text.size())) text += '-';
    text += digits[byte >> 4];
    text += digits[byte & 0x0F];
  }
  return text;
}

}  // namespace tamsel
