#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "compiler/RuleModel.h"

namespace tamsel {

/// Rules that do what others do, in fewer: what is blocked, allowed and hidden stays the same for
/// every address, type, party and page.
struct RuleCombination {
  /// In the order of a document.
  LargeVector<WKRule> rules;

  /// The indexes of the rules that the one at `index` stands for; none for the step of step 3
  /// below.
  std::span<const std::uint32_t> sourcesOf(std::size_t index) const {
    return {sources.data() + ends[index], sources.data() + ends[index + 1]};
  }

  /// Where step 2 is, which may be empty, and where steps 3 and 4 end: the blocks of step 1 come
  /// before `sparingEnd`, those of step 3 from `stepEnd` to `blocksEnd`, exceptions up to
  /// `exceptionsEnd`.
  std::size_t sparingEnd = 0, stepEnd = 0, blocksEnd = 0, exceptionsEnd = 0;

  /// Rules from `first` up to `last`, which is not among them.
  struct Range {
    std::size_t first, last;
  };
  /// What makes up one document: the rules of these ranges, in order.
  using Document = std::vector<Range>;

  /// The fewest documents of at most `limit` rules that, used side by side, do what the whole does:
  /// blocks are divided, each division followed by the step and all exceptions, and element hiding,
  /// on which nothing acts, takes what room is left. Nothing if there are more exceptions than have
  /// room beside a block.
  std::optional<std::vector<Document>> split(std::size_t limit) const;

  // Those of the first rule, then those of the second; `ends[i + 1]` is where those of rule i end.
  std::vector<std::uint32_t> sources;
  std::vector<std::uint32_t> ends = {0};

  /// Combines what FilterCompiler made: blocks, then exceptions, then element hiding. Fewer than
  /// 2^32.
  ///
  /// Most filters become two rules, because they block frames of other sites only:
  ///
  ///     ||ads.example^    scripts, images, …  from anywhere
  ///                       documents           from third parties
  ///
  /// If it did not matter what becomes of documents of the first party, one rule for everything
  /// from anywhere would do. So
  ///   1. come the blocks that spare those documents, in as few rules as will do if they need not;
  ///   2. one rule ignores all of them again for documents of the first party;
  ///   3. follow the blocks that do block such documents, to the letter;
  ///   4. then the exceptions and the element hiding.
  /// Blocks with the same expression and the same pages are one group, whichever lines and lists
  /// they come from: what they block is a set of pairs of type and party, and the fewest rules that
  /// block this set are one for each of "any", "third" and "first" that some type has. The order of
  /// blocks does not matter, as each of them does nothing but block.
  static RuleCombination of(std::span<const SourcedRule> rules);
};

}  // namespace tamsel
