#pragma once

#include <webkit/webkit.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/webview/WebView.h"

namespace tamsel {

/// A WebKitWebView. Takes the lists of a WebKitRuleListStore.
///
/// WebKitGTK does not tell in time where a page navigates to: what it asks to decide about looks
/// the same for the page and for its frames. What the program itself loads is the page for certain,
/// and the delegate is told first. Of the rest it is told when the request is on its way, or has
/// been redirected. If it then installs another list, that is too late for the request, and for
/// what is hidden on the page, so the page is requested again.
class WebKitView : public WebView {
 public:
  struct Options {
    /// Where cookies and caches are kept; null for the user's.
    WebKitNetworkSession* session = nullptr;
    /// The longest wait for an answer.
    std::chrono::milliseconds timeout = std::chrono::minutes(1);
  };

  WebKitView() : WebKitView(Options()) {}
  explicit WebKitView(const Options& options);
  ~WebKitView() override;

  void setDelegate(Delegate* delegate) override { delegate_ = delegate; }
  void addScript(const std::string& source) override;
  void addMessageHandler(const std::string& name) override;
  void load(const std::string& url) override;
  void loadHtml(const std::string& html, const std::string& baseURL) override;
  void reload() override;
  void stopLoading() override;
  void goBack() override;
  void goForward() override;
  std::string url() const override;
  std::string title() const override;
  bool isLoading() const override;
  bool canGoBack() const override;
  bool canGoForward() const override;
  void installRuleList(std::shared_ptr<const RuleList> list) override;
  GtkWidget* widget() const override { return GTK_WIDGET(view_.get()); }

 private:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  // A page that was given as text.
  struct TextPage {
    std::string html, baseURL;
  };
  // What the program wants loaded, until it is there.
  struct Pending {
    std::string url;
    // When it is a page of its own.
    std::optional<TextPage> text;
  };

  void begin(Pending pending);
  void willNavigate(const std::string& url);
  void onLoadChanged(WebKitLoadEvent event);
  void onLoadFailed(const std::string& url, const GError& error);
  void fail(const Failure& failure);
  void followPage(WebKitWebResource* page);
  void onPageRequest(WebKitURIRequest* request);
  void onPageResponse(WebKitResponsePolicyDecision* decision);
  void openInThisView(WebKitURIRequest* request);
  void onNavigationAction(WebKitNavigationAction* action);
  void repeat();
  void moveTo(WebKitBackForwardListItem* item);
  void stayOnPage();
  void onProcessEnded(WebKitWebProcessTerminationReason reason);
  void onResponsivenessChanged();
  void onTimeout();
  void awaitAnswer();
  void stopAwaitingAnswer();
  void changed();
  // The last entry of the history, which is not shown while a page of text is.
  WebKitBackForwardListItem* behindTextPage() const;
  // The nearest entry of the history with this address; null if there is none.
  WebKitBackForwardListItem* itemOf(const std::string& url) const;

  std::unique_ptr<WebKitUserContentManager, Unref> content_;
  std::unique_ptr<WebKitWebView, Unref> view_;
  // The page that was requested last; tells of redirections.
  std::unique_ptr<WebKitWebResource, Unref> page_;
  Delegate* delegate_ = nullptr;
  std::shared_ptr<const RuleList> ruleList_;
  std::optional<Pending> pending_;
  // The last page of text that there was, and whether it is shown.
  std::optional<TextPage> text_;
  bool isTextShown_ = false;
  // A server answered for the page that is to come, so it is not one of text.
  bool isAnswered_ = false;
  // A page has begun to load and none of it is there.
  bool isProvisional_ = false;
  // It is not wanted any more.
  bool stopsAtStart_ = false;
  // What is to be requested again, as soon as the first request is cancelled. To WebKit, one that
  // comes earlier may get lost.
  std::unique_ptr<WebKitURIRequest, Unref> repetition_;
  // Where the page or a frame of it last moved in the history.
  std::string lastMove_;
  // How often that happened to the page that is to come.
  int repetitions_ = 0;
  std::chrono::milliseconds timeout_;
  guint timer_ = 0;
};

}  // namespace tamsel
