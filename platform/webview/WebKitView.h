#pragma once

#include <webkit/webkit.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/glib/GObjects.h"
#include "platform/mainloop/Timeout.h"
#include "platform/webview/Departure.h"
#include "platform/webview/Downloads.h"
#include "platform/webview/PageDialogs.h"
#include "platform/webview/RequestKeys.h"
#include "platform/webview/WebView.h"

namespace tamsel {

/// A WebKitWebView. Takes the lists of a WebKitRuleListStore.
///
/// WebKitGTK does not tell in time where a page navigates to: what it asks to decide about looks
/// the same for the page and for its frames. What the program itself loads is the page for certain,
/// and the delegate is told first. Of the rest it is told when the request is on its way, or has
/// been redirected. If it then installs another list, that is too late for the request, and for
/// what is hidden on the page, so the page is requested again.
///
/// What WebKit has blocked is told by a module in its web processes, see extension/main.cpp. What
/// the program wants loaded is loaded even if the page does what it can against it, if need be by
/// ending its process. Nothing is downloaded.
class WebKitView : public WebView {
 public:
  struct Options {
    /// Where cookies and caches are kept; null for the user's. In one that keeps nothing WebKit
    /// does not tell what it blocks.
    WebKitNetworkSession* session = nullptr;
    /// The longest wait for an answer.
    std::chrono::milliseconds timeout = std::chrono::minutes(1);
    /// Where the module for the web processes is. Without it the view cannot tell what is blocked,
    /// and says so once on standard error.
    std::string moduleFolder = installedModuleFolder();
  };

  WebKitView() : WebKitView(Options()) {}
  explicit WebKitView(const Options& options);
  ~WebKitView() override;

  void setDelegate(Delegate* delegate) override { delegate_ = delegate; }
  void addScript(const std::string& source, World world) override;
  void addMessageHandler(const std::string& name) override;
  bool tellsWhatIsBlocked() const override { return isModuleThere_; }
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
  GtkWidget* widget() const override { return dialogs_->widget(); }

  /// WebKit's own view.
  WebKitWebView* webKit() const { return view_.get(); }

  /// A session that keeps what sites leave in these folders, and no passwords. The caller owns it.
  static WebKitNetworkSession* makeSession(const std::string& dataFolder,
                                           const std::string& cacheFolder);

  /// Where the module is: beside this program, or where an installation puts it.
  static std::string installedModuleFolder();

 private:
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

  template <typename Handler>
  void on(gpointer object, const char* signal, Handler handler);
  void loadModule(const std::string& folder);
  void sayIfModuleIsMissing() const;
  void followLoads();
  void answerPages();
  void onBlocked(GVariant* message);
  void depart(const std::string& to, const std::function<void()>& action);
  void watchDeparture(std::chrono::milliseconds patience, std::function<void()> again);
  void endProcess();
  void onScriptDialog(WebKitScriptDialog* dialog);
  void onDialogsChanged();
  void onLoadingChanged();
  void refuseDownload(const std::string& name);
  bool isWanted(WebKitPolicyDecision* decision, WebKitPolicyDecisionType type);
  void begin(Pending pending);
  void reloadNow();
  void stopNow();
  void willNavigate(const std::string& url);
  void onLoadChanged(WebKitLoadEvent event);
  void onLoadFailed(const std::string& url, const GError& error);
  void fail(const Failure& failure);
  void endLoad(const Failure& failure);
  void tellFailure(const Failure& failure);
  void followPage(WebKitWebResource* page);
  void onPageRequest(WebKitURIRequest* request);
  void onPageResponse(WebKitURIResponse* response);
  void openInThisView(WebKitURIRequest* request);
  void onNavigationAction(WebKitNavigationAction* action);
  void repeat();
  void moveTo(WebKitBackForwardListItem* item);
  void departTo(WebKitBackForwardListItem* item);
  void stayOnPage();
  void onProcessEnded(WebKitWebProcessTerminationReason reason);
  void onResponsivenessChanged();
  void onTimeout();
  void changed();
  // The last entry of the history, which is not shown while a page of text is.
  WebKitBackForwardListItem* behindTextPage() const;
  // The nearest entry of the history with this address; null if there is none.
  WebKitBackForwardListItem* itemOf(const std::string& url) const;

  GObjectPtr<WebKitUserContentManager> content_;
  GObjectPtr<WebKitWebContext> context_;
  GObjectPtr<WebKitNetworkSession> session_;
  GObjectPtr<WebKitWebView> view_;
  std::unique_ptr<PageDialogs> dialogs_;
  std::optional<Downloads> downloads_;
  // The page that was requested last; tells of redirections.
  GObjectPtr<WebKitWebResource> page_;
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
  GObjectPtr<WebKitURIRequest> repetition_;
  // Where the page or a frame of it last moved in the history.
  std::string lastMove_;
  // How often that happened to the page that is to come.
  int repetitions_ = 0;
  std::chrono::milliseconds timeout_;
  // Runs while one is awaited.
  Timeout answer_{[this] { onTimeout(); }};
  std::unique_ptr<Departure> departure_;
  // Somebody was asked something when they left, and leaves all the same.
  bool insists_ = false;
  // While a person is asked something, no time passes; then the wait for an answer begins anew.
  bool resumesAwaiting_ = false;
  // The page's process crashed or was ended, and the page is still to be seen.
  bool isEnded_ = false;
  std::string shownURL_;
  // The page's process does not answer, and the delegate was told so.
  bool isUnresponsive_ = false;
  // In every web process that runs: it is the first thing that one says.
  bool isModuleThere_ = false;
  // Of RequestKeys.
  const std::uint64_t seed_ = RequestKeys::makeSeed();
};

}  // namespace tamsel
