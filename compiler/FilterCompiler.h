#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "compiler/DocumentForm.h"
#include "compiler/RuleModel.h"

/// Turns filter-list text (EasyList / uBlock Origin syntax) into content-blocker rules.
/// Every function is pure and may run on any thread.
namespace tamsel::FilterCompiler {

/// Skipped lines kept as records for each list; beyond it they are only counted.
inline constexpr std::size_t maxSkippedPerList = 5000;

/// One filter list. The text is any bytes; UTF-8 is expected and nothing else breaks it.
struct Input {
  Uuid id;
  Text name;
  std::string_view text;
};

/// What one line became.
struct LineResult {
  struct None {
    bool operator==(const None&) const = default;
  };
  struct Skipped {
    /// The line without the white space around it.
    Text line;
    Text reason;
    bool operator==(const Skipped&) const = default;
  };
  using Rules = std::vector<SourcedRule>;

  std::variant<None, Rules, Skipped> value;
};

inline constexpr std::size_t noLimit = std::numeric_limits<std::size_t>::max();

/// Compiles the lists, in the order given. A rule that an earlier line produced already, of the
/// same or an earlier list, is dropped. Never fails: what cannot be expressed is in `skipped`. Of
/// more than `ruleLimit` rules the first are returned; the others take no memory.
ParseOutput parse(std::span<const Input> inputs, std::size_t ruleLimit = noLimit);

/// What became of lists that were compiled into a document.
struct DocumentReport {
  std::size_t ruleCount = 0;
  /// As in ParseOutput.
  std::vector<SkippedRule> skipped;
  /// Of each list with rules or skipped lines.
  std::map<Uuid, ListStats> stats;
};

/// Compiles the lists as `parse` does, and hands the document of the rules to `write` piece by
/// piece, to the byte what RuleDocument::encode makes of them. The rules are not kept, so that
/// large lists take a fraction of the memory. Throws what `write` throws, and std::bad_alloc.
DocumentReport compileDocument(std::span<const Input> inputs,
                               const std::function<void(std::string_view)>& write,
                               DocumentForm form = DocumentForm::plain);

/// Compiles one line, without its line break, of the list `id` named `name`.
LineResult parseLine(std::string_view line, const Uuid& id, const Text& name);

/// The "url-filter" of a network filter's URL pattern (without "@@" and "$" options); nothing when
/// the pattern is empty, matches everything or has a non-ASCII character.
///
///     ||ads.example^     ^[^:]+:(//)?([^/]+\.)?ads\.example[^a-zA-Z0-9_.%-]
///     |https://a/*.js|   ^https://a/.*\.js$
std::optional<std::string> convertPattern(std::string_view pattern);

/// One line that two rules share exactly when they are the same rule: url-filter, case, resource
/// types, load types, if-domain, unless-domain, action type and selector, joined by "|".
std::string describe(const WKRule& rule);

}  // namespace tamsel::FilterCompiler
