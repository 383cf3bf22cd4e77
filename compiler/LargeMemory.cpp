#include "compiler/LargeMemory.h"

#include <sys/mman.h>

#include <cstdlib>

namespace tamsel::LargeMemory {

void* allocate(std::size_t size) {
  void* memory = nullptr;
  if (size < largePage) {
    memory = std::malloc(size);
  } else if (::posix_memalign(&memory, largePage, size) == 0) {
    (void)::madvise(memory, size, MADV_HUGEPAGE);  // without them it is only slower
  }
  if (memory == nullptr && size != 0) throw std::bad_alloc();
  return memory;
}

void free(void* memory) noexcept {
  std::free(memory);
}

}  // namespace tamsel::LargeMemory
