#include "compiler/Hash.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tamsel {

std::uint64_t hashBytes(std::string_view bytes, std::uint64_t seed) noexcept {
  return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

}  // namespace tamsel
