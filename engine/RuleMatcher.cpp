#include "engine/RuleMatcher.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

#include "compiler/Unicode.h"

namespace tamsel {
namespace {

constexpr unsigned otherTypes = resourceTypeNames.size();  // the bit of names beyond the format's

// What one candidate costs of the budget, near enough.
constexpr std::int64_t candidateCost = 8;

// The URL with case folded away as ICU's expressions fold it: a text that one of them matches in
// the URL, in whatever case, stands in it in lower case.
std::string caseFolded(std::string_view url) {
  constexpr std::size_t longest = std::numeric_limits<std::int32_t>::max() / 4;
  const std::string text = Unicode::repaired(std::string(url.substr(0, longest)));
  std::string folded;
  icu::StringByteSink<std::string> sink(&folded);
  UErrorCode status = U_ZERO_ERROR;
  icu::CaseMap::utf8Fold(0, text, sink, nullptr, status);
  return folded;
}

}  // namespace

std::string_view RuleMatcher::CodeStore::add(std::string_view code) {
  if (code.size() > freeSize_) {
    // Blocks double up to a large page, so that a small list takes little.
    blockSize_ = std::min(blockSize_ * 2, LargeMemory::largePage);
    freeSize_ = std::max(blockSize_, code.size());
    free_ = blocks_.emplace_back().reserve(freeSize_);
  }
  if (!code.empty()) std::memcpy(free_, code.data(), code.size());
  const std::string_view stored(free_, code.size());
  free_ += code.size();
  freeSize_ -= code.size();
  return stored;
}

RuleMatcher::RuleMatcher(std::span<const SourcedRule> rules, DocumentForm form)
    : rules_(rules), form_(form) {
  addRules();
  shareExpressions();
  expressions_ = std::make_unique<Expressions>(groups_.size());
  compileExpressions();
  index_.emplace(makeIndex(PatternIndex::Keys::hostRunsAndTexts));
}

PatternIndex RuleMatcher::makeIndex(PatternIndex::Keys keys) const {
  return {groups_.size(), [this](std::size_t group) { return groups_[group].program; }, keys};
}

void RuleMatcher::addRules() {
  conditions_.reserve(rules_.size());
  const WKRule::Trigger* last = nullptr;
  std::string code;
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    const WKRule::Trigger& trigger = rules_[i].rule.trigger;
    const bool caseSensitive = trigger.caseSensitive.value_or(false);
    const bool continues = last != nullptr &&
                           last->urlFilter.sharesStorageWith(trigger.urlFilter) &&
                           last->caseSensitive.value_or(false) == caseSensitive;
    if (!continues) {
      const bool isHardenedException =
          form_ == DocumentForm::hardened && rules_[i].kind == RuleKind::exception;
      UrlProgram program =
          UrlProgram::compile(trigger.urlFilter, caseSensitive, isHardenedException, code);
      program.setCode(code_.add(code));
      groups_.push_back({program, static_cast<std::uint32_t>(i), 0, 0});
    }
    const Conditions& conditions = conditions_.emplace_back(conditionsOf(rules_[i]));
    ++groups_.back().ruleCount;
    groups_.back().types |= conditions.types;
    last = &trigger;
  }
}

// Expressions that only ICU understands are compiled once however many rules have them.
void RuleMatcher::shareExpressions() {
  std::array<std::unordered_map<std::string_view, std::size_t>, 2> known;  // by case sensitivity
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    const Group& group = groups_[i];
    if (group.program.exact) continue;
    const Text& filter = rules_[group.firstRule].rule.trigger.urlFilter;
    sharedExpressions_[i] = known[group.program.caseSensitive].try_emplace(filter, i).first->second;
  }
}

// No evaluation should pay for compiling the few expressions that a list has for ICU. Of a list
// that has them by the thousand the rest waits until it is used.
void RuleMatcher::compileExpressions() {
  std::int64_t left = 300'000'000;  // nanoseconds
  for (std::size_t i = 0; i < groups_.size() && left > 0; ++i) {
    if (groups_[i].program.exact || sharedExpressions_[i] != i) continue;
    left -= expressions_->compileAhead(i, filterOf(i), groups_[i].program.caseSensitive);
  }
}

RuleMatcher::Conditions RuleMatcher::conditionsOf(const SourcedRule& rule) {
  const WKRule::Trigger& trigger = rule.rule.trigger;
  Conditions conditions;
  conditions.types = typesOf(trigger.resourceType);
  if (trigger.loadType && !trigger.loadType->empty()) {
    const std::string_view first = (*trigger.loadType)[0];
    if (first == "third-party") conditions.party = Party::third;
    if (first == "first-party") conditions.party = Party::first;
  }
  conditions.ifDomain = domains_.add(trigger.ifDomain);
  conditions.unlessDomain = domains_.add(trigger.unlessDomain);
  return conditions;
}

RuleMatcher::TypeSet RuleMatcher::typeOf(std::string_view name) noexcept {
  const auto* found = std::find(resourceTypeNames.begin(), resourceTypeNames.end(), name);
  return static_cast<TypeSet>(1U << (found - resourceTypeNames.begin()));
}

RuleMatcher::TypeSet RuleMatcher::typesOf(const Maybe<TextList>& names) {
  if (!names) return std::numeric_limits<TypeSet>::max();
  TypeSet types = 0;
  for (std::string_view name : *names) types |= typeOf(name);
  return types;
}

// What ICU is given.
std::string RuleMatcher::filterOf(std::size_t group) const {
  const SourcedRule& rule = rules_[groups_[group].firstRule];
  const Text& filter = rule.rule.trigger.urlFilter;
  return form_ == DocumentForm::plain
             ? filter.string()
             : Hardening::urlFilter(filter, rule.kind == RuleKind::exception);
}

bool RuleMatcher::conditionsHold(std::size_t rule, const MatchRequest& request,
                                 TypeSet type) const {
  const Conditions& conditions = conditions_[rule];
  if ((conditions.types & type) == 0) return false;
  if (type == 1U << otherTypes) {
    const auto& names = rules_[rule].rule.trigger.resourceType;
    if (names && std::find(names->begin(), names->end(), request.type) == names->end()) {
      return false;
    }
  }
  if (conditions.party != Party::any && (conditions.party == Party::third) != request.thirdParty) {
    return false;
  }
  if (conditions.ifDomain != DomainConditions::none &&
      !(request.page && domains_.cover(conditions.ifDomain, *request.page))) {
    return false;
  }
  return conditions.unlessDomain == DomainConditions::none || !request.page ||
         !domains_.cover(conditions.unlessDomain, *request.page);
}

bool RuleMatcher::expressionMatches(std::size_t group, MatchRequest& request) const {
  const WKRule::Trigger& trigger = rules_[groups_[group].firstRule].rule.trigger;
  const auto shared = sharedExpressions_.find(group);
  return expressions_->matches(shared == sharedExpressions_.end() ? group : shared->second,
                               filterOf(group), trigger.caseSensitive.value_or(false),
                               request.expressionSubject, request.budget);
}

// One search among the candidates of a URL. They come in no particular order, so the earliest rule
// found so far is kept, and what stands behind it is not looked at any more.
class RuleMatcher::Search {
 public:
  Search(const RuleMatcher& matcher, MatchRequest& request)
      : matcher_(matcher), request_(request), type_(typeOf(request.type)) {}

  // Looks at a candidate; false when those behind it under the same key need no look.
  bool visit(std::size_t group, std::size_t position) {
    if (group >= bestGroup_) return false;
    if (!request_.budget.spend(candidateCost)) return false;
    if ((matcher_.groups_[group].types & type_) == 0) return true;
    // What needs a search through the URL is worth putting off: it may come again, and a rule
    // found meanwhile may stand before it.
    if (position == PatternIndex::anywhere && postpone(group)) return true;
    test(group, position);
    return true;
  }

  const SourcedRule* finish() {
    for (std::size_t i = 0; i < postponedCount_; ++i) test(postponed_[i], PatternIndex::anywhere);
    return best_ == nothing ? nullptr : &matcher_.rules_[best_];
  }

 private:
  static constexpr std::size_t nothing = static_cast<std::size_t>(-1);

  bool postpone(std::size_t group) {
    std::size_t* end = postponed_.data() + postponedCount_;
    if (std::find(postponed_.data(), end, group) != end) return true;
    if (postponedCount_ == postponed_.size()) return false;
    postponed_[postponedCount_++] = group;
    return true;
  }

  void test(std::size_t group, std::size_t position) {
    if (group >= bestGroup_) return;
    const Group& rules = matcher_.groups_[group];
    // A comparison at a position costs less than a look through domains, a search costs more.
    std::optional<bool> matched;
    if (position != PatternIndex::anywhere) {
      matched = matches(group, position);
      if (!*matched) return;
    }
    for (std::size_t i = 0; i < rules.ruleCount; ++i) {
      const std::size_t rule = rules.firstRule + i;
      if (!matcher_.conditionsHold(rule, request_, type_)) continue;
      if (!matched) matched = matches(group, position);
      if (*matched) keep(group, rule);
      return;
    }
  }

  void keep(std::size_t group, std::size_t rule) {
    bestGroup_ = group;
    best_ = rule;
    // Whoever asked will want to read the rule, which is likely to be far from the processor.
    const char* bytes = reinterpret_cast<const char*>(&matcher_.rules_[rule]);
    __builtin_prefetch(bytes);
    __builtin_prefetch(bytes + sizeof(SourcedRule) - 1);
  }

  bool matches(std::size_t group, std::size_t position) {
    const UrlProgram& program = matcher_.groups_[group].program;
    if (!program.exact) return matcher_.expressionMatches(group, request_);
    if (position == PatternIndex::anywhere) return program.matches(request_.url, request_.budget);
    return program.matchesAt(request_.url, position, request_.budget);
  }

  const RuleMatcher& matcher_;
  MatchRequest& request_;
  TypeSet type_;
  std::size_t best_ = nothing;  // the earliest rule that matches, so far
  std::size_t bestGroup_ = nothing;
  std::array<std::size_t, 64> postponed_;
  std::size_t postponedCount_ = 0;
};

const SourcedRule* RuleMatcher::firstMatch(MatchRequest& request) const {
  if (!request.url.isPrintableAscii()) return firstMatchBeyondAscii(request);
  Search search(*this, request);
  index_->forEachCandidate(
      request.url, [this](std::size_t group) { __builtin_prefetch(&groups_[group]); },
      [&search](std::size_t group, std::size_t position) { return search.visit(group, position); });
  return search.finish();
}

// Programs do not apply here: ICU decides on each candidate, and case folding may make several
// characters of one, so the candidates are looked up in the folded URL.
const SourcedRule* RuleMatcher::firstMatchBeyondAscii(MatchRequest& request) const {
  std::call_once(textIndexMade_,
                 [this] { textIndex_.emplace(makeIndex(PatternIndex::Keys::textsOnly)); });
  const std::string foldedText = caseFolded(request.url.original());
  const UrlText folded(foldedText);
  const TypeSet type = typeOf(request.type);
  std::vector<std::size_t> candidates;
  textIndex_->forEachCandidate(
      folded, [](std::size_t) {},
      [&](std::size_t group, std::size_t) {
        if ((groups_[group].types & type) != 0) candidates.push_back(group);
        return request.budget.spend(candidateCost);
      });
  std::sort(candidates.begin(), candidates.end());
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  for (std::size_t group : candidates) {
    std::optional<bool> matched;
    for (std::size_t i = 0; i < groups_[group].ruleCount; ++i) {
      const std::size_t rule = groups_[group].firstRule + i;
      if (!conditionsHold(rule, request, type)) continue;
      if (!matched) matched = expressionMatches(group, request);
      if (*matched) return &rules_[rule];
    }
  }
  return nullptr;
}

}  // namespace tamsel
