#include "engine/Site.h"

#include <algorithm>
#include <cstring>
#include <optional>

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

// The labels of a host's key from the last to the first; a host of dots has none.
struct KeyLabels {
  std::array<std::string_view, 3> labels;
  std::size_t count = 0;

  bool operator==(const KeyLabels&) const = default;
};

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

KeyLabels keyLabels(std::string_view host) noexcept {
  KeyLabels key;
  while (key.count < 2) {
    const auto label = takeLastLabel(host);
    if (!label) return key;
    key.labels[key.count++] = *label;
  }
  const auto isSuffix = [&key](const auto& suffix) {
    return suffix.second == key.labels[0] && suffix.first == key.labels[1];
  };
  // None of the suffixes has a longer part, which spares most hosts the search.
  constexpr std::size_t longestPart = 3;
  if (key.labels[0].size() <= longestPart && key.labels[1].size() <= longestPart &&
      std::any_of(twoPartSuffixes.begin(), twoPartSuffixes.end(), isSuffix)) {
    if (const auto label = takeLastLabel(host)) key.labels[key.count++] = *label;
  }
  return key;
}

}  // namespace

std::string key(std::string_view host) {
  const std::string lower = Unicode::lowercased(host);
  const KeyLabels labels = keyLabels(lower);
  std::string text;
  for (std::size_t i = labels.count; i-- > 0;) {
    text += labels.labels[i];
    if (i != 0) text += '.';
  }
  return text;
}

bool isSame(std::string_view lowerCaseHost, std::string_view otherLowerCaseHost) noexcept {
  return keyLabels(lowerCaseHost) == keyLabels(otherLowerCaseHost);
}

}  // namespace tamsel::Site
