#pragma once

#include <memory>
#include <string>

#include "platform/rulestore/RuleListStore.h"

namespace tamsel {

/// A view that shows web pages. For the main thread.
class WebView {
 public:
  WebView() = default;
  WebView(const WebView&) = delete;
  WebView& operator=(const WebView&) = delete;
  virtual ~WebView() = default;

  /// Shows a page from its text, as if it had been loaded from `baseURL`.
  virtual void loadHtml(const std::string& html, const std::string& baseURL) = 0;

  /// Loads the page again that is shown, from where it came from.
  virtual void reload() = 0;

  /// The address of the page; empty before anything was loaded.
  virtual std::string url() const = 0;

  /// Filters with this list instead of the one before; with none when it is null.
  virtual void installRuleList(std::shared_ptr<const RuleList> list) = 0;
};

}  // namespace tamsel
