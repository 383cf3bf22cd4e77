#include "platform/webview/RequestKeys.h"

#include <xxhash.h>

#include <algorithm>
#include <random>
#include <utility>

namespace tamsel {
namespace {

constexpr std::size_t fewestSlots = 64;

// The slot that has the key, or else would get it.
std::uint64_t& slotOf(std::vector<std::uint64_t>& slots, std::uint64_t key) {
  const std::size_t mask = slots.size() - 1;
  std::size_t i = static_cast<std::size_t>(key) & mask;
  while (slots[i] != 0 && slots[i] != key) i = (i + 1) & mask;
  return slots[i];
}

}  // namespace

std::uint64_t RequestKeys::keyOf(std::string_view url, std::uint64_t seed) {
  url = url.substr(0, url.find('#'));
  return std::max<std::uint64_t>(1, XXH3_64bits_withSeed(url.data(), url.size(), seed));
}

std::uint64_t RequestKeys::makeSeed() {
  std::random_device random;
  return (std::uint64_t{random()} << 32) | random();
}

bool RequestKeys::insert(std::uint64_t key) {
  if (slots_.size() < 2 * (size_ + 1)) grow();
  std::uint64_t& slot = slotOf(slots_, key);
  if (slot == key) return false;
  if (size_ == most) return true;
  slot = key;
  ++size_;
  return true;
}

void RequestKeys::clear() {
  slots_ = {};
  size_ = 0;
}

void RequestKeys::grow() {
  if (size_ == most) return;
  std::vector<std::uint64_t> larger(std::max(fewestSlots, 2 * slots_.size()));
  for (const std::uint64_t key : slots_) {
    if (key != 0) slotOf(larger, key) = key;
  }
  slots_ = std::move(larger);
}

}  // namespace tamsel
