#include "platform/webview/WebKitView.h"

#include <utility>

#include "platform/rulestore/WebKitRuleListStore.h"

namespace tamsel {
namespace {

// As many as redirections that WebKit follows.
constexpr int maxRepetitions = 20;

constexpr const char* emptyPage = "about:blank";

constexpr const char* messageSignal = "script-message-received::";

std::string text(const char* string) {
  return string == nullptr ? std::string() : string;
}

// What a script sent.
class ScriptMessage : public WebView::Message {
 public:
  explicit ScriptMessage(JSCValue* value) : value_(value) {}

  std::optional<std::string> text(const char* key) const override {
    const bool isDictionary =
        jsc_value_is_object(value_) != FALSE && jsc_value_is_array(value_) == FALSE;
    if (!isDictionary) return std::nullopt;
    JSCValue* entry = jsc_value_object_get_property(value_, key);
    std::optional<std::string> found;
    if (jsc_value_is_string(entry) != FALSE) {
      // Not as a C string: it may hold zeros.
      GBytes* bytes = jsc_value_to_string_as_bytes(entry);
      gsize size = 0;
      const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
      found.emplace(data == nullptr ? "" : data, data == nullptr ? 0 : size);
      g_bytes_unref(bytes);
    }
    g_object_unref(entry);
    return found;
  }

 private:
  JSCValue* value_;
};

}  // namespace

WebKitView::WebKitView(const Options& options)
    : content_(webkit_user_content_manager_new()), timeout_(options.timeout) {
  WebKitSettings* settings = webkit_settings_new_with_settings(
      // A page that comes back out of the cache requests nothing, so nothing would be counted, and
      // it would show what other rules made of it.
      "enable-page-cache", FALSE, nullptr);
  GObject* view = G_OBJECT(g_object_new(
      WEBKIT_TYPE_WEB_VIEW, "user-content-manager", content_.get(), "settings", settings,
      "network-session",
      options.session != nullptr ? options.session : webkit_network_session_get_default(),
      nullptr));
  g_object_unref(settings);
  view_.reset(WEBKIT_WEB_VIEW(g_object_ref_sink(view)));

  const auto on = [this](gpointer object, const char* signal, auto handler) {
    g_signal_connect(object, signal, G_CALLBACK(+handler), this);
  };
  on(view, "load-changed",
     [](WebKitWebView*, WebKitLoadEvent event, WebKitView* self) { self->onLoadChanged(event); });
  // TRUE keeps WebKit from showing an error page of its own.
  on(view, "load-failed",
     [](WebKitWebView*, WebKitLoadEvent, const char* url, GError* error,
        WebKitView* self) -> gboolean {
       self->onLoadFailed(text(url), *error);
       return TRUE;
     });
  on(view, "load-failed-with-tls-errors",
     [](WebKitWebView*, const char* url, GTlsCertificate*, GTlsCertificateFlags,
        WebKitView* self) -> gboolean {
       self->fail({.message = "The certificate of this site cannot be trusted.", .url = text(url)});
       return TRUE;
     });
  on(view, "decide-policy",
     [](WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
        WebKitView* self) -> gboolean {
       if (type == WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION) {
         self->onNavigationAction(webkit_navigation_policy_decision_get_navigation_action(
             WEBKIT_NAVIGATION_POLICY_DECISION(decision)));
       }
       if (type != WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return FALSE;
       auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
       if (webkit_response_policy_decision_is_main_frame_main_resource(response) != FALSE) {
         self->onPageResponse(response);
       }
       return FALSE;
     });
  on(view, "resource-load-started",
     [](WebKitWebView* webView, WebKitWebResource* resource, WebKitURIRequest* request,
        WebKitView* self) {
       if (resource != webkit_web_view_get_main_resource(webView)) return;
       self->followPage(resource);
       self->onPageRequest(request);
     });
  on(view, "create",
     [](WebKitWebView*, WebKitNavigationAction* action, WebKitView* self) -> GtkWidget* {
       self->openInThisView(webkit_navigation_action_get_request(action));
       return nullptr;
     });
  on(view, "web-process-terminated",
     [](WebKitWebView*, WebKitWebProcessTerminationReason reason, WebKitView* self) {
       self->onProcessEnded(reason);
     });
  on(view, "notify::is-web-process-responsive",
     [](GObject*, GParamSpec*, WebKitView* self) { self->onResponsivenessChanged(); });
  // Pages change their own address, title and history too.
  for (const char* property : {"notify::uri", "notify::title"}) {
    on(view, property, [](GObject*, GParamSpec*, WebKitView* self) {
      if (!self->isLoading()) self->changed();
    });
  }
  on(webkit_web_view_get_back_forward_list(view_.get()), "changed",
     [](WebKitBackForwardList*, gpointer, gpointer, WebKitView* self) { self->changed(); });
}

WebKitView::~WebKitView() {
  stopAwaitingAnswer();
  followPage(nullptr);
  for (gpointer object : {gpointer(view_.get()), gpointer(content_.get()),
                          gpointer(webkit_web_view_get_back_forward_list(view_.get()))}) {
    g_signal_handlers_disconnect_by_data(object, this);
  }
}

void WebKitView::followPage(WebKitWebResource* page) {
  if (page_ != nullptr) g_signal_handlers_disconnect_by_data(page_.get(), this);
  page_.reset(page == nullptr ? nullptr : WEBKIT_WEB_RESOURCE(g_object_ref(page)));
  if (page_ == nullptr) return;
  const auto onSent = [](WebKitWebResource*, WebKitURIRequest* request,
                         WebKitURIResponse* redirection, WebKitView* self) {
    if (redirection != nullptr) self->onPageRequest(request);
  };
  g_signal_connect(page, "sent-request", G_CALLBACK(+onSent), this);
}

void WebKitView::addScript(const std::string& source) {
  WebKitUserScript* script =
      webkit_user_script_new(source.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(content_.get(), script);
  webkit_user_script_unref(script);
}

void WebKitView::addMessageHandler(const std::string& name) {
  const auto receive = [](WebKitUserContentManager*, JSCValue* value, WebKitView* self) {
    // Until the next page has taken its place, what comes is of the one before.
    if (self->delegate_ == nullptr || self->isProvisional_) return;
    self->delegate_->didReceive(ScriptMessage(value));
  };
  // Before it is registered, so that no message is missed.
  g_signal_connect(content_.get(), (messageSignal + name).c_str(), G_CALLBACK(+receive), this);
  webkit_user_content_manager_register_script_message_handler(content_.get(), name.c_str(),
                                                              nullptr);
}

void WebKitView::load(const std::string& url) {
  begin({.url = url, .text = std::nullopt});
}

void WebKitView::loadHtml(const std::string& html, const std::string& baseURL) {
  begin({.url = baseURL, .text = TextPage{html, baseURL}});
}

void WebKitView::begin(Pending pending) {
  repetition_.reset();
  stopsAtStart_ = false;
  pending_ = std::move(pending);
  const Pending now = *pending_;
  willNavigate(now.url);
  if (now.text) {
    text_ = now.text;
    isAnswered_ = false;
    webkit_web_view_load_html(view_.get(), now.text->html.c_str(), now.text->baseURL.c_str());
  } else {
    webkit_web_view_load_uri(view_.get(), now.url.c_str());
    awaitAnswer();
  }
}

void WebKitView::reload() {
  // Nothing that hangs can be told to load anything.
  if (webkit_web_view_get_is_web_process_responsive(view_.get()) == FALSE) {
    webkit_web_view_terminate_web_process(view_.get());
  }
  if (pending_) {
    begin(Pending(*pending_));
  } else if (isProvisional_) {
    // A page on its way, by a link or a script, needs no second request.
  } else if (isTextShown_) {
    loadHtml(text_->html, text_->baseURL);
  } else {
    willNavigate(url());
    webkit_web_view_reload(view_.get());
  }
}

void WebKitView::stopLoading() {
  repetition_.reset();
  // Stopped before it has begun, WebKit would say that it loads for ever.
  stopsAtStart_ = pending_ && !isProvisional_;
  if (stopsAtStart_) return;
  pending_.reset();
  stopAwaitingAnswer();
  webkit_web_view_stop_loading(view_.get());
}

void WebKitView::stayOnPage() {
  if (!url().empty()) willNavigate(url());
  changed();
}

WebKitBackForwardListItem* WebKitView::behindTextPage() const {
  if (!isTextShown_) return nullptr;
  return webkit_back_forward_list_get_current_item(
      webkit_web_view_get_back_forward_list(view_.get()));
}

void WebKitView::goBack() {
  WebKitBackForwardListItem* item = behindTextPage();
  if (item == nullptr) {
    item =
        webkit_back_forward_list_get_back_item(webkit_web_view_get_back_forward_list(view_.get()));
  }
  if (item != nullptr) moveTo(item);
}

void WebKitView::goForward() {
  WebKitBackForwardListItem* item =
      webkit_back_forward_list_get_forward_item(webkit_web_view_get_back_forward_list(view_.get()));
  if (item != nullptr) moveTo(item);
}

std::string WebKitView::url() const {
  return text(webkit_web_view_get_uri(view_.get()));
}

std::string WebKitView::title() const {
  return text(webkit_web_view_get_title(view_.get()));
}

bool WebKitView::isLoading() const {
  return webkit_web_view_is_loading(view_.get()) != FALSE;
}

bool WebKitView::canGoBack() const {
  return webkit_web_view_can_go_back(view_.get()) != FALSE || behindTextPage() != nullptr;
}

bool WebKitView::canGoForward() const {
  return webkit_web_view_can_go_forward(view_.get()) != FALSE;
}

void WebKitView::installRuleList(std::shared_ptr<const RuleList> list) {
  // For WebKit this is work, and mostly nothing changes.
  if (list == ruleList_) return;
  webkit_user_content_manager_remove_all_filters(content_.get());
  ruleList_ = std::move(list);
  const auto* webKitList = dynamic_cast<const WebKitRuleList*>(ruleList_.get());
  if (webKitList == nullptr) return;
  for (const auto& filter : webKitList->filters()) {
    webkit_user_content_manager_add_filter(content_.get(), filter.get());
  }
}

void WebKitView::willNavigate(const std::string& url) {
  if (delegate_ != nullptr) delegate_->willNavigate(url);
}

void WebKitView::changed() {
  // From one request to its repetition nothing happens that anybody need know.
  if (delegate_ != nullptr && repetition_ == nullptr) delegate_->didChange();
}

void WebKitView::onLoadChanged(WebKitLoadEvent event) {
  switch (event) {
    case WEBKIT_LOAD_STARTED:
      isProvisional_ = true;
      isAnswered_ = false;
      if (delegate_ != nullptr) delegate_->didStart();
      if (std::exchange(stopsAtStart_, false)) stopLoading();
      break;
    case WEBKIT_LOAD_REDIRECTED:
      if (timer_ != 0) awaitAnswer();
      break;
    case WEBKIT_LOAD_COMMITTED:
      isProvisional_ = false;
      stopAwaitingAnswer();
      repetitions_ = 0;
      // What it refuses to request, WebKit replaces with an empty page, without a word.
      if (pending_ && url() == emptyPage && pending_->url != emptyPage) {
        fail({.message = "This address cannot be opened.", .url = pending_->url});
      }
      isTextShown_ = text_ && !isAnswered_ && text_->baseURL == url();
      pending_.reset();
      changed();
      break;
    case WEBKIT_LOAD_FINISHED:
      isProvisional_ = false;
      if (repetition_ != nullptr) return repeat();
      changed();
      break;
  }
}

void WebKitView::onLoadFailed(const std::string& url, const GError& error) {
  const bool isCancelled =
      g_error_matches(&error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED) != FALSE;
  constexpr int blockedByContentBlocker = 104;
  const bool isBlocked =
      error.domain == WEBKIT_POLICY_ERROR && error.code == blockedByContentBlocker;
  // By the list of the page before, which is another's.
  if (isBlocked && ruleList_ != nullptr) {
    willNavigate(url);
    if (ruleList_ == nullptr) {
      load(url);
      return;
    }
  }
  fail({.message = error.message, .url = url, .isCancelled = isCancelled});
}

void WebKitView::fail(const Failure& failure) {
  if (failure.isCancelled && repetition_ != nullptr) return;
  // What is cancelled mostly makes way for what is pending now.
  if (!failure.isCancelled) {
    repetitions_ = 0;
    pending_.reset();
    stopAwaitingAnswer();
  }
  const bool wasProvisional = std::exchange(isProvisional_, false);
  if (delegate_ != nullptr) delegate_->didFail(failure);
  // The page before stays, and with it its list.
  if (wasProvisional && !pending_) stayOnPage();
}

void WebKitView::onPageRequest(WebKitURIRequest* request) {
  const std::shared_ptr<const RuleList> before = ruleList_;
  willNavigate(text(webkit_uri_request_get_uri(request)));
  if (ruleList_ == before) return;
  // What was sent with a form is not sent twice.
  if (text(webkit_uri_request_get_http_method(request)) != "GET") return;
  if (++repetitions_ > maxRepetitions) return;
  repetition_.reset(WEBKIT_URI_REQUEST(g_object_ref(request)));
  webkit_web_view_stop_loading(view_.get());
}

// Moving in the history has to stay that.
void WebKitView::onNavigationAction(WebKitNavigationAction* action) {
  const bool isMove =
      webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_BACK_FORWARD;
  const std::string url =
      text(webkit_uri_request_get_uri(webkit_navigation_action_get_request(action)));
  if (isMove) {
    lastMove_ = url;
  } else if (lastMove_ == url) {
    lastMove_.clear();
  }
}

WebKitBackForwardListItem* WebKitView::itemOf(const std::string& url) const {
  WebKitBackForwardList* history = webkit_web_view_get_back_forward_list(view_.get());
  const auto isOfUrl = [&url](WebKitBackForwardListItem* item) {
    return item != nullptr && text(webkit_back_forward_list_item_get_uri(item)) == url;
  };
  // WebKit may have moved already.
  WebKitBackForwardListItem* found = webkit_back_forward_list_get_current_item(history);
  if (isOfUrl(found)) return found;
  found = nullptr;
  for (GList* items : {webkit_back_forward_list_get_back_list(history),
                       webkit_back_forward_list_get_forward_list(history)}) {
    for (GList* item = items; item != nullptr && found == nullptr; item = item->next) {
      auto* entry = WEBKIT_BACK_FORWARD_LIST_ITEM(item->data);
      if (isOfUrl(entry)) found = entry;
    }
    g_list_free(items);
  }
  return found;
}

void WebKitView::repeat() {
  const std::string url = text(webkit_uri_request_get_uri(repetition_.get()));
  WebKitBackForwardListItem* item = lastMove_ == url ? itemOf(url) : nullptr;
  if (item != nullptr) {
    moveTo(item);
  } else {
    openInThisView(repetition_.get());
  }
  repetition_.reset();
}

void WebKitView::moveTo(WebKitBackForwardListItem* item) {
  pending_.reset();
  willNavigate(text(webkit_back_forward_list_item_get_uri(item)));
  webkit_web_view_go_to_back_forward_list_item(view_.get(), item);
}

void WebKitView::onPageResponse(WebKitResponsePolicyDecision* decision) {
  isAnswered_ = true;
  willNavigate(
      text(webkit_uri_response_get_uri(webkit_response_policy_decision_get_response(decision))));
}

void WebKitView::openInThisView(WebKitURIRequest* request) {
  const std::string url = text(webkit_uri_request_get_uri(request));
  if (url.empty()) return;
  pending_ = Pending{.url = url, .text = std::nullopt};
  willNavigate(url);
  webkit_web_view_load_request(view_.get(), request);
  awaitAnswer();
}

void WebKitView::onProcessEnded(WebKitWebProcessTerminationReason reason) {
  // The program's own doing: what it does next tells why.
  if (reason == WEBKIT_WEB_PROCESS_TERMINATED_BY_API) return;
  fail({.message = reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT
                       ? "The page was closed because it took too much memory. Reload to try again."
                       : "The page crashed. Reload to try again."});
}

void WebKitView::onResponsivenessChanged() {
  if (webkit_web_view_get_is_web_process_responsive(view_.get()) != FALSE) return;
  if (delegate_ != nullptr) {
    delegate_->didFail({.message = "The page does not respond. Reload to try again."});
  }
}

void WebKitView::awaitAnswer() {
  stopAwaitingAnswer();
  const auto onTime = [](gpointer self) -> gboolean {
    static_cast<WebKitView*>(self)->onTimeout();
    return G_SOURCE_REMOVE;
  };
  timer_ = g_timeout_add(static_cast<guint>(timeout_.count()), onTime, this);
}

void WebKitView::stopAwaitingAnswer() {
  if (const guint timer = std::exchange(timer_, 0); timer != 0) g_source_remove(timer);
}

void WebKitView::onTimeout() {
  timer_ = 0;
  const std::string url = pending_ ? pending_->url : this->url();
  stopLoading();
  fail({.message = "The site does not answer.", .url = url});
}

}  // namespace tamsel
