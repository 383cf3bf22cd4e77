#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "compiler/LargeMemory.h"
#include "compiler/Text.h"
#include "compiler/Uuid.h"

namespace tamsel {

/// The resource types of the content-blocker format that rules and requests can have.
inline constexpr std::array<std::string_view, 9> resourceTypeNames = {
    "document", "image", "svg-document", "script", "style-sheet", "font", "media", "raw", "popup"};

/// One rule of the WebKit content-blocker format.
struct WKRule {
  /// When the rule applies. A list that is absent restricts nothing.
  struct Trigger {
    /// Regular expression in the content-blocker dialect, searched for in the request URL.
    Text urlFilter;
    /// Absent means the format's default: letter case does not matter.
    std::optional<bool> caseSensitive;
    /// The format's resource-type names, for instance "image" and "svg-document".
    Maybe<TextList> resourceType;
    /// "first-party" or "third-party".
    Maybe<TextList> loadType;
    /// Page domains on which the rule applies: "*" and a lower-case domain cover the domain and
    /// its subdomains. The compiler never sets this together with `unlessDomain`.
    Maybe<TextList> ifDomain;
    /// Page domains on which the rule does not apply, in the same form.
    Maybe<TextList> unlessDomain;

    bool operator==(const Trigger&) const = default;
  };

  /// What WebKit does when the rule applies.
  struct Action {
    /// "block", "ignore-previous-rules" or "css-display-none".
    Text type;
    /// The CSS selector of a "css-display-none" rule.
    Maybe<Text> selector;

    bool operator==(const Action&) const = default;
  };

  Trigger trigger;
  Action action;

  bool operator==(const WKRule&) const = default;
};

/// What a compiled rule does, in the order in which rules stand in the document.
enum class RuleKind : std::uint8_t { block, exception, cosmetic };

/// "block", "exception" or "cosmetic".
std::string_view rawValue(RuleKind kind) noexcept;

/// A compiled rule and the filter line that it came from.
struct SourcedRule {
  WKRule rule;
  RuleKind kind = RuleKind::block;
  /// The line without the white space around it; for a hosts-file line, the whole line.
  Text source;
  Uuid listID;
  Text listName;

  bool operator==(const SourcedRule&) const = default;
};

/// Rules by the hundred thousand.
using SourcedRules = LargeVector<SourcedRule>;

/// A filter line that content-blocker rules cannot express.
struct SkippedRule {
  /// Made with the record; only tells records apart on screen.
  Uuid id;
  Text line;
  /// A sentence for the list's author.
  Text reason;
  Uuid listID;
  Text listName;

  bool operator==(const SkippedRule&) const = default;
};

/// What became of a set of filter lists.
struct ParseOutput {
  /// Every distinct rule: blocks, then exceptions, then element hiding; each in order of first
  /// appearance.
  SourcedRules rules;
  /// In the order met, at most `FilterCompiler::maxSkippedPerList` of each list.
  std::vector<SkippedRule> skipped;
  /// All skipped lines of each list that has any.
  std::map<Uuid, std::size_t> skippedCounts;
  /// Whether there were more rules than were asked for.
  bool truncated = false;
};

/// Counts of one list.
struct ListStats {
  std::size_t block = 0;
  std::size_t exception = 0;
  std::size_t cosmetic = 0;
  std::size_t skipped = 0;

  bool operator==(const ListStats&) const = default;
};

/// That of rules of this kind.
std::size_t& countOf(ListStats& stats, RuleKind kind) noexcept;

}  // namespace tamsel
