#pragma once

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

namespace tamsel {

/// Memory for results of tens of megabytes: from a few megabytes on it asks for large pages, which
/// come in five hundred times fewer pieces and are found faster.
namespace LargeMemory {

/// The size and the alignment of a large page.
inline constexpr std::size_t largePage = std::size_t{2} << 20;

/// At least `size` bytes, aligned for any type. Throws std::bad_alloc.
void* allocate(std::size_t size);
void free(void* memory) noexcept;

}  // namespace LargeMemory

template <class T>
struct LargeAllocator {
  using value_type = T;

  LargeAllocator() = default;
  template <class U>
  LargeAllocator(const LargeAllocator<U>&) noexcept {}

  T* allocate(std::size_t count) {
    if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(LargeMemory::allocate(count * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t /*count*/) noexcept { LargeMemory::free(memory); }

  bool operator==(const LargeAllocator&) const = default;
};

template <class T>
using LargeVector = std::vector<T, LargeAllocator<T>>;

}  // namespace tamsel
