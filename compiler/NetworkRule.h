#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compiler/DomainList.h"
#include "compiler/RuleModel.h"
#include "compiler/Skip.h"

namespace tamsel::FilterCompiler {

/// A rule with a hash over its kind and every field of its `rule`: equal rules, equal hashes.
struct HashedRule {
  SourcedRule rule;
  std::uint64_t hash = 0;
};

/// The list that a line stands in.
struct Origin {
  Uuid listID;
  Text listName;
};

/// Converts network filters. Keeps its buffers from one call to the next.
class NetworkConverter {
 public:
  /// The texts of rules are made from the pool.
  explicit NetworkConverter(TextPool& pool) : pool_(pool), domains_(pool) {}

  /// Converts one network filter without white space around it: a URL pattern, perhaps with "@@"
  /// in front and "$" and options behind. Appends one or two rules, the main rule first, or none
  /// when it returns why the filter cannot be expressed. `source` is what the rules name as theirs.
  std::optional<Skip> network(std::string_view line, std::string_view source, const Origin& origin,
                              std::vector<HashedRule>& rules);

 private:
  using TypeSet = std::uint16_t;  // bits of the types named in NetworkRule.cpp

  enum class LoadType : std::uint8_t { any, thirdParty, firstParty };

  struct Options {
    bool caseSensitive = false;
    LoadType loadType = LoadType::any;
    TypeSet included = 0;
    TypeSet excluded = 0;
    DomainLists domains;
  };

  std::optional<Skip> convertUrlFilter(std::string_view pattern);
  std::optional<Skip> readOptions(std::string_view text, Options& options);
  std::optional<Skip> readOption(std::string_view piece, Options& options);

  TextPool& pool_;
  DomainParser domains_;
  std::string filter_;  // the url-filter of the line being converted
  std::string option_;  // the option being read, in lower case
};

}  // namespace tamsel::FilterCompiler
