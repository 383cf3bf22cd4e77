#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/webview/WebView.h"

namespace tamsel::test {

/// Remembers what was done to it, in order. The test tells its delegate what happens.
class FakeWebView : public WebView {
 public:
  void setDelegate(Delegate* newDelegate) override { delegate = newDelegate; }
  void addScript(const std::string&, World) override {}
  void addMessageHandler(const std::string&) override {}
  bool tellsWhatIsBlocked() const override { return false; }
  void load(const std::string& url) override {
    address = url;
    done.push_back("load " + url);
  }
  void loadHtml(const std::string&, const std::string& baseURL) override {
    address = baseURL;
    done.emplace_back("show");
  }
  void reload() override { done.emplace_back("reload"); }
  void stopLoading() override { done.emplace_back("stop"); }
  void goBack() override { done.emplace_back("back"); }
  void goForward() override { done.emplace_back("forward"); }
  std::string url() const override { return address; }
  std::string title() const override { return {}; }
  bool isLoading() const override { return false; }
  bool canGoBack() const override { return false; }
  bool canGoForward() const override { return false; }
  void installRuleList(std::shared_ptr<const RuleList> list) override {
    done.emplace_back(list == nullptr ? "remove" : "install");
  }
  GtkWidget* widget() const override { return nullptr; }

  Delegate* delegate = nullptr;
  std::vector<std::string> done;
  std::string address;
};

}  // namespace tamsel::test
