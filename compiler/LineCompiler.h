#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "compiler/DomainList.h"
#include "compiler/NetworkRule.h"

namespace tamsel::FilterCompiler {

/// Decides what a line of a filter list is and compiles it. Keeps its buffers from one line to the
/// next, so one of them serves a whole run.
class LineCompiler {
 public:
  /// The line is no filter: blank, a comment, a header, a hosts-file entry without a host.
  struct None {};
  /// The line yielded at least one rule.
  struct Rules {};

  /// What a line became: rules, which it appends to `rules`, or nothing, or a reason.
  /// `line` is a whole line without the white space around it.
  std::variant<None, Rules, Skip> compile(std::string_view line, const Origin& origin,
                                          std::vector<HashedRule>& rules);

 private:
  std::optional<Skip> cosmetic(const CosmeticFilter& filter, std::string_view source,
                               const Origin& origin, std::vector<HashedRule>& rules);

  TextPool pool_;
  DomainParser domains_{pool_};
  NetworkConverter network_{pool_};
};

}  // namespace tamsel::FilterCompiler
