#pragma once

#include <cstdint>
#include <string_view>

namespace tamsel {

/// A 64-bit hash of the bytes; only to be compared within one run of the program.
std::uint64_t hashBytes(std::string_view bytes, std::uint64_t seed = 0) noexcept;

/// A hash of both values together.
constexpr std::uint64_t combineHashes(std::uint64_t a, std::uint64_t b) noexcept {
  std::uint64_t mixed = (a ^ (b + 0x9E3779B97F4A7C15)) * 0xD6E8FEB86659FD93;
  mixed ^= mixed >> 32;
  return mixed * 0xD6E8FEB86659FD93;
}

}  // namespace tamsel
