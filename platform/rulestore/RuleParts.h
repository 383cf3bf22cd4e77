#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tamsel {

/// A rule that does not go into a compiled list.
struct RefusedRule {
  /// Counted from 0 in the document.
  std::size_t index;
  /// A sentence: WebKit's own where it gives one.
  std::string reason;

  bool operator==(const RefusedRule&) const = default;
};

/// A content-blocker document, taken apart into its rules as they stand there, so that parts of it
/// can be put before WebKit.
class RuleParts {
 public:
  /// Rules from `first` up to `last`, which is not among them.
  struct Range {
    std::size_t first, last;
  };
  /// What makes up one document for WebKit: the rules of these ranges, in order.
  using Part = std::vector<Range>;

  /// The text is no JSON array; `what` is the reason.
  struct Malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  /// Reads the document, which must outlive this, and holds its expressions, domains and selectors
  /// against ContentBlockerDialect. What else a rule can have wrong is left to WebKit to find.
  /// Throws Malformed.
  explicit RuleParts(std::string_view document);

  std::size_t count() const noexcept { return rules_.size(); }
  std::string_view rule(std::size_t index) const noexcept { return rules_[index].text; }

  /// The rules that WebKit would refuse or not survive, in order.
  const std::vector<RefusedRule>& refused() const noexcept { return refused_; }

  /// The most rules with conditions, such as "if-domain", in one document. If 65,535 of them can
  /// apply to one URL, WebKit aborts.
  static constexpr std::size_t maxConditioned = 65000;

  /// Documents that together do what the whole does. A small one stays whole. Otherwise, where
  /// blocks are followed by exceptions and these by element hiding, as the compiler writes them,
  /// the blocks are divided and each division has all exceptions after it, since an exception acts
  /// on the rules before it in its own document; element hiding at the end, which nothing acts on,
  /// is divided as well. Blocks behind all these go with the last part. So there is no end to the
  /// rules with conditions that are taken, several documents can be compiled at once, and since
  /// where the divisions lie depends on the rules around, a change in one place leaves most parts
  /// as they were.
  const std::vector<Part>& parts() const noexcept { return parts_; }

  /// The text of a part, in pieces that stay valid as long as this and the document.
  std::vector<std::string_view> document(const Part& part) const;

  /// The first rule in the range with this expression as its "url-filter", or with a condition that
  /// WebKit makes this expression of.
  std::optional<std::size_t> find(std::string_view expression, const Range& range) const;

 private:
  enum class Kind : std::uint8_t { block, exception, hide, other };
  struct Rule {
    std::string_view text;
    Kind kind;
    bool conditioned;
  };
  class Reader;

  void divide();
  void refuseSurplus();

  std::vector<Rule> rules_;
  std::vector<RefusedRule> refused_;
  std::vector<Part> parts_;
};

}  // namespace tamsel
