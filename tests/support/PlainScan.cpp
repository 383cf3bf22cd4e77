#include "tests/support/PlainScan.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>

#include "engine/HostGuard.h"
#include "engine/Site.h"

namespace tamsel::test {
namespace {

icu::UnicodeString utf16(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

bool covers(std::string_view entry, std::string_view host) {
  if (entry.starts_with('*')) entry.remove_prefix(1);
  return host == entry || host.ends_with("." + std::string(entry));
}

bool covers(const TextList& entries, std::string_view host) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](std::string_view entry) { return covers(entry, host); });
}

}  // namespace

struct PlainScan::Request {
  icu::UnicodeString url;
  std::optional<std::string> pageHost;
  std::string_view type;
  bool thirdParty = false;
};

std::optional<std::string> PlainScan::hostOf(std::string_view url) {
  // The scheme, no blank up to the end, the user, the host (in brackets or not), the port.
  static const std::string authority =
      R"(^([a-zA-Z][a-zA-Z0-9+.-]*:)?//(?=[^/?#\x00-\x20\x7F]*([/?#]|\z))([^/?#]*@)?)"
      R"((?:\[([^\]/?#@]+)\]|([^\[:/?#@][^:/?#@]*))(:0*([0-9]{0,4}|[1-5][0-9]{4}|6[0-4][0-9]{3}|)"
      R"(65[0-4][0-9]{2}|655[0-2][0-9]|6553[0-5]))?([/?#]|\z))";
  UErrorCode status = U_ZERO_ERROR;
  static icu::RegexMatcher form(utf16(authority), 0, status);
  const icu::UnicodeString text = utf16(url);
  form.reset(text);
  if (form.find(status) == 0) return std::nullopt;
  std::string lower;
  return (form.group(4, status) + form.group(5, status))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(lower);
}

Engine::Verdict PlainScan::evaluate(std::string_view url, std::optional<std::string_view> pageURL,
                                    std::string_view type) {
  const std::optional<std::string> host = hostOf(url);
  Request request{utf16(url), pageURL ? hostOf(*pageURL) : std::nullopt, type};
  request.thirdParty = host && request.pageHost && Site::key(*host) != Site::key(*request.pageHost);

  Engine::Verdict verdict;
  verdict.thirdParty = request.thirdParty;
  if (form_ == DocumentForm::hardened) {
    verdict.block = guardAgainst(request);
    if (verdict.block) return verdict;
    if (request.pageHost && request.pageHost->ends_with('.')) request.pageHost->pop_back();
  }
  verdict.block = firstMatch(RuleKind::block, request);
  if (verdict.block) verdict.exception = firstMatch(RuleKind::exception, request);
  return verdict;
}

std::optional<SourcedRule> PlainScan::firstMatch(RuleKind kind, const Request& request) {
  for (const SourcedRule& rule : rules_) {
    if (rule.kind == kind && matches(rule, request)) return rule;
  }
  return std::nullopt;
}

std::optional<SourcedRule> PlainScan::guardAgainst(const Request& request) {
  if (!request.thirdParty || rules_.empty()) return std::nullopt;
  for (const SourcedRule& rule : HostGuard::rules()) {
    if (finds(rule.rule.trigger.urlFilter.string(), false, request.url)) return rule;
  }
  return std::nullopt;
}

bool PlainScan::matches(const SourcedRule& rule, const Request& request) {
  const WKRule::Trigger& trigger = rule.rule.trigger;
  if (trigger.resourceType) {
    const TextList& types = *trigger.resourceType;
    if (std::find(types.begin(), types.end(), request.type) == types.end()) return false;
  }
  if (trigger.loadType && !trigger.loadType->empty()) {
    const std::string_view load = (*trigger.loadType)[0];
    if (load == "third-party" && !request.thirdParty) return false;
    if (load == "first-party" && request.thirdParty) return false;
  }
  if (trigger.ifDomain) {
    if (!request.pageHost || !covers(*trigger.ifDomain, *request.pageHost)) return false;
  }
  if (trigger.unlessDomain && request.pageHost) {
    if (covers(*trigger.unlessDomain, *request.pageHost)) return false;
  }
  const std::string filter =
      form_ == DocumentForm::plain
          ? trigger.urlFilter.string()
          : Hardening::urlFilter(trigger.urlFilter, rule.kind == RuleKind::exception);
  return finds(filter, trigger.caseSensitive == true, request.url);
}

bool PlainScan::finds(const std::string& filter, bool caseSensitive,
                      const icu::UnicodeString& url) {
  const auto [found, isNew] = expressions_.try_emplace({filter, caseSensitive}, nullptr);
  std::unique_ptr<icu::RegexMatcher>& expression = found->second;
  UErrorCode status = U_ZERO_ERROR;
  if (isNew) {
    const std::uint32_t flags = caseSensitive ? 0 : UREGEX_CASE_INSENSITIVE;
    expression = std::make_unique<icu::RegexMatcher>(utf16(filter), flags, status);
    if (U_FAILURE(status)) expression = nullptr;
  }
  if (!expression) return false;
  expression->reset(url);
  return expression->find(status) && U_SUCCESS(status);
}

}  // namespace tamsel::test
