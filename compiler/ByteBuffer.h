#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "compiler/LargeMemory.h"

namespace tamsel {

/// A growing run of bytes. Unlike a string it leaves new space uninitialised, which is what a
/// document of 40 MB wants.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  explicit ByteBuffer(std::string_view bytes) { append(bytes); }
  ByteBuffer(ByteBuffer&& other) noexcept { swap(other); }
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    ByteBuffer(std::move(other)).swap(*this);
    return *this;
  }

  std::string_view view() const noexcept { return {bytes_.get(), size_}; }
  operator std::string_view() const noexcept { return view(); }
  std::size_t size() const noexcept { return size_; }

  /// Makes room for `count` more bytes and returns where they go; `commit` says how many were
  /// written. Throws std::bad_alloc and then leaves the buffer as it was.
  char* reserve(std::size_t count) {
    if (capacity_ - size_ < count) grow(count);
    return bytes_.get() + size_;
  }
  void commit(std::size_t count) noexcept { size_ += count; }

  void append(std::string_view bytes) {
    char* to = reserve(bytes.size());
    if (!bytes.empty()) std::memcpy(to, bytes.data(), bytes.size());
    commit(bytes.size());
  }

  /// Forgets the bytes and keeps the room.
  void clear() noexcept { size_ = 0; }

 private:
  struct Free {
    void operator()(char* bytes) const noexcept { LargeMemory::free(bytes); }
  };

  void swap(ByteBuffer& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  void grow(std::size_t count) {
    const std::size_t capacity = std::max(capacity_ + capacity_ / 2, size_ + count);
    std::unique_ptr<char, Free> bytes(static_cast<char*>(LargeMemory::allocate(capacity)));
    if (size_ != 0) std::memcpy(bytes.get(), bytes_.get(), size_);
    bytes_ = std::move(bytes);
    capacity_ = capacity;
  }

  std::unique_ptr<char, Free> bytes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace tamsel
