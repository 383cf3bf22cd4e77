#include "compiler/FilterCompiler.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "compiler/DocumentCollector.h"
#include "compiler/LineCompiler.h"
#include "compiler/RuleSet.h"
#include "compiler/Unicode.h"

namespace tamsel::FilterCompiler {
namespace {

// Cuts a text at its line breaks (LF, VT, FF, CR, U+0085, U+2028, U+2029).
class LineSplitter {
 public:
  explicit LineSplitter(std::string_view text) : rest_(text) {}

  // The next line, which may be empty; nothing at the end of the text.
  std::optional<std::string_view> next() {
    if (rest_.empty()) return std::nullopt;
    std::size_t end = 0;
    std::size_t breakLength = 0;
    while (true) {
      end = findCandidate(end);
      if (end == rest_.size()) break;
      breakLength = lineBreakLength(rest_.substr(end));
      if (breakLength != 0) break;
      ++end;
    }
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end + breakLength);
    return line;
  }

 private:
  // The first position from `from` on that could be a line break: a control character up to
  // U+000D or a byte of a longer sequence.
  std::size_t findCandidate(std::size_t from) const {
    constexpr std::uint64_t ones = 0x0101010101010101;
    constexpr std::uint64_t highBits = 0x80 * ones;
    std::size_t i = from;
    if constexpr (std::endian::native == std::endian::little) {
      for (; i + 8 <= rest_.size(); i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, rest_.data() + i, sizeof word);
        // Sets the high bit of every byte below 0x0E or above 0x7F. A borrow can only reach bytes
        // behind such a one, so the lowest bit is right.
        const std::uint64_t candidates = ((word - 0x0E * ones) | word) & highBits;
        if (candidates != 0) return i + static_cast<std::size_t>(std::countr_zero(candidates)) / 8;
      }
    }
    for (; i < rest_.size(); ++i) {
      const auto byte = static_cast<unsigned char>(rest_[i]);
      if (byte < 0x0E || byte >= 0x80) break;
    }
    return i;
  }

  static std::size_t lineBreakLength(std::string_view text) {
    if (text.front() >= '\n' && text.front() <= '\r') return 1;
    for (std::string_view wide : {"\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"}) {
      if (text.starts_with(wide)) return wide.size();
    }
    return 0;
  }

  std::string_view rest_;
};

// Gathers rules and drops duplicates. Rules wait in a short batch, so that the table's slots are
// on their way from memory before they are looked at: with a million rules most are far away.
class RuleCollector {
 public:
  RuleCollector(std::size_t textBytes, std::size_t limit)
      : limit_(limit), sets_{RuleSet(limit), RuleSet(limit), RuleSet(limit)} {
    // Large lists have a rule in every fifteen bytes, nearly all of them blocks. The limit keeps a
    // text that is nothing of the kind from being given more than it will use.
    constexpr std::size_t bytesPerRule = 15;
    constexpr std::size_t mostReserved = 4'000'000;
    setOf(RuleKind::block).reserve(std::min({textBytes / bytesPerRule, mostReserved, limit}));
  }

  std::vector<HashedRule>& batch() { return batch_; }

  void afterLine() {
    if (batch_.size() >= batchSize) flush();
  }

  // Sets the rules and whether there were more.
  void moveTo(ParseOutput& output) {
    flush();
    std::size_t count = 0;
    for (RuleSet& set : sets_) {
      count += set.rules().size();
      output.truncated = output.truncated || set.overflowed();
    }
    output.truncated = output.truncated || count > limit_;
    SourcedRules& all = setOf(RuleKind::block).rules();
    all.reserve(std::min(count, limit_));
    for (RuleKind kind : {RuleKind::exception, RuleKind::cosmetic}) {
      SourcedRules& rules = setOf(kind).rules();
      const std::size_t room = std::min(rules.size(), limit_ - all.size());
      all.insert(all.end(), std::make_move_iterator(rules.begin()),
                 std::make_move_iterator(rules.begin() + static_cast<std::ptrdiff_t>(room)));
      rules = {};
    }
    output.rules = std::move(all);
  }

 private:
  static constexpr std::size_t batchSize = 128;

  RuleSet& setOf(RuleKind kind) { return sets_[static_cast<std::size_t>(kind)]; }

  void flush() {
    for (const HashedRule& made : batch_) setOf(made.rule.kind).prefetch(made.hash);
    for (HashedRule& made : batch_) setOf(made.rule.kind).add(std::move(made.rule), made.hash);
    batch_.clear();
  }

  std::size_t limit_;
  std::vector<HashedRule> batch_;
  std::array<RuleSet, 3> sets_;  // by kind
};

// Hands the rules of all lines to the collector. `countOf` is asked for the count of a list's
// skipped lines.
template <typename Collector, typename CountOf>
void compileLines(std::span<const Input> inputs, Collector& collector,
                  std::vector<SkippedRule>& skipped, const CountOf& countOf) {
  LineCompiler compiler;
  for (const Input& input : inputs) {
    const Origin origin{input.id, input.name};
    std::size_t kept = 0;
    LineSplitter lines(input.text);
    while (const auto line = lines.next()) {
      const std::string_view trimmed = Unicode::trimmed(*line);
      const auto result = compiler.compile(trimmed, origin, collector.batch());
      if (const auto* skip = std::get_if<Skip>(&result)) {
        ++countOf(input.id);
        if (kept == maxSkippedPerList) continue;
        skipped.push_back({Uuid::random(), trimmed, skip->reason, input.id, input.name});
        ++kept;
      } else {
        collector.afterLine();
      }
    }
  }
}

}  // namespace

ParseOutput parse(std::span<const Input> inputs, std::size_t ruleLimit) {
  ParseOutput output;
  std::size_t textBytes = 0;
  for (const Input& input : inputs) textBytes += input.text.size();
  RuleCollector collector(textBytes, ruleLimit);
  compileLines(inputs, collector, output.skipped,
               [&](const Uuid& id) -> std::size_t& { return output.skippedCounts[id]; });
  collector.moveTo(output);
  return output;
}

DocumentReport compileDocument(std::span<const Input> inputs,
                               const std::function<void(std::string_view)>& write,
                               DocumentForm form) {
  DocumentReport report;
  DocumentCollector collector(write, form);
  compileLines(inputs, collector, report.skipped,
               [&](const Uuid& id) -> std::size_t& { return collector.stats()[id].skipped; });
  collector.finish();
  report.ruleCount = collector.ruleCount();
  report.stats = std::move(collector.stats());
  return report;
}

LineResult parseLine(std::string_view line, const Uuid& id, const Text& name) {
  const std::string_view trimmed = Unicode::trimmed(line);
  LineCompiler compiler;
  std::vector<HashedRule> made;
  const auto result = compiler.compile(trimmed, {id, name}, made);
  if (std::holds_alternative<LineCompiler::None>(result)) return {LineResult::None{}};
  if (const auto* skip = std::get_if<Skip>(&result)) {
    return {LineResult::Skipped{trimmed, skip->reason}};
  }
  LineResult::Rules rules;
  for (HashedRule& rule : made) rules.push_back(std::move(rule.rule));
  return {std::move(rules)};
}

std::string describe(const WKRule& rule) {
  std::string text(rule.trigger.urlFilter);
  text += rule.trigger.caseSensitive.value_or(false) ? "|true" : "|false";
  for (const Maybe<TextList>* list : {&rule.trigger.resourceType, &rule.trigger.loadType,
                                      &rule.trigger.ifDomain, &rule.trigger.unlessDomain}) {
    text += '|';
    if (!*list) continue;
    std::string_view separator;
    for (std::string_view item : **list) {
      text += separator;
      text += item;
      separator = ",";
    }
  }
  text += '|';
  text += rule.action.type.view();
  text += '|';
  if (rule.action.selector) text += rule.action.selector->view();
  return text;
}

}  // namespace tamsel::FilterCompiler
