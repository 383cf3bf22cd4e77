#pragma once

#include <optional>
#include <string>

namespace tamsel {

/// The parts of a URL that matter here.
struct Address {
  /// In the letter case that the URL has it in.
  std::string scheme;
  /// Empty if there is none.
  std::string host;

  /// Nothing if the text is no absolute URL.
  static std::optional<Address> parse(const std::string& url);
};

}  // namespace tamsel
