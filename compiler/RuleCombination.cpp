#include "compiler/RuleCombination.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <optional>
#include <utility>

#include "compiler/Hash.h"

namespace tamsel {
namespace {

constexpr std::size_t typeCount = resourceTypeNames.size();
// A bit for each of resourceTypeNames, of which the document is the first.
using TypeSet = std::uint16_t;
constexpr TypeSet document = 1;

// What a rule blocks: types from first parties and types from third parties.
struct Cells {
  TypeSet first = 0, third = 0;

  Cells operator|(Cells other) const {
    return {static_cast<TypeSet>(first | other.first), static_cast<TypeSet>(third | other.third)};
  }
  bool overlaps(Cells other) const {
    return (first & other.first) != 0 || (third & other.third) != 0;
  }
};

enum class Party : std::uint8_t { any, third, first };
constexpr std::array<Party, 3> parties = {Party::any, Party::third, Party::first};

// What FilterCompiler writes as types, by the storage that rules share.
class TypeSets {
 public:
  // Nothing if there is a name among them that is not of the format.
  std::optional<TypeSet> of(const TextList& names) {
    const auto [found, isNew] = known_.try_emplace(names.storage(), std::nullopt);
    if (isNew) found->second = read(names);
    return found->second;
  }

 private:
  static std::optional<TypeSet> read(const TextList& names) {
    TypeSet set = 0;
    for (const std::string_view name : names) {
      const auto* type = std::find(resourceTypeNames.begin(), resourceTypeNames.end(), name);
      if (type == resourceTypeNames.end()) return std::nullopt;
      set = static_cast<TypeSet>(set | (1 << (type - resourceTypeNames.begin())));
    }
    return set;
  }

  std::map<const void*, std::optional<TypeSet>> known_;
};

// The lists that combined rules have, each made once; their names are sorted, as others' are.
class Lists {
 public:
  const TextList& types(TypeSet set) {
    const auto [found, isNew] = types_.try_emplace(set);
    if (isNew) {
      std::vector<std::string_view> names;
      for (std::size_t i = 0; i < typeCount; ++i) {
        if ((set >> i & 1U) != 0) names.push_back(resourceTypeNames.at(i));
      }
      std::sort(names.begin(), names.end());
      found->second = TextList(names);
    }
    return found->second;
  }
  Maybe<TextList> party(Party party) const {
    if (party == Party::any) return std::nullopt;
    return party == Party::third ? third_ : first_;
  }

 private:
  std::map<TypeSet, TextList> types_;
  TextList third_{"third-party"}, first_{"first-party"};
};

std::uint64_t hashOf(const Maybe<TextList>& list, std::uint64_t seed) {
  if (!list) return seed;
  for (const std::string_view item : *list) seed = hashBytes(item, seed);
  return seed + 1;
}

bool haveSamePlace(const WKRule::Trigger& a, const WKRule::Trigger& b) {
  return a.urlFilter == b.urlFilter && a.caseSensitive == b.caseSensitive &&
         a.ifDomain == b.ifDomain && a.unlessDomain == b.unlessDomain;
}

// Blocks with the same expression and pages.
class BlockGroups {
 public:
  struct Group {
    std::uint32_t firstRule;
    std::uint32_t lastRule;  // of a chain through `next`
    Cells cells;
  };

  BlockGroups(std::span<const SourcedRule> rules, std::size_t count) : rules_(rules), next_(count) {
    slots_.resize(std::bit_ceil(count * 2 + 1), none);
  }

  void add(std::uint32_t rule, Cells cells) {
    Group& group = groupOf(rule);
    group.cells = group.cells | cells;
    next_[rule] = none;
    if (group.firstRule != rule) next_[std::exchange(group.lastRule, rule)] = rule;
  }

  const std::vector<Group>& groups() const { return groups_; }
  std::uint32_t next(std::uint32_t rule) const { return next_[rule]; }
  static constexpr std::uint32_t none = 0xFFFFFFFF;

 private:
  Group& groupOf(std::uint32_t rule) {
    const WKRule::Trigger& trigger = rules_[rule].rule.trigger;
    // Both rules of a line share their texts.
    if (!groups_.empty()) {
      const WKRule::Trigger& last = rules_[groups_.back().firstRule].rule.trigger;
      if (last.urlFilter.sharesStorageWith(trigger.urlFilter) && haveSamePlace(last, trigger)) {
        return groups_.back();
      }
    }
    std::uint64_t hash = hashBytes(trigger.urlFilter, trigger.caseSensitive.value_or(false));
    hash = hashOf(trigger.unlessDomain, hashOf(trigger.ifDomain, hash));
    std::size_t slot = hash & (slots_.size() - 1);
    while (slots_[slot] != none) {
      Group& group = groups_[slots_[slot]];
      if (haveSamePlace(rules_[group.firstRule].rule.trigger, trigger)) return group;
      slot = (slot + 1) & (slots_.size() - 1);
    }
    slots_[slot] = static_cast<std::uint32_t>(groups_.size());
    return groups_.emplace_back(Group{rule, rule, {}});
  }

  std::span<const SourcedRule> rules_;
  LargeVector<std::uint32_t> slots_;
  std::vector<Group> groups_;
  LargeVector<std::uint32_t> next_;
};

// Puts the combination together, rule by rule.
class Combiner {
 public:
  explicit Combiner(std::span<const SourcedRule> rules) : rules_(rules) {}

  RuleCombination run() {
    const auto isNoBlock = [](const SourcedRule& rule) { return rule.kind != RuleKind::block; };
    const auto blocksEnd = static_cast<std::size_t>(
        std::find_if(rules_.begin(), rules_.end(), isNoBlock) - rules_.begin());
    BlockGroups groups(rules_, blocksEnd);
    std::vector<std::uint32_t> others;  // with types that are none of the format's
    cells_.resize(blocksEnd);
    for (std::uint32_t i = 0; i < blocksEnd; ++i) {
      const std::optional<Cells> cells = cellsOf(rules_[i].rule.trigger);
      if (cells) {
        groups.add(i, cells_[i] = *cells);
      } else {
        others.push_back(i);
      }
    }

    result_.rules.reserve(rules_.size());
    bool needsStep = false;
    for (const BlockGroups::Group& group : groups.groups()) {
      if ((group.cells.first & document) == 0) needsStep |= addSparing(groups, group);
    }
    result_.sparingEnd = result_.rules.size();
    if (needsStep) addStep();
    result_.stepEnd = result_.rules.size();
    for (const BlockGroups::Group& group : groups.groups()) {
      if ((group.cells.first & document) != 0) addExactly(groups, group, group.cells);
    }
    for (const std::uint32_t rule : others) addAsItIs(rule);
    result_.blocksEnd = result_.exceptionsEnd = result_.rules.size();
    for (std::size_t i = blocksEnd; i < rules_.size(); ++i) {
      addAsItIs(static_cast<std::uint32_t>(i));
      if (rules_[i].kind == RuleKind::exception) result_.exceptionsEnd = result_.rules.size();
    }
    return std::move(result_);
  }

 private:
  std::optional<Cells> cellsOf(const WKRule::Trigger& trigger) {
    if (!trigger.resourceType) return std::nullopt;
    const std::optional<TypeSet> types = typeSets_.of(*trigger.resourceType);
    if (!types) return std::nullopt;
    if (!trigger.loadType || trigger.loadType->empty()) return Cells{*types, *types};
    if (trigger.loadType->size() != 1) return std::nullopt;
    const std::string_view party = (*trigger.loadType)[0];
    if (party == "third-party") return Cells{0, *types};
    if (party == "first-party") return Cells{*types, 0};
    return std::nullopt;
  }

  // Blocks documents of the first party as well where that saves a rule. Returns whether it does.
  bool addSparing(const BlockGroups& groups, const BlockGroups::Group& group) {
    Cells cells = group.cells;
    const bool hasThirdDocument = (cells.third & document) != 0;
    const bool hasAny = (cells.first & cells.third) != 0;
    const bool hasOtherThird = (cells.third & ~cells.first & ~document) != 0;
    const bool saves = hasThirdDocument && hasAny && !hasOtherThird;
    if (saves) cells.first = static_cast<TypeSet>(cells.first | document);
    addExactly(groups, group, cells);
    return saves;
  }

  void addExactly(const BlockGroups& groups, const BlockGroups::Group& group, Cells cells) {
    for (const Party party : parties) {
      const TypeSet types =
          party == Party::any
              ? cells.first & cells.third
              : (party == Party::third ? cells.third & ~cells.first : cells.first & ~cells.third);
      if (types == 0) continue;
      const Cells covered = party == Party::any
                                ? Cells{types, types}
                                : (party == Party::third ? Cells{0, types} : Cells{types, 0});
      WKRule rule = rules_[group.firstRule].rule;
      rule.trigger.resourceType = lists_.types(types);
      rule.trigger.loadType = lists_.party(party);
      result_.rules.push_back(std::move(rule));
      for (std::uint32_t i = group.firstRule; i != BlockGroups::none; i = groups.next(i)) {
        if (cells_[i].overlaps(covered)) result_.sources.push_back(i);
      }
      endRule();
    }
  }

  void addStep() {
    WKRule rule;
    rule.action.type = "ignore-previous-rules";
    rule.trigger.urlFilter = ".*";
    rule.trigger.resourceType = lists_.types(document);
    rule.trigger.loadType = lists_.party(Party::first);
    result_.rules.push_back(std::move(rule));
    endRule();
  }

  void addAsItIs(std::uint32_t index) {
    result_.rules.push_back(rules_[index].rule);
    result_.sources.push_back(index);
    endRule();
  }

  void endRule() { result_.ends.push_back(static_cast<std::uint32_t>(result_.sources.size())); }

  std::span<const SourcedRule> rules_;
  LargeVector<Cells> cells_;  // by block
  TypeSets typeSets_;
  Lists lists_;
  RuleCombination result_;
};

}  // namespace

std::optional<std::vector<RuleCombination::Document>> RuleCombination::split(
    std::size_t limit) const {
  // WebKit bears no more rules with conditions that could apply to one address.
  constexpr std::size_t mostConditioned = 65000;
  const std::size_t repeated =
      blocksEnd == 0 ? 0 : exceptionsEnd - blocksEnd + stepEnd - sparingEnd;
  if (repeated >= limit) return std::nullopt;

  std::vector<Document> documents;
  std::size_t nextHiding = exceptionsEnd;
  const auto addHiding = [&](std::size_t room) {
    const std::size_t count = std::min({room, rules.size() - nextHiding, mostConditioned});
    if (count == 0) return;
    documents.back().push_back({nextHiding, nextHiding + count});
    nextHiding += count;
  };
  // Of both steps' blocks, as if the step itself were not between.
  const std::size_t step = stepEnd - sparingEnd;
  const std::size_t blocks = blocksEnd - step;
  for (std::size_t first = 0; first < blocks;) {
    const std::size_t last = std::min(blocks, first + limit - repeated);
    Document& document = documents.emplace_back();
    if (first < sparingEnd) {
      document.push_back({first, std::min(last, sparingEnd)});
      document.push_back({sparingEnd, stepEnd});
    }
    if (last > sparingEnd) document.push_back({std::max(first, sparingEnd) + step, last + step});
    document.push_back({blocksEnd, exceptionsEnd});
    std::erase_if(document, [](const Range& range) { return range.first == range.last; });
    addHiding(limit - repeated - (last - first));
    first = last;
  }
  while (nextHiding < rules.size()) {
    documents.emplace_back();
    addHiding(limit);
  }
  return documents;
}

RuleCombination RuleCombination::of(std::span<const SourcedRule> rules) {
  return Combiner(rules).run();
}

}  // namespace tamsel
