#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "compiler/ByteBuffer.h"
#include "compiler/RuleModel.h"
#include "engine/Budget.h"
#include "engine/DomainConditions.h"
#include "engine/Expressions.h"
#include "engine/PatternIndex.h"
#include "engine/UrlProgram.h"
#include "engine/UrlText.h"

namespace tamsel {

/// A request, prepared once for every rule that it is held against.
struct MatchRequest {
  const UrlText& url;
  /// Absent when the page is unknown.
  std::optional<PageHost> page;
  std::string_view type;
  bool thirdParty;
  Budget& budget;
  ExpressionSubject expressionSubject{url.original()};
};

/// Finds the first of a list of rules that a request matches.
class RuleMatcher {
 public:
  /// Refers to the rules, which must stay where they are.
  RuleMatcher(std::span<const SourcedRule> rules, DocumentForm form);

  /// The first rule, in the order given, that the request matches; null when none does.
  const SourcedRule* firstMatch(MatchRequest& request) const;

  std::span<const SourcedRule> rules() const noexcept { return rules_; }

 private:
  using TypeSet = std::uint16_t;  // a bit for each of resourceTypeNames, and one for other names

  enum class Party : std::uint8_t { any, third, first };

  // What of a rule's trigger can be tested without looking at the URL.
  struct Conditions {
    TypeSet types = 0;
    Party party = Party::any;
    DomainConditions::Id ifDomain = DomainConditions::none;
    DomainConditions::Id unlessDomain = DomainConditions::none;
  };

  // Neighbouring rules with the same expression, as both rules of one filter line are.
  struct Group {
    UrlProgram program;
    std::uint32_t firstRule = 0;
    std::uint32_t ruleCount = 0;
    TypeSet types = 0;  // of all its rules
  };

  // Code of programs, in blocks that stay where they are.
  class CodeStore {
   public:
    std::string_view add(std::string_view code);

   private:
    std::vector<ByteBuffer> blocks_;
    std::size_t blockSize_ = std::size_t{1} << 12;
    char* free_ = nullptr;
    std::size_t freeSize_ = 0;
  };

  class Search;

  void addRules();
  PatternIndex makeIndex(PatternIndex::Keys keys) const;
  void shareExpressions();
  void compileExpressions();
  Conditions conditionsOf(const SourcedRule& rule);
  std::string filterOf(std::size_t group) const;
  bool conditionsHold(std::size_t rule, const MatchRequest& request, TypeSet type) const;
  bool expressionMatches(std::size_t group, MatchRequest& request) const;
  const SourcedRule* firstMatchBeyondAscii(MatchRequest& request) const;

  static TypeSet typesOf(const Maybe<TextList>& names);
  static TypeSet typeOf(std::string_view name) noexcept;

  std::span<const SourcedRule> rules_;
  DocumentForm form_;
  LargeVector<Conditions> conditions_;  // by rule
  LargeVector<Group> groups_;
  // By group, for those without an exact program: the first group with the same expression.
  std::unordered_map<std::size_t, std::size_t> sharedExpressions_;
  CodeStore code_;
  DomainConditions domains_;
  std::unique_ptr<Expressions> expressions_;  // as many as groups
  std::optional<PatternIndex> index_;         // of the programs
  // The index for URLs that are not printable ASCII, made when the first one comes.
  mutable std::once_flag textIndexMade_;
  mutable std::optional<PatternIndex> textIndex_;
};

}  // namespace tamsel
