#include "engine/Engine.h"

#include <algorithm>
#include <array>
#include <string>

#include "compiler/Unicode.h"
#include "engine/HostGuard.h"
#include "engine/RuleMatcher.h"
#include "engine/Site.h"
#include "engine/UrlHost.h"

namespace tamsel {
namespace {

// The host of a URL in lower case, if it has one.
class LowerHost {
 public:
  explicit LowerHost(std::optional<std::string_view> url) {
    const auto host = url ? hostOfUrl(*url) : std::nullopt;
    if (!host) return;
    if (host->size() <= buffer_.size() && Unicode::isAscii(*host)) {
      std::transform(host->begin(), host->end(), buffer_.begin(), Unicode::asciiLower);
      text_ = {buffer_.data(), host->size()};
    } else {
      text_ = long_ = Unicode::lowercased(*host);
    }
    known_ = true;
  }
  LowerHost(const LowerHost&) = delete;
  LowerHost& operator=(const LowerHost&) = delete;

  explicit operator bool() const noexcept { return known_; }
  std::string_view view() const noexcept { return text_; }

 private:
  std::array<char, 64> buffer_;  // holds nearly every host
  std::string long_;             // for the others
  std::string_view text_;
  bool known_ = false;
};

// The network rules with the blocks in front, each kind in the order given.
SourcedRules networkRules(SourcedRules rules) {
  const auto byKind = [](const SourcedRule& a, const SourcedRule& b) { return a.kind < b.kind; };
  if (!std::is_sorted(rules.begin(), rules.end(), byKind)) {
    std::stable_sort(rules.begin(), rules.end(), byKind);
  }
  while (!rules.empty() && rules.back().kind == RuleKind::cosmetic) rules.pop_back();
  return rules;
}

std::span<const SourcedRule> ofKind(const SourcedRules& rules, RuleKind kind) {
  const auto byKind = [](const SourcedRule& rule, RuleKind value) { return rule.kind < value; };
  const auto begin = std::lower_bound(rules.begin(), rules.end(), kind, byKind);
  auto end = rules.end();
  if (kind == RuleKind::block) {
    end = std::lower_bound(begin, rules.end(), RuleKind::exception, byKind);
  }
  return {begin, end};
}

std::optional<SourcedRule> copied(const SourcedRule* rule) {
  return rule == nullptr ? std::nullopt : std::optional(*rule);
}

}  // namespace

struct Engine::State {
  State(SourcedRules all, DocumentForm ofDocument)
      : form(ofDocument),
        isGuarded(ofDocument == DocumentForm::hardened && !all.empty()),
        rules(networkRules(std::move(all))),
        blocks(ofKind(rules, RuleKind::block), ofDocument),
        exceptions(ofKind(rules, RuleKind::exception), ofDocument) {}

  const DocumentForm form;
  // Without rules there is no document, and no guard in it.
  const bool isGuarded;
  const SourcedRules rules;
  const RuleMatcher blocks;
  const RuleMatcher exceptions;
};

Engine::Engine(SourcedRules rules, DocumentForm form)
    : state_(std::make_unique<const State>(std::move(rules), form)) {}

Engine::~Engine() = default;

Engine::Verdict Engine::evaluate(std::string_view url, std::optional<std::string_view> pageURL,
                                 std::string_view type) const {
  const bool isHardened = state_->form == DocumentForm::hardened;
  const LowerHost pageHost(pageURL);
  const LowerHost requestHost(url);
  Verdict verdict;
  verdict.thirdParty =
      pageHost && requestHost && !Site::isSame(pageHost.view(), requestHost.view());

  if (state_->isGuarded && verdict.thirdParty) {
    verdict.block = HostGuard::ruleAgainst(url);
    if (verdict.block) return verdict;
  }

  const UrlText text(url, state_->form);
  std::string_view page = pageHost.view();
  if (isHardened && page.ends_with('.')) page.remove_suffix(1);
  Budget budget;
  MatchRequest request{text, pageHost ? std::optional(PageHost(page)) : std::nullopt, type,
                       verdict.thirdParty, budget};
  const SourcedRule* block = state_->blocks.firstMatch(request);
  const SourcedRule* exception =
      block == nullptr ? nullptr : state_->exceptions.firstMatch(request);
  verdict.block = copied(block);
  verdict.exception = copied(exception);
  return verdict;
}

std::span<const SourcedRule> Engine::blocks() const noexcept {
  return state_->blocks.rules();
}

std::span<const SourcedRule> Engine::exceptions() const noexcept {
  return state_->exceptions.rules();
}

}  // namespace tamsel
