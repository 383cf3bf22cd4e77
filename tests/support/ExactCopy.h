#pragma once

#include <string_view>
#include <vector>

namespace tamsel::test {

/// A copy of a text in a heap block of exactly its size, so that the address sanitizer sees every
/// read past its end.
class ExactCopy {
 public:
  explicit ExactCopy(std::string_view text) : bytes_(text.begin(), text.end()) {}
  operator std::string_view() const noexcept { return {bytes_.data(), bytes_.size()}; }

 private:
  std::vector<char> bytes_;
};

}  // namespace tamsel::test
