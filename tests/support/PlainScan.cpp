#include "tests/support/PlainScan.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdlib>

#include "engine/Site.h"

namespace tamsel::test {
namespace {

icu::UnicodeString utf16(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
const std::string digits = "0123456789";

bool consistsOf(std::string_view text, const std::string& characters) {
  return text.find_first_not_of(characters) == std::string_view::npos;
}

bool isControlOrSpace(char c) {
  return static_cast<unsigned char>(c) <= ' ' || c == 0x7F;
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
  const std::size_t colon = url.find_first_of(":/?#");
  if (colon != std::string_view::npos && url[colon] == ':') {
    const std::string_view scheme = url.substr(0, colon);
    if (scheme.empty() || !consistsOf(scheme.substr(0, 1), letters)) return std::nullopt;
    if (!consistsOf(scheme, letters + digits + "+.-")) return std::nullopt;
    url.remove_prefix(colon + 1);
  }
  if (!url.starts_with("//")) return std::nullopt;
  url.remove_prefix(2);
  std::string_view authority = url.substr(0, url.find_first_of("/?#"));
  if (std::any_of(authority.begin(), authority.end(), isControlOrSpace)) return std::nullopt;
  authority.remove_prefix(authority.rfind('@') + 1);  // npos + 1 is 0

  std::string_view host, rest;
  if (authority.starts_with('[')) {
    const std::size_t end = authority.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, end - 1);
    rest = authority.substr(end + 1);
  } else {
    host = authority.substr(0, authority.find(':'));
    rest = authority.substr(host.size());
  }
  if (!rest.empty() && (rest[0] != ':' || !consistsOf(rest.substr(1), digits))) return std::nullopt;
  if (rest.size() > 1 && std::strtod(std::string(rest.substr(1)).c_str(), nullptr) > 65535)
    return std::nullopt;
  if (host.empty()) return std::nullopt;
  std::string lower;
  return utf16(host).toLower(icu::Locale::getRoot()).toUTF8String(lower);
}

Engine::Verdict PlainScan::evaluate(std::string_view url, std::optional<std::string_view> pageURL,
                                    std::string_view type) {
  const std::optional<std::string> host = hostOf(url);
  Request request{utf16(url), pageURL ? hostOf(*pageURL) : std::nullopt, type};
  request.thirdParty = host && request.pageHost && Site::key(*host) != Site::key(*request.pageHost);

  Engine::Verdict verdict;
  verdict.thirdParty = request.thirdParty;
  verdict.block = firstMatch(RuleKind::block, request);
  if (verdict.block) verdict.exception = firstMatch(RuleKind::exception, request);
  return verdict;
}

std::optional<SourcedRule> PlainScan::firstMatch(RuleKind kind, const Request& request) {
  for (const SourcedRule& rule : rules_) {
    if (rule.kind == kind && matches(rule.rule.trigger, request)) return rule;
  }
  return std::nullopt;
}

bool PlainScan::matches(const WKRule::Trigger& trigger, const Request& request) {
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
  return finds(trigger, request.url);
}

bool PlainScan::finds(const WKRule::Trigger& trigger, const icu::UnicodeString& url) {
  const bool caseSensitive = trigger.caseSensitive == true;
  const auto [found, isNew] =
      expressions_.try_emplace({trigger.urlFilter.string(), caseSensitive}, nullptr);
  std::unique_ptr<icu::RegexMatcher>& expression = found->second;
  UErrorCode status = U_ZERO_ERROR;
  if (isNew) {
    const std::uint32_t flags = caseSensitive ? 0 : UREGEX_CASE_INSENSITIVE;
    expression = std::make_unique<icu::RegexMatcher>(utf16(trigger.urlFilter), flags, status);
    if (U_FAILURE(status)) expression = nullptr;
  }
  if (!expression) return false;
  expression->reset(url);
  return expression->find(status) && U_SUCCESS(status);
}

}  // namespace tamsel::test
