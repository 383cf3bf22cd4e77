#include "compiler/LineCompiler.h"

#include <algorithm>
#include <array>
#include <string>

#include "compiler/Hash.h"
#include "compiler/Unicode.h"

namespace tamsel::FilterCompiler {
namespace {

// What marks a selector that no style sheet understands; the first of the table that occurs is
// the one named. Every one begins with a colon, which most selectors do not even have.
constexpr std::array<std::string_view, 19> proceduralTokens = {":has-text(",
                                                               ":xpath(",
                                                               ":matches-css",
                                                               ":upward(",
                                                               ":remove(",
                                                               ":style(",
                                                               ":-abp-",
                                                               ":contains(",
                                                               ":min-text-length(",
                                                               ":watch-attr(",
                                                               ":others(",
                                                               ":matches-path(",
                                                               ":nth-ancestor(",
                                                               ":if(",
                                                               ":if-not(",
                                                               ":matches-media(",
                                                               ":matches-attr(",
                                                               ":matches-property(",
                                                               "::"};

std::optional<std::string_view> proceduralToken(std::string_view selector) {
  std::size_t first = proceduralTokens.size();
  for (std::size_t colon = selector.find(':'); colon != std::string_view::npos;
       colon = selector.find(':', colon + 1)) {
    const std::string_view rest = selector.substr(colon);
    for (std::size_t i = 0; i < first; ++i) {
      if (rest.starts_with(proceduralTokens[i])) first = i;
    }
  }
  if (first == proceduralTokens.size()) return std::nullopt;
  return proceduralTokens[first];
}

std::optional<Skip> checkSelector(std::string_view selector) {
  if (selector.empty()) return Skip{"Empty selector"};
  if (selector.starts_with("+js(")) return Skip{"Scriptlet injection is not supported"};
  if (const auto token = proceduralToken(selector)) {
    return Skip{"Procedural selector " + std::string(*token) + " is not supported"};
  }
  if (!Unicode::isAscii(selector)) return Skip{"Non-ASCII selector"};
  return std::nullopt;
}

std::optional<Skip> checkMarker(std::string_view marker) {
  if (marker.empty()) return std::nullopt;
  if (marker == "@") {
    return Skip{"Cosmetic exception (#@#) can't target a single selector in WebKit"};
  }
  return Skip{"Procedural / script cosmetic filter (#" + std::string(marker) +
              "#) is not supported"};
}

// The second field of a line "0.0.0.0 host" or "127.0.0.1 host"; nothing for any other line.
std::optional<std::string_view> hostsFileField(std::string_view line) {
  constexpr std::string_view blank = " \t";
  for (std::string_view address : {"0.0.0.0", "127.0.0.1"}) {
    if (!line.starts_with(address)) continue;
    const std::string_view rest = line.substr(address.size());
    const std::size_t begin = rest.find_first_not_of(blank);
    if (begin == 0 || begin == std::string_view::npos) return std::nullopt;
    return rest.substr(begin, rest.find_first_of(blank, begin) - begin);
  }
  return std::nullopt;
}

struct CosmeticTexts {
  Text urlFilter = Text::immortal(".*");
  Text action = Text::immortal("css-display-none");

  static const CosmeticTexts& get() {
    static const CosmeticTexts texts;
    return texts;
  }
};

}  // namespace

std::variant<LineCompiler::None, LineCompiler::Rules, Skip> LineCompiler::compile(
    std::string_view line, const Origin& origin, std::vector<HashedRule>& rules) {
  if (line.empty() || line.front() == '!' || line.front() == '[') return None{};

  std::optional<Skip> skip;
  if (const auto filter = splitCosmetic(line)) {
    skip = cosmetic(*filter, line, origin, rules);
  } else if (line.front() == '#') {
    return None{};
  } else if (const auto field = hostsFileField(line)) {
    const std::string host = Unicode::lowercased(*field);
    if (host.find('.') == std::string::npos || host.front() == '#') return None{};
    skip = network_.network("||" + host + "^", line, origin, rules);
  } else {
    skip = network_.network(line, line, origin, rules);
  }
  if (skip) return *std::move(skip);
  return Rules{};
}

std::optional<Skip> LineCompiler::cosmetic(const CosmeticFilter& filter, std::string_view source,
                                           const Origin& origin, std::vector<HashedRule>& rules) {
  if (auto skip = checkMarker(filter.marker)) return skip;
  const std::string_view selector = Unicode::trimmed(filter.selector);
  if (auto skip = checkSelector(selector)) return skip;
  DomainLists domains;
  if (!filter.domains.empty()) {
    auto parsed = domains_.parseDomains(filter.domains, ',');
    if (auto* skip = std::get_if<Skip>(&parsed)) return std::move(*skip);
    domains = std::get<DomainLists>(std::move(parsed));
  }

  HashedRule& made = rules.emplace_back();
  made.hash = hashBytes(selector, domains.hash);
  WKRule& rule = made.rule.rule;
  rule.trigger.urlFilter = CosmeticTexts::get().urlFilter;
  rule.trigger.ifDomain = std::move(domains.ifDomain);
  rule.trigger.unlessDomain = std::move(domains.unlessDomain);
  rule.action.type = CosmeticTexts::get().action;
  rule.action.selector = pool_.text(selector);
  made.rule.kind = RuleKind::cosmetic;
  made.rule.source = pool_.text(source);
  made.rule.listID = origin.listID;
  made.rule.listName = origin.listName;
  return std::nullopt;
}

}  // namespace tamsel::FilterCompiler
