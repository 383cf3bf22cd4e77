#include "engine/Site.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "compiler/Unicode.h"

namespace tamsel::Site {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 10> twoPartSuffixes = {
    {{"co", "uk"},
     {"org", "uk"},
     {"ac", "uk"},
     {"com", "au"},
     {"net", "au"},
     {"co", "jp"},
     {"co", "nz"},
     {"com", "br"},
     {"co", "in"},
     {"com", "cn"}}};

// Takes the last label off the host, passing over empty ones.
std::optional<std::string_view> takeLastLabel(std::string_view& host) noexcept {
  std::size_t end = host.size();
  while (end > 0 && host[end - 1] == '.') --end;
  if (end == 0) return std::nullopt;
  const void* dot = ::memrchr(host.data(), '.', end);
  const std::size_t begin =
      dot == nullptr ? 0
                     : static_cast<std::size_t>(static_cast<const char*>(dot) - host.data()) + 1;
  const std::string_view label = host.substr(begin, end - begin);
  host = host.substr(0, begin);
  return label;
}

bool isTwoPartSuffix(std::string_view first, std::string_view second) noexcept {
  // No part is longer, which spares most hosts the search.
  constexpr std::size_t longestPart = 3;
  if (first.size() > longestPart || second.size() > longestPart) return false;
  return std::find(twoPartSuffixes.begin(), twoPartSuffixes.end(), std::pair(first, second)) !=
         twoPartSuffixes.end();
}

}  // namespace

std::string key(std::string_view host) {
  const std::string lower = Unicode::lowercased(host);
  std::string_view rest = lower;
  const auto last = takeLastLabel(rest);
  if (!last) return {};
  std::string text(*last);
  const auto prepend = [&text](std::string_view label) { text.insert(0, ".").insert(0, label); };
  const auto second = takeLastLabel(rest);
  if (!second) return text;
  prepend(*second);
  if (!isTwoPartSuffix(*second, *last)) return text;
  if (const auto third = takeLastLabel(rest)) prepend(*third);
  return text;
}

bool isSame(std::string_view lowerCaseHost, std::string_view otherLowerCaseHost) noexcept {
  // Label by label from the end, as far as the keys go; most hosts differ in the first already.
  const auto last = takeLastLabel(lowerCaseHost);
  if (last != takeLastLabel(otherLowerCaseHost)) return false;
  const auto second = takeLastLabel(lowerCaseHost);
  if (second != takeLastLabel(otherLowerCaseHost)) return false;
  if (!last || !second || !isTwoPartSuffix(*second, *last)) return true;
  return takeLastLabel(lowerCaseHost) == takeLastLabel(otherLowerCaseHost);
}

}  // namespace tamsel::Site
