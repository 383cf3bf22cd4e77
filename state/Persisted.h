#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "state/FilterList.h"

namespace tamsel {

/// What is kept from one start of the program to the next: the content of "state.json".
struct Persisted {
  std::vector<FilterList> lists;
  std::string customRules;
  std::vector<std::string> pausedSites;

  bool operator==(const Persisted&) const = default;

  /// One JSON object, compact, with "/" written as "\/". Bytes that are no UTF-8 become U+FFFD.
  std::string encode() const;

  /// The length of what `encode` returns, in bytes.
  std::size_t encodedLength() const;

  /// What that is at most, told without a look at the texts.
  std::size_t mostEncodedLength() const;

  /// Reads what `encode` wrote, in any member order; unknown members are ignored. Nothing if the
  /// text is no JSON, or if a member is missing or of the wrong type.
  static std::optional<Persisted> decode(std::string_view text);
};

}  // namespace tamsel
