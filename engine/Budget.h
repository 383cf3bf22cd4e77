#pragma once

#include <cstdint>

namespace tamsel {

/// What one evaluation may still spend, so that no list and no URL can hold it up. The unit is
/// about a nanosecond. What ordinary lists cost is counted too, but is a thousand times less.
class Budget {
 public:
  /// 10 ms: short enough not to be felt on a slower or busier machine either, long enough for any
  /// expression that anybody meant.
  static constexpr std::int64_t whole = 10'000'000;

  /// False when nothing is left: what remains to be tried counts as no match.
  bool spend(std::int64_t amount) noexcept {
    left_ -= amount;
    return left_ > 0;
  }
  bool isSpent() const noexcept { return left_ <= 0; }

 private:
  std::int64_t left_ = whole;
};

}  // namespace tamsel
