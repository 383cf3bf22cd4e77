#include "engine/HostGuard.h"

#include "compiler/DocumentForm.h"

namespace tamsel::HostGuard {
namespace {

SourcedRule makeRule(const Hardening::GuardRule& guard) {
  SourcedRule rule;
  rule.rule.trigger.urlFilter = guard.urlFilter;
  rule.rule.trigger.loadType = TextList({"third-party"});
  rule.rule.action.type = "block";
  rule.source = guard.source;
  rule.listName = "Tamsel";
  return rule;
}

// Between "://" and the next "/", "?" or "#"; nothing if there is no scheme.
std::optional<std::string_view> authorityOf(std::string_view url) {
  const std::size_t colon = url.find(':');
  if (colon == 0 || colon == std::string_view::npos) return std::nullopt;
  std::string_view rest = url.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  return rest.substr(0, rest.find_first_of("/?#"));
}

// Whether the authority, before a port, ends in a dot.
bool endsInDot(std::string_view authority) {
  const std::size_t end = authority.find_last_not_of("0123456789");
  if (end != std::string_view::npos && authority[end] == ':' && end + 1 < authority.size()) {
    authority = authority.substr(0, end);
  }
  return authority.ends_with('.');
}

}  // namespace

const std::array<SourcedRule, 2>& rules() {
  static const std::array<SourcedRule, 2> made = {makeRule(Hardening::guard[0]),
                                                  makeRule(Hardening::guard[1])};
  return made;
}

std::optional<SourcedRule> ruleAgainst(std::string_view url) {
  const std::optional<std::string_view> authority = authorityOf(url);
  if (!authority) return std::nullopt;
  if (authority->find('@') != std::string_view::npos) return rules()[0];
  const bool hasPath = authority->data() + authority->size() != url.data() + url.size() &&
                       *(authority->data() + authority->size()) == '/';
  return hasPath && endsInDot(*authority) ? std::optional(rules()[1]) : std::nullopt;
}

}  // namespace tamsel::HostGuard
