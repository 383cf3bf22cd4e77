#pragma once

#include <memory>
#include <string>

#include "platform/mainloop/Observable.h"
#include "platform/webview/WebView.h"
#include "state/Browser.h"

namespace tamsel {

/// The built-in browser: the one web view, and the rule list that filters in it.
class BrowserModel : public Browser {
 public:
  explicit BrowserModel(std::unique_ptr<WebView> view) : webView(std::move(view)) {}

  ChangeSignal objectWillChange;

  const std::unique_ptr<WebView> webView;
  /// Not owned; null when there is none, or none any more.
  AppState* app = nullptr;

  /// The address of the page now shown, as text.
  Observable<std::string> addressText{objectWillChange};
  /// The host that pausing refers to.
  Observable<std::string> currentHost{objectWillChange};

  void setApp(AppState* newApp) override { app = newApp; }

  /// Shows the demo page, which requests what the starter list blocks.
  void loadDemo() override;

  /// Filters with this list from now on, or with none, and loads the page that is shown again.
  void setRuleList(std::shared_ptr<const RuleList> list) override;

 private:
  void installRuleList();

  std::shared_ptr<const RuleList> ruleList_;
};

}  // namespace tamsel
