#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tamsel {

/// A 128-bit identifier (RFC 4122).
struct Uuid {
  std::array<std::uint8_t, 16> bytes{};

  /// A fresh random identifier (version 4). May be called on any thread.
  static Uuid random();

  /// Reads the 36-character form 8-4-4-4-12, in either letter case; nothing for any other text.
  static std::optional<Uuid> parse(std::string_view text) noexcept;

  /// The 36-character form with upper-case hexadecimal digits.
  std::string string() const;

  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 takes the generated 0 for a pointer
  auto operator<=>(const Uuid&) const = default;
};

}  // namespace tamsel
