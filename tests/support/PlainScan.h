#pragma once

#include <unicode/regex.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "compiler/RuleModel.h"
#include "engine/Engine.h"

namespace tamsel::test {

/// The matcher that the engine must agree with: slow and obvious. Every rule is tried in turn and
/// every expression is searched by ICU. Not for use by several threads at once.
class PlainScan {
 public:
  explicit PlainScan(SourcedRules rules, DocumentForm form = DocumentForm::plain)
      : rules_(std::move(rules)), form_(form) {}

  Engine::Verdict evaluate(std::string_view url, std::optional<std::string_view> pageURL,
                           std::string_view type);

  /// The host of a URL in lower case; nothing when it has none or the URL is malformed.
  static std::optional<std::string> hostOf(std::string_view url);

 private:
  struct Request;

  std::optional<SourcedRule> firstMatch(RuleKind kind, const Request& request);
  bool matches(const SourcedRule& rule, const Request& request);
  bool finds(const std::string& filter, bool caseSensitive, const icu::UnicodeString& url);
  std::optional<SourcedRule> guardAgainst(const Request& request);

  SourcedRules rules_;
  DocumentForm form_;
  /// By url-filter and case sensitivity; null when ICU rejects the expression.
  std::map<std::pair<std::string, bool>, std::unique_ptr<icu::RegexMatcher>> expressions_;
};

}  // namespace tamsel::test
