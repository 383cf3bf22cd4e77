#pragma once

#include <unistd.h>

#include <utility>

namespace tamsel {

/// Owns an open file, socket or the like, and closes it.
class Descriptor {
 public:
  Descriptor() = default;
  /// `value` may be negative: nothing open.
  explicit Descriptor(int value) noexcept : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Descriptor() { close(); }

  void close() noexcept {
    if (value_ >= 0) ::close(std::exchange(value_, -1));
  }
  int get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ >= 0; }

 private:
  int value_ = -1;
};

}  // namespace tamsel
