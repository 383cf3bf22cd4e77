#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "compiler/DocumentForm.h"
#include "compiler/RuleModel.h"

namespace tamsel {

/// Answers which network rule blocks a request and which exception allows it, as a scan over all
/// rules in order would, without scanning. Immutable once built: any number of threads may
/// evaluate at once.
class Engine {
 public:
  /// The answer to one request. It is blocked when `block` is present and `exception` is not.
  struct Verdict {
    /// The first block rule that matches.
    std::optional<SourcedRule> block;
    /// The first exception that matches; only looked for when a block rule does.
    std::optional<SourcedRule> exception;
    /// Both hosts are known and are of different sites.
    bool thirdParty = false;

    bool operator==(const Verdict&) const = default;
  };

  /// Element-hiding rules are left out. A rule whose expression is invalid never matches. `form` is
  /// that of the document by which the rules act; with a hardened one, the rules behind all others
  /// answer first, as rules of the list "Tamsel".
  explicit Engine(SourcedRules rules, DocumentForm form = DocumentForm::plain);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// `type` is a resource-type name of the content-blocker format; `pageURL` the page that makes
  /// the request, if it is known.
  Verdict evaluate(std::string_view url, std::optional<std::string_view> pageURL,
                   std::string_view type) const;

  /// The block rules and the exceptions, each in the order given; they live as long as the engine.
  std::span<const SourcedRule> blocks() const noexcept;
  std::span<const SourcedRule> exceptions() const noexcept;

 private:
  struct State;
  std::unique_ptr<const State> state_;
};

}  // namespace tamsel
