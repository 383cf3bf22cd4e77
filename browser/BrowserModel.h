#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Engine.h"
#include "platform/mainloop/Observable.h"
#include "platform/mainloop/Task.h"
#include "platform/webview/RequestKeys.h"
#include "platform/webview/WebView.h"
#include "state/Browser.h"

namespace tamsel {

/// The built-in browser: the one web view, the rule list that filters in it except on paused sites,
/// and what became of the page's requests.
class BrowserModel : public Browser, private WebView::Delegate {
 public:
  /// The most blocked URLs that are kept of a page; more are counted.
  static constexpr std::size_t keptURLs = WebView::Blocked::mostNamed;
  /// The most that is kept of one blocked URL, in bytes.
  static constexpr std::size_t keptURLLength = WebView::Blocked::longestName;

  explicit BrowserModel(std::unique_ptr<WebView> view);
  ~BrowserModel() override;

  ChangeSignal objectWillChange;

  const std::unique_ptr<WebView> webView;
  /// Not owned; null when there is none, or none any more.
  AppState* app = nullptr;

  /// The address of the page now shown, as text.
  Observable<std::string> addressText{objectWillChange};
  /// The host that pausing and reporting refer to.
  Observable<std::string> currentHost{objectWillChange};
  /// Empty if the page has none.
  Observable<std::string> pageTitle{objectWillChange};
  Observable<bool> isLoading{objectWillChange};
  Observable<bool> canGoBack{objectWillChange};
  Observable<bool> canGoForward{objectWillChange};
  /// How many addresses the page that is shown requested and was not given, because the rules block
  /// them. While another page begins to load it is 0; if that one does not come, it is what it was.
  Observable<std::size_t> blockedCount{objectWillChange};
  /// The first of them, in the order counted. One that is longer than anybody can read is cut.
  Observable<std::vector<std::string>> blockedURLs{objectWillChange};
  /// What went wrong last, in words; empty if nothing did.
  Observable<std::string> status{objectWillChange};

  /// Loads what the user typed: an address, or words to search the web for. Nothing happens if it
  /// is neither.
  void go(std::string_view typed);

  /// Shows the demo page, which requests what the starter list blocks.
  void loadDemo() override;

  /// Filters with this list from now on, or with none, and loads the page that is shown again.
  void setRuleList(std::shared_ptr<const RuleList> list) override;

  /// Pauses filtering on the current host, or resumes it, and loads the page again.
  void setPausedHere(bool paused);

  void setApp(AppState* newApp) override { app = newApp; }

  /// Whether a verdict on a request is still to come.
  bool isEvaluating() const { return isEvaluating_; }

 private:
  // A request that failed, and what is asked about it.
  struct Report {
    std::shared_ptr<const Engine> engine;
    std::string url, pageURL;
    std::string_view type;
  };
  // What became of the requests of a page.
  struct Requests {
    // Those that were reported, blocked or not.
    RequestKeys seen;
    std::size_t count = 0;
    std::vector<std::string> urls;

    void add(const WebView::Blocked& blocked);
  };

  void willNavigate(const std::string& url) override;
  void didStart() override;
  void didCommit() override;
  void didStay() override;
  void didChange() override { syncState(); }
  void didFail(const WebView::Failure& failure) override;
  void didBlock(const WebView::Blocked& requests) override;
  void didReceive(const WebView::Message& message) override;

  void installRuleList();
  void syncState();
  void showRequests();
  void report(std::string url, std::string_view type);
  Task<void> evaluateReports();

  std::shared_ptr<const RuleList> ruleList_;
  // Of the page that is shown or, when another has begun to load, of that one.
  Requests requests_;
  // Of the page that is still shown then.
  std::optional<Requests> requestsBefore_;
  const std::uint64_t seed_ = RequestKeys::makeSeed();
  std::deque<Report> reports_;
  // The bytes of their addresses.
  std::size_t waiting_ = 0;
  // How many pages have begun; a verdict on an earlier one is of no interest any more.
  std::size_t page_ = 0;
  bool isEvaluating_ = false;
  TaskScope tasks_;
};

}  // namespace tamsel
