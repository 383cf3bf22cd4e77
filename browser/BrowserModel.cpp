#include "browser/BrowserModel.h"

#include "browser/DemoPage.h"
#include "state/AppState.h"

namespace tamsel {

void BrowserModel::loadDemo() {
  currentHost = std::string(DemoPage::host);
  addressText = "https://" + std::string(DemoPage::host) + "/ (demo page)";
  webView->loadHtml(DemoPage::html(), "https://" + std::string(DemoPage::host) + "/");
}

void BrowserModel::setRuleList(std::shared_ptr<const RuleList> list) {
  ruleList_ = std::move(list);
  installRuleList();
  if (!webView->url().empty()) webView->reload();
}

void BrowserModel::installRuleList() {
  const bool isPaused = app != nullptr && app->isPaused(*currentHost);
  webView->installRuleList(isPaused ? nullptr : ruleList_);
}

}  // namespace tamsel
