#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "compiler/Skip.h"
#include "compiler/Text.h"

namespace tamsel::FilterCompiler {

/// The pieces of an element-hiding filter, `domains` # `marker` # `selector`.
struct CosmeticFilter {
  std::string_view domains;
  /// What stands between the two "#": nothing, or characters of "@?$%".
  std::string_view marker;
  std::string_view selector;
};

/// Cuts a line into its pieces if it is an element-hiding filter.
///
///     a.example,b.example##.ad   domains "a.example,b.example", marker "", selector ".ad"
///     #@#.ad                     marker "@"
///     a#b, # comment, ||a##b     not element hiding
std::optional<CosmeticFilter> splitCosmetic(std::string_view line) noexcept;

/// The trigger fields of a domain list; at most one is present, none when no domain is named.
struct DomainLists {
  Maybe<TextList> ifDomain;
  Maybe<TextList> unlessDomain;
  /// Equal for equal lists.
  std::uint64_t hash = 0;
};

/// Reads the domain lists of filters. Keeps its buffers from one call to the next.
class DomainParser {
 public:
  /// The lists are made from the pool.
  explicit DomainParser(TextPool& pool) : pool_(pool) {}

  /// Reads domains separated by `separator`, those to be excluded with "~" in front.
  std::variant<DomainLists, Skip> parseDomains(std::string_view list, char separator);

 private:
  std::optional<Skip> append(std::string_view domain);

  TextPool& pool_;
  std::string entries_;            // every entry read so far, each beginning with "*"
  std::vector<std::size_t> ends_;  // where each ends
};

}  // namespace tamsel::FilterCompiler
