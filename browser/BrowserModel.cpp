#include "browser/BrowserModel.h"

#include <glib.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "browser/DemoPage.h"
#include "browser/ReportingScript.h"
#include "compiler/Unicode.h"
#include "platform/http/Address.h"
#include "platform/mainloop/Awaiting.h"
#include "state/AppState.h"

namespace tamsel {
namespace {

constexpr std::string_view searchEngine = "https://duckduckgo.com/?q=";
// What a query may hold as it is, besides letters and digits.
constexpr const char* allowedInQuery = "!$&'()*+,-./:;=?@_~";

// So many are evaluated before their verdicts are shown.
constexpr std::size_t reportsAtOnce = 256;
// Of the text that waits to be evaluated, in bytes. A page that reports faster loses what is more.
constexpr std::size_t mostWaiting = std::size_t{4} << 20;

std::string searchFor(const std::string& words) {
  gchar* escaped = g_uri_escape_string(words.c_str(), allowedInQuery, FALSE);
  std::string url = std::string(searchEngine) + escaped;
  g_free(escaped);
  return url;
}

// The URL that the typed text stands for.
std::string resolved(const std::string& text) {
  if (text.find("://") != std::string::npos) return text;
  const bool isAddress = text.find(' ') == std::string::npos && text.find('.') != std::string::npos;
  return isAddress ? "https://" + text : searchFor(text);
}

// What is requested: all but the fragment.
void cutFragment(std::string& url) {
  url.resize(std::min(url.find('#'), url.size()));
}

std::string shortened(std::string text) {
  if (text.size() <= BrowserModel::keptURLLength) return text;
  return std::string(Unicode::beginning(text, BrowserModel::keptURLLength)) + "…";
}

}  // namespace

BrowserModel::BrowserModel(std::unique_ptr<WebView> view) : webView(std::move(view)) {
  webView->addScript(std::string(Reporting::script), WebView::World::own);
  webView->addScript(std::string(Reporting::pageScript), WebView::World::page);
  webView->addMessageHandler(Reporting::messageName);
  webView->setDelegate(this);
}

BrowserModel::~BrowserModel() {
  webView->setDelegate(nullptr);
}

void BrowserModel::go(std::string_view typed) {
  const std::string text(Unicode::stripped(typed));
  if (text.empty()) return;
  const std::string url = resolved(text);
  if (Address::parse(url)) webView->load(url);
}

void BrowserModel::loadDemo() {
  currentHost = std::string(DemoPage::host);
  addressText = "https://" + std::string(DemoPage::host) + "/ (demo page)";
  webView->loadHtml(DemoPage::html(), "https://" + std::string(DemoPage::host) + "/");
}

void BrowserModel::installRuleList() {
  const bool isPaused = app != nullptr && app->isPaused(*currentHost);
  webView->installRuleList(isPaused ? nullptr : ruleList_);
}

void BrowserModel::setRuleList(std::shared_ptr<const RuleList> list) {
  ruleList_ = std::move(list);
  installRuleList();
  if (!webView->url().empty()) webView->reload();
}

void BrowserModel::setPausedHere(bool paused) {
  if (app != nullptr) app->setPaused(*currentHost, paused);
  installRuleList();
  webView->reload();
}

void BrowserModel::willNavigate(const std::string& url) {
  const std::optional<Address> address = Address::parse(url);
  if (!address || address->host.empty()) return;
  currentHost = address->host;
  installRuleList();
}

void BrowserModel::Requests::add(const WebView::Blocked& blocked) {
  for (std::size_t i = 0; i < blocked.keys.size(); ++i) {
    if (!seen.insert(blocked.keys[i])) continue;
    ++count;
    if (i < blocked.urls.size() && urls.size() < keptURLs)
      urls.push_back(shortened(blocked.urls[i]));
  }
}

// What is shown of them. The URLs only become more.
void BrowserModel::showRequests() {
  if (*blockedCount != requests_.count) blockedCount = requests_.count;
  if (blockedURLs->size() != requests_.urls.size()) blockedURLs = requests_.urls;
}

void BrowserModel::didStart() {
  if (!requestsBefore_) requestsBefore_ = std::move(requests_);
  requests_ = {};
  blockedCount = 0;
  blockedURLs = {};
  reports_.clear();
  waiting_ = 0;
  ++page_;
  status = "";
  syncState();
}

void BrowserModel::didCommit() {
  requestsBefore_.reset();
}

void BrowserModel::didStay() {
  if (!requestsBefore_) return;
  requests_ = std::move(*requestsBefore_);
  requestsBefore_.reset();
  showRequests();
}

void BrowserModel::didBlock(const WebView::Blocked& requests) {
  if (requestsBefore_) {
    requestsBefore_->add(requests);
  } else {
    requests_.add(requests);
    showRequests();
  }
}

void BrowserModel::syncState() {
  canGoBack = webView->canGoBack();
  canGoForward = webView->canGoForward();
  isLoading = webView->isLoading();
  pageTitle = webView->title();
  const std::string url = webView->url();
  if (url.empty()) return;
  const std::optional<Address> address = Address::parse(url);
  if (address && !address->host.empty()) currentHost = address->host;
  addressText = url;
}

void BrowserModel::didFail(const WebView::Failure& failure) {
  syncState();
  if (failure.isCancelled) return;
  status = failure.message;
  if (!failure.url) return;
  if (!webView->tellsWhatIsBlocked()) {
    report(*failure.url, "document");
  } else if (failure.blockedKey) {
    didBlock({.keys = {*failure.blockedKey}, .urls = {*failure.url}});
  }
}

void BrowserModel::didReceive(const WebView::Message& message) {
  // What pages report may have failed for other reasons, and they know only a part.
  if (webView->tellsWhatIsBlocked()) return;
  std::optional<std::string> url = message.text("url");
  const std::optional<std::string> type = message.text("type");
  if (url && type) report(std::move(*url), Reporting::resourceType(*type));
}

void BrowserModel::report(std::string url, std::string_view type) {
  if (app == nullptr || app->engine() == nullptr || app->isPaused(*currentHost)) return;
  cutFragment(url);
  if (waiting_ + url.size() > mostWaiting) return;
  if (!requests_.seen.insert(RequestKeys::keyOf(url, seed_))) return;
  // What an address holds itself is not requested, and WebKit's rules do not look at it.
  if (url.starts_with("data:")) return;
  waiting_ += url.size();
  reports_.push_back({app->engine(), std::move(url), webView->url(), type});
  if (!isEvaluating_) tasks_.add(evaluateReports());
}

Task<void> BrowserModel::evaluateReports() {
  isEvaluating_ = true;
  while (!reports_.empty()) {
    const auto end =
        reports_.begin() + static_cast<std::ptrdiff_t>(std::min(reports_.size(), reportsAtOnce));
    std::vector<Report> some(std::make_move_iterator(reports_.begin()),
                             std::make_move_iterator(end));
    reports_.erase(reports_.begin(), end);
    for (const Report& report : some) waiting_ -= report.url.size();

    auto evaluating = detached([some = std::move(some)]() mutable {
      std::vector<std::string> blocked;
      for (Report& report : some) {
        const std::optional<std::string_view> page =
            report.pageURL.empty() ? std::nullopt : std::optional<std::string_view>(report.pageURL);
        const Engine::Verdict verdict = report.engine->evaluate(report.url, page, report.type);
        if (verdict.block && !verdict.exception) {
          blocked.push_back(shortened(std::move(report.url)));
        }
      }
      return blocked;
    });
    const std::size_t page = page_;
    const std::vector<std::string> blocked = co_await evaluating;
    if (blocked.empty() || page != page_) continue;
    requests_.count += blocked.size();
    const std::size_t kept = std::min(blocked.size(), keptURLs - requests_.urls.size());
    requests_.urls.insert(requests_.urls.end(), blocked.begin(),
                          blocked.begin() + static_cast<std::ptrdiff_t>(kept));
    showRequests();
  }
  isEvaluating_ = false;
}

}  // namespace tamsel
