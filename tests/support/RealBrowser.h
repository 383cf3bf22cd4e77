#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <string>
#include <utility>

#include "browser/BrowserModel.h"
#include "platform/files/Files.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "platform/webview/WebKitView.h"
#include "platform/webview/extension/Protocol.h"
#include "state/Persisted.h"
#include "state/StarterList.h"
#include "tests/support/AppFakes.h"
#include "tests/support/SiteServer.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel::test {

/// The application with the real WebKit, in a window. Its network is `sites`.
class RealBrowser {
 public:
  /// The application begins with these filter lines and no list but the starter list, switched off.
  explicit RealBrowser(const std::string& rules = {}, WebKitView::Options options = plain()) {
    FilterList starter{.id = Starter::id,
                       .name = std::string(Starter::name),
                       .text = Starter::text,
                       .isBuiltIn = true};
    starter.enabled = false;
    start(Persisted{{starter}, rules, {}}.encode(), options);
  }

  /// With the module for the web processes, on which the count stands.
  static WebKitView::Options plain() { return {.moduleFolder = TAMSEL_MODULE_PATH}; }

  /// The application as on a first start, with the starter list.
  struct FirstStart {};
  explicit RealBrowser(FirstStart) { start("", plain()); }

  ~RealBrowser() {
    gtk_window_destroy(GTK_WINDOW(window_));
    app_.reset();
    g_object_unref(session_);
  }
  RealBrowser(const RealBrowser&) = delete;
  RealBrowser& operator=(const RealBrowser&) = delete;

  SiteServer sites;

  AppState& app() { return *app_; }
  BrowserModel& model() { return *model_; }
  WebKitWebView* webKit() { return dynamic_cast<WebKitView&>(*model_->webView).webKit(); }

  /// Until the page is complete, and all that it reported is evaluated.
  void awaitPage() {
    runUntil([this] { return !*model_->isLoading && !model_->webView->isLoading(); });
    settle();
  }

  /// Loads a page and waits for it.
  void open(const std::string& url) {
    model_->go(url);
    runUntil([this] { return *model_->isLoading; });
    awaitPage();
  }

  /// What a script of the page's comes to, which may be a promise, as text; or of a world of its
  /// own.
  std::string evaluate(const std::string& script, const char* world = nullptr) {
    struct Answer {
      bool isThere = false;
      std::string text;
    } answer;
    const std::string body = "return String(await (" + script + "))";
    webkit_web_view_call_async_javascript_function(
        webKit(), body.c_str(), -1, nullptr, world, nullptr, nullptr,
        [](GObject* view, GAsyncResult* result, gpointer data) {
          GError* error = nullptr;
          JSCValue* value = webkit_web_view_call_async_javascript_function_finish(
              WEBKIT_WEB_VIEW(view), result, &error);
          auto& found = *static_cast<Answer*>(data);
          found.isThere = true;
          if (value == nullptr) {
            found.text = std::string("error: ") + error->message;
            g_error_free(error);
            return;
          }
          gchar* text = jsc_value_to_string(value);
          found.text = text;
          g_free(text);
          g_object_unref(value);
        },
        &answer);
    runUntil([&answer] { return answer.isThere; });
    return answer.text;
  }

  /// Until what the page, and WebKit about it, sent so far has arrived and is evaluated.
  void settle() {
    // A script's answer comes after the messages that were sent before it.
    evaluate("0");
    if (model_->webView->tellsWhatIsBlocked()) {
      bool isAnswered = false;
      webkit_web_view_send_message_to_page(
          webKit(), webkit_user_message_new(WebProcess::flush, nullptr), nullptr,
          [](GObject*, GAsyncResult*, gpointer data) { *static_cast<bool*>(data) = true; },
          &isAnswered);
      runUntil([&isAnswered] { return isAnswered; });
    }
    runUntil([this] { return !model_->isEvaluating(); });
  }

 private:
  void start(const std::string& state, WebKitView::Options options) {
    if (!state.empty()) Files::replace(folder_.path() + "/state.json", state);
    // In one that keeps nothing, WebKit does not tell what it blocks.
    session_ = WebKitView::makeSession(folder_.path() + "/data", folder_.path() + "/cache");
    WebKitNetworkProxySettings* proxy =
        webkit_network_proxy_settings_new(sites.url().c_str(), nullptr);
    webkit_network_session_set_proxy_settings(session_, WEBKIT_NETWORK_PROXY_MODE_CUSTOM, proxy);
    webkit_network_proxy_settings_free(proxy);
    options.session = session_;
    auto browser = std::make_unique<BrowserModel>(std::make_unique<WebKitView>(options));
    model_ = browser.get();
    window_ = gtk_window_new();
    gtk_window_set_default_size(GTK_WINDOW(window_), 800, 600);
    gtk_window_set_child(GTK_WINDOW(window_), model_->webView->widget());
    gtk_window_present(GTK_WINDOW(window_));
    app_ = std::make_unique<AppState>(
        AppState::Platform{folder_.path(), store_, client_, panel_, std::move(browser)});
    runUntil([this] { return !*app_->isCompiling; });
    // The demo page, under the rules.
    runUntil([this] { return *model_->isLoading; });
    awaitPage();
  }

  TemporaryFolder folder_;
  WebKitRuleListStore store_{{.helper = TAMSEL_RULE_COMPILER_PATH}};
  FakeHttpClient client_;
  FakeSavePanel panel_;
  WebKitNetworkSession* session_ = nullptr;
  GtkWidget* window_ = nullptr;
  BrowserModel* model_ = nullptr;
  std::unique_ptr<AppState> app_;
};

}  // namespace tamsel::test
