#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/rulestore/RuleListStore.h"
#include "platform/webview/extension/Protocol.h"

// GTK's, so that this needs no GTK.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
using GtkWidget = struct _GtkWidget;

namespace tamsel {

/// A view that shows web pages, one after the other. Frames are parts of their page. A page can be
/// left whatever it does. For the main thread.
class WebView {
 public:
  /// Why a page was not loaded, or is not there any more.
  struct Failure {
    /// A sentence for a person.
    std::string message;
    /// The address that could not be loaded; nothing if it was not for an address.
    std::optional<std::string> url = std::nullopt;
    /// Something else was to be loaded, or nothing more.
    bool isCancelled = false;
    /// The key of the address, if it is the rule list that blocked it.
    std::optional<std::uint64_t> blockedKey = std::nullopt;
  };

  /// Requests of a page that were not sent because the rule list blocks them.
  struct Blocked {
    /// The most that are named of a page, and the most bytes of a name.
    static constexpr std::size_t mostNamed = WebProcess::namedURLs;
    static constexpr std::size_t longestName = WebProcess::namedLength;

    /// RequestKeys of their addresses, in the order of the requests. Each address comes once, and
    /// once more when something else tells of it.
    std::vector<std::uint64_t> keys;
    /// The addresses of the first; what is longer than the longest name is cut.
    std::vector<std::string> urls;
  };

  /// Where a script runs.
  enum class World {
    /// With the page's own scripts, which it can change and which can change it.
    page,
    /// Beside them: it shares the document with them and nothing else. Message handlers are here.
    own,
  };

  /// What a page sent.
  class Message {
   public:
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    virtual ~Message() = default;

    /// The text of this entry; nothing if the message is no dictionary or the entry no text.
    virtual std::optional<std::string> text(const char* key) const = 0;
  };

  /// Is told what happens. It may have the view do anything meanwhile.
  class Delegate {
   public:
    Delegate() = default;
    Delegate(const Delegate&) = delete;
    Delegate& operator=(const Delegate&) = delete;

    /// A page is to be shown: the rule list that is installed on return is in force for all that it
    /// requests. Comes at least once for each page, at the latest before its first byte.
    virtual void willNavigate(const std::string& url) = 0;
    /// A page has begun to load. The one before is still shown.
    virtual void didStart() = 0;
    /// It has taken the place of the one before.
    virtual void didCommit() = 0;
    /// It will not come: the one before stays.
    virtual void didStay() = 0;
    /// The view's address, or another of its properties, has changed: a page has taken the place of
    /// the one before, is complete, or has changed its address.
    virtual void didChange() = 0;
    virtual void didFail(const Failure& failure) = 0;
    /// Requests of the page that is shown were blocked.
    virtual void didBlock(const Blocked& requests) = 0;
    virtual void didReceive(const Message& message) = 0;

   protected:
    ~Delegate() = default;
  };

  WebView() = default;
  WebView(const WebView&) = delete;
  WebView& operator=(const WebView&) = delete;
  virtual ~WebView() = default;

  /// Not owned; null for none.
  virtual void setDelegate(Delegate* delegate) = 0;

  /// Runs the script in every frame of each page to come, before the page's own scripts.
  virtual void addScript(const std::string& source, World world) = 0;

  /// Lets scripts of the own world send messages:
  /// `window.webkit.messageHandlers.NAME.postMessage(…)`.
  virtual void addMessageHandler(const std::string& name) = 0;

  /// Whether the view tells of each request that is blocked. If it does not, only what pages are
  /// told themselves is known of.
  virtual bool tellsWhatIsBlocked() const = 0;

  /// Loads an absolute URL. When no answer comes for a minute, it fails.
  virtual void load(const std::string& url) = 0;

  /// Shows a page from its text, as if it had been loaded from `baseURL`.
  virtual void loadHtml(const std::string& html, const std::string& baseURL) = 0;

  /// Loads the page again that is shown, or the one that is about to be.
  virtual void reload() = 0;

  virtual void stopLoading() = 0;
  virtual void goBack() = 0;
  virtual void goForward() = 0;

  /// The address of the page that is shown or about to be; empty before anything was loaded.
  virtual std::string url() const = 0;
  /// Empty if the page has none.
  virtual std::string title() const = 0;
  virtual bool isLoading() const = 0;
  virtual bool canGoBack() const = 0;
  virtual bool canGoForward() const = 0;

  /// Filters with this list instead of the one before; with none when it is null.
  virtual void installRuleList(std::shared_ptr<const RuleList> list) = 0;

  /// What shows it in a window; the view owns it.
  virtual GtkWidget* widget() const = 0;
};

}  // namespace tamsel
