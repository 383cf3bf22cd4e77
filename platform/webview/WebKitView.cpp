#include "platform/webview/WebKitView.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <utility>

#include "platform/files/Files.h"
#include "platform/mainloop/Signals.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "platform/webview/PageQuestions.h"
#include "platform/webview/extension/Protocol.h"

namespace tamsel {
namespace {

// As many as redirections that WebKit follows.
constexpr int maxRepetitions = 20;

constexpr const char* emptyPage = "about:blank";

constexpr const char* messageSignal = "script-message-received::";

// How long a page may take to let the program go, or to stop. Who wants to leave waits no more than
// two seconds in all; a page that is to stop should rather live.
constexpr auto patienceToLeave = std::chrono::milliseconds(1000);
constexpr auto patienceToStop = std::chrono::milliseconds(1500);

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

// Whether WebKit would run the address in the page that is shown. It leaves out of an address what
// cannot be seen.
bool isScript(const std::string& url) {
  std::string scheme;
  for (const char c : url.substr(0, url.find(':'))) {
    if (static_cast<unsigned char>(c) > ' ') scheme += g_ascii_tolower(c);
  }
  return scheme == "javascript";
}

// Downloads and other windows.
void removeWhatThereIsNot(WebKitContextMenu* menu) {
  constexpr std::array actions = {WEBKIT_CONTEXT_MENU_ACTION_OPEN_LINK_IN_NEW_WINDOW,
                                  WEBKIT_CONTEXT_MENU_ACTION_DOWNLOAD_LINK_TO_DISK,
                                  WEBKIT_CONTEXT_MENU_ACTION_OPEN_IMAGE_IN_NEW_WINDOW,
                                  WEBKIT_CONTEXT_MENU_ACTION_DOWNLOAD_IMAGE_TO_DISK,
                                  WEBKIT_CONTEXT_MENU_ACTION_OPEN_FRAME_IN_NEW_WINDOW,
                                  WEBKIT_CONTEXT_MENU_ACTION_OPEN_VIDEO_IN_NEW_WINDOW,
                                  WEBKIT_CONTEXT_MENU_ACTION_OPEN_AUDIO_IN_NEW_WINDOW,
                                  WEBKIT_CONTEXT_MENU_ACTION_DOWNLOAD_VIDEO_TO_DISK,
                                  WEBKIT_CONTEXT_MENU_ACTION_DOWNLOAD_AUDIO_TO_DISK};
  GList* items = g_list_copy(webkit_context_menu_get_items(menu));
  for (GList* each = items; each != nullptr; each = each->next) {
    auto* item = WEBKIT_CONTEXT_MENU_ITEM(each->data);
    const WebKitContextMenuAction action = webkit_context_menu_item_get_stock_action(item);
    if (std::find(actions.begin(), actions.end(), action) != actions.end()) {
      webkit_context_menu_remove(menu, item);
    }
  }
  g_list_free(items);
}

}  // namespace

WebKitView::WebKitView(const Options& options)
    : content_(webkit_user_content_manager_new()),
      context_(webkit_web_context_new()),
      session_(WEBKIT_NETWORK_SESSION(g_object_ref(
          options.session != nullptr ? options.session : webkit_network_session_get_default()))),
      timeout_(options.timeout) {
  loadModule(options.moduleFolder);
  WebKitSettings* settings = webkit_settings_new_with_settings(
      // A page that comes back out of the cache requests nothing, so nothing would be counted, and
      // it would show what other rules made of it.
      "enable-page-cache", FALSE, nullptr);
  GObject* view = G_OBJECT(g_object_new(
      WEBKIT_TYPE_WEB_VIEW, "user-content-manager", content_.get(), "settings", settings,
      "web-context", context_.get(), "network-session", session_.get(), nullptr));
  g_object_unref(settings);
  view_.reset(WEBKIT_WEB_VIEW(g_object_ref_sink(view)));
  dialogs_ = std::make_unique<PageDialogs>(GTK_WIDGET(view), [this] { onDialogsChanged(); });
  downloads_.emplace(session_.get(), view_.get(),
                     [this](const std::string& name) { refuseDownload(name); });
  followLoads();
  answerPages();
}

WebKitView::~WebKitView() {
  followPage(nullptr);
  for (gpointer object : {gpointer(view_.get()), gpointer(content_.get()), gpointer(context_.get()),
                          gpointer(webkit_web_view_get_back_forward_list(view_.get()))}) {
    g_signal_handlers_disconnect_by_data(object, this);
  }
}

template <typename Handler>
void WebKitView::on(gpointer object, const char* signal, Handler handler) {
  connect(object, signal, handler, this);
}

void WebKitView::loadModule(const std::string& folder) {
  if (std::error_code error; !std::filesystem::exists(folder, error)) return;
  webkit_web_context_set_web_process_extensions_directory(context_.get(), folder.c_str());
  webkit_web_context_set_web_process_extensions_initialization_user_data(
      context_.get(), g_variant_new_uint64(seed_));
  // The processes see little of the system.
  webkit_web_context_add_path_to_sandbox(context_.get(), folder.c_str(), TRUE);
  on(context_.get(), "user-message-received",
     [](WebKitWebContext*, WebKitUserMessage* message, WebKitView* self) -> gboolean {
       if (text(webkit_user_message_get_name(message)) != WebProcess::ready) return FALSE;
       self->isModuleThere_ = true;
       return TRUE;
     });
}

std::string WebKitView::installedModuleFolder() {
  return Files::besideProgram("web-process", TAMSEL_MODULE_FOLDER);
}

WebKitNetworkSession* WebKitView::makeSession(const std::string& dataFolder,
                                              const std::string& cacheFolder) {
  for (const std::string& folder : {dataFolder, cacheFolder}) {
    constexpr int forTheUserOnly = 0700;
    g_mkdir_with_parents(folder.c_str(), forTheUserOnly);
  }
  WebKitNetworkSession* session =
      webkit_network_session_new(dataFolder.c_str(), cacheFolder.c_str());
  // WebKit keeps all but these by itself.
  webkit_cookie_manager_set_persistent_storage(webkit_network_session_get_cookie_manager(session),
                                               (dataFolder + "/cookies.sqlite").c_str(),
                                               WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
  webkit_network_session_set_persistent_credential_storage_enabled(session, FALSE);
  return session;
}

// How pages come and go.
void WebKitView::followLoads() {
  const gpointer view = view_.get();
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
       if (self->isWanted(decision, type)) return FALSE;
       webkit_policy_decision_ignore(decision);
       return TRUE;
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
       WebKitURIRequest* request = webkit_navigation_action_get_request(action);
       // An empty window, that the page wants to write to, there is not.
       if (text(webkit_uri_request_get_uri(request)) != emptyPage) self->openInThisView(request);
       return nullptr;
     });
  on(view, "web-process-terminated",
     [](WebKitWebView*, WebKitWebProcessTerminationReason reason, WebKitView* self) {
       self->onProcessEnded(reason);
     });
  on(view, "notify::is-web-process-responsive",
     [](GObject*, GParamSpec*, WebKitView* self) { self->onResponsivenessChanged(); });
  on(view, "notify::is-loading",
     [](GObject*, GParamSpec*, WebKitView* self) { self->onLoadingChanged(); });
  // Pages change their own address, title and history too.
  for (const char* property : {"notify::uri", "notify::title"}) {
    on(view, property, [](GObject*, GParamSpec*, WebKitView* self) {
      if (!self->isLoading()) self->changed();
    });
  }
  on(webkit_web_view_get_back_forward_list(view_.get()), "changed",
     [](WebKitBackForwardList*, gpointer, gpointer, WebKitView* self) { self->changed(); });
}

// What pages tell, ask for and ask.
void WebKitView::answerPages() {
  const gpointer view = view_.get();
  on(view, "user-message-received",
     [](WebKitWebView*, WebKitUserMessage* message, WebKitView* self) -> gboolean {
       if (text(webkit_user_message_get_name(message)) != WebProcess::blocked) return FALSE;
       self->onBlocked(webkit_user_message_get_parameters(message));
       return TRUE;
     });
  on(view, "script-dialog",
     [](WebKitWebView*, WebKitScriptDialog* dialog, WebKitView* self) -> gboolean {
       self->onScriptDialog(dialog);
       return TRUE;
     });
  on(view, "authenticate",
     [](WebKitWebView*, WebKitAuthenticationRequest* request, WebKitView* self) -> gboolean {
       PageQuestions::ask(*self->dialogs_, request);
       return TRUE;
     });
  on(view, "permission-request",
     [](WebKitWebView*, WebKitPermissionRequest* request, WebKitView*) -> gboolean {
       webkit_permission_request_deny(request);
       return TRUE;
     });
  // A page could ask for it again and again.
  on(view, "print",
     [](WebKitWebView*, WebKitPrintOperation*, WebKitView*) -> gboolean { return TRUE; });
  on(view, "context-menu",
     [](WebKitWebView*, WebKitContextMenu* menu, WebKitHitTestResult*, WebKitView*) -> gboolean {
       removeWhatThereIsNot(menu);
       return FALSE;
     });
}

void WebKitView::followPage(WebKitWebResource* page) {
  if (page_ != nullptr) g_signal_handlers_disconnect_by_data(page_.get(), this);
  page_.reset(page == nullptr ? nullptr : WEBKIT_WEB_RESOURCE(g_object_ref(page)));
  if (page_ == nullptr) return;
  const auto onSent = [](WebKitWebResource*, WebKitURIRequest* request,
                         WebKitURIResponse* redirection, WebKitView* self) {
    if (redirection != nullptr) self->onPageRequest(request);
  };
  on(page, "sent-request", onSent);
}

void WebKitView::addScript(const std::string& source, World world) {
  WebKitUserScript* script =
      world == World::own
          ? webkit_user_script_new_for_world(source.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START,
                                             WebProcess::world, nullptr, nullptr)
          : webkit_user_script_new(source.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                   WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(content_.get(), script);
  webkit_user_script_unref(script);
}

void WebKitView::addMessageHandler(const std::string& name) {
  // Before it is registered, so that no message is missed.
  on(content_.get(), (messageSignal + name).c_str(),
     [](WebKitUserContentManager*, JSCValue* value, WebKitView* self) {
       // Until the next page has taken its place, what comes is of the one before.
       if (self->delegate_ == nullptr || self->isProvisional_) return;
       self->delegate_->didReceive(ScriptMessage(value));
     });
  webkit_user_content_manager_register_script_message_handler(content_.get(), name.c_str(),
                                                              WebProcess::world);
}

void WebKitView::onBlocked(GVariant* message) {
  if (message == nullptr || delegate_ == nullptr ||
      g_variant_is_of_type(message, G_VARIANT_TYPE(WebProcess::blockedFormat)) == FALSE) {
    return;
  }
  guint64 page = 0;
  GVariant* keys = nullptr;
  GVariant* urls = nullptr;
  g_variant_get(message, "(t@at@as)", &page, &keys, &urls);
  Blocked blocked;
  gsize count = 0;
  const auto* first =
      static_cast<const guint64*>(g_variant_get_fixed_array(keys, &count, sizeof(guint64)));
  blocked.keys.assign(first, first + count);
  GVariantIter iterator;
  g_variant_iter_init(&iterator, urls);
  for (const char* url = nullptr; g_variant_iter_next(&iterator, "&s", &url) != FALSE;) {
    blocked.urls.emplace_back(url);
  }
  g_variant_unref(keys);
  g_variant_unref(urls);
  // A page that has gone may still have a process.
  if (page == webkit_web_view_get_page_id(view_.get())) delegate_->didBlock(blocked);
}

void WebKitView::load(const std::string& url) {
  if (isScript(url)) {
    return fail({.message = "An address that is a script is not run.", .url = url});
  }
  depart(url, [this, url] { begin({.url = url, .text = std::nullopt}); });
}

void WebKitView::loadHtml(const std::string& html, const std::string& baseURL) {
  depart(baseURL, [=, this] { begin({.url = baseURL, .text = TextPage{html, baseURL}}); });
}

// Leaves the page for what the action has WebKit load.
void WebKitView::depart(const std::string& to, const std::function<void()>& action) {
  insists_ = dialogs_->isOpen();
  departure_.reset();
  dialogs_->closeAll();
  dialogs_->startAnew();
  action();
  watchDeparture(patienceToLeave, action);
  // WebKit may write it another way.
  departure_->leadTo({to, url()});
}

void WebKitView::watchDeparture(std::chrono::milliseconds patience, std::function<void()> again) {
  const auto onEnd = [this](Departure::End end) {
    if (end == Departure::End::let) {
      // What is still on its way the page may still hinder.
      if (!departure_->isLeading() || !isLoading()) departure_.reset();
      return;
    }
    // Before the page is ended, which would be an answer.
    const auto next = departure_->again();
    departure_.reset();
    endProcess();
    next();
  };
  departure_ = std::make_unique<Departure>(view_.get(), patience, onEnd, std::move(again));
}

void WebKitView::endProcess() {
  isProvisional_ = false;
  repetition_.reset();
  isEnded_ = true;
  webkit_web_view_terminate_web_process(view_.get());
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
    answer_.start(timeout_);
  }
}

void WebKitView::reload() {
  depart(isEnded_ ? shownURL_ : url(), [this] { reloadNow(); });
}

void WebKitView::reloadNow() {
  if (pending_) {
    begin(Pending(*pending_));
  } else if (isProvisional_) {
    // A page on its way, by a link or a script, needs no second request.
  } else if (isTextShown_) {
    begin({.url = text_->baseURL, .text = *text_});
  } else if (isEnded_) {
    // To reload, WebKit would take it as it was from its cache.
    begin({.url = shownURL_, .text = std::nullopt});
  } else {
    willNavigate(url());
    webkit_web_view_reload(view_.get());
  }
}

void WebKitView::stopLoading() {
  dialogs_->closeAll();
  stopNow();
  watchDeparture(patienceToStop, [this] {
    fail({.message = "The page did not stop and was closed. Reload to try again."});
    changed();
  });
}

void WebKitView::stopNow() {
  repetition_.reset();
  // Stopped before it has begun, WebKit would say that it loads for ever.
  stopsAtStart_ = pending_ && !isProvisional_;
  if (stopsAtStart_) return;
  pending_.reset();
  answer_.stop();
  webkit_web_view_stop_loading(view_.get());
}

void WebKitView::stayOnPage() {
  if (!url().empty()) willNavigate(url());
  if (delegate_ != nullptr) delegate_->didStay();
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
  departTo(item);
}

void WebKitView::goForward() {
  departTo(webkit_back_forward_list_get_forward_item(
      webkit_web_view_get_back_forward_list(view_.get())));
}

void WebKitView::departTo(WebKitBackForwardListItem* item) {
  if (item == nullptr) return;
  const std::shared_ptr<WebKitBackForwardListItem> kept(
      WEBKIT_BACK_FORWARD_LIST_ITEM(g_object_ref(item)), Unref());
  depart(text(webkit_back_forward_list_item_get_uri(item)), [this, kept] { moveTo(kept.get()); });
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
  // When the page's process has gone, WebKit knows nothing of it any more.
  if (!isEnded_ && !isProvisional_ && !url().empty()) shownURL_ = url();
  // From one request to its repetition nothing happens that anybody need know.
  if (delegate_ != nullptr && repetition_ == nullptr) delegate_->didChange();
}

void WebKitView::onLoadChanged(WebKitLoadEvent event) {
  switch (event) {
    case WEBKIT_LOAD_STARTED:
      isProvisional_ = true;
      isAnswered_ = false;
      if (delegate_ != nullptr) delegate_->didStart();
      if (std::exchange(stopsAtStart_, false)) stopNow();
      break;
    case WEBKIT_LOAD_REDIRECTED:
      if (answer_.isRunning()) answer_.start(timeout_);
      if (departure_ != nullptr) departure_->isRedirected();
      break;
    case WEBKIT_LOAD_COMMITTED:
      isProvisional_ = false;
      isEnded_ = isUnresponsive_ = false;
      if (delegate_ != nullptr) delegate_->didCommit();
      sayIfModuleIsMissing();
      if (departure_ != nullptr && !departure_->endsAt(url())) return changed();
      departure_.reset();
      answer_.stop();
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
      onLoadingChanged();
      break;
  }
}

void WebKitView::onLoadFailed(const std::string& url, const GError& error) {
  const bool isCancelled =
      g_error_matches(&error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED) != FALSE;
  // What is ignored, an answer without content for instance, or is no page.
  if (g_error_matches(&error, WEBKIT_POLICY_ERROR,
                      WEBKIT_POLICY_ERROR_FRAME_LOAD_INTERRUPTED_BY_POLICY_CHANGE) != FALSE) {
    const Failure nothing{.message = error.message, .url = url, .isCancelled = true};
    // It was the page's own wish, and something else is to come.
    if (departure_ != nullptr && departure_->isHindered()) return tellFailure(nothing);
    return endLoad(nothing);
  }
  constexpr int blockedByContentBlocker = 104;
  const bool isBlocked =
      error.domain == WEBKIT_POLICY_ERROR && error.code == blockedByContentBlocker;
  // By the list of the page before, which is another's.
  if (isBlocked && ruleList_ != nullptr) {
    willNavigate(url);
    if (ruleList_ == nullptr) {
      departure_.reset();
      return begin({.url = url, .text = std::nullopt});
    }
  }
  Failure failure{.message = error.message, .url = url, .isCancelled = isCancelled};
  if (isBlocked) failure.blockedKey = RequestKeys::keyOf(url, seed_);
  fail(failure);
}

void WebKitView::fail(const Failure& failure) {
  // What is cancelled mostly makes way for what is pending now, or is requested again.
  if (!failure.isCancelled) return endLoad(failure);
  if (repetition_ == nullptr) tellFailure(failure);
}

// Nothing more comes of what was to be loaded.
void WebKitView::endLoad(const Failure& failure) {
  repetitions_ = 0;
  pending_.reset();
  departure_.reset();
  answer_.stop();
  tellFailure(failure);
}

void WebKitView::tellFailure(const Failure& failure) {
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

bool WebKitView::isWanted(WebKitPolicyDecision* decision, WebKitPolicyDecisionType type) {
  if (type == WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION) {
    WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(
        WEBKIT_NAVIGATION_POLICY_DECISION(decision));
    if (departure_ != nullptr && departure_->isHinderedBy(action)) return false;
    onNavigationAction(action);
  }
  if (type != WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return true;
  auto* answer = WEBKIT_RESPONSE_POLICY_DECISION(decision);
  WebKitURIResponse* response = webkit_response_policy_decision_get_response(answer);
  const guint status = webkit_uri_response_get_status_code(response);
  // They say that there is nothing to show.
  if (status == SOUP_STATUS_NO_CONTENT || status == SOUP_STATUS_RESET_CONTENT) return false;
  if (webkit_response_policy_decision_is_mime_type_supported(answer) == FALSE) {
    refuseDownload(Downloads::fileName(response));
    return false;
  }
  if (webkit_response_policy_decision_is_main_frame_main_resource(answer) != FALSE) {
    onPageResponse(response);
  }
  return true;
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
  if (departure_ != nullptr) departure_->leadTo({url});
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

void WebKitView::onPageResponse(WebKitURIResponse* response) {
  isAnswered_ = true;
  willNavigate(text(webkit_uri_response_get_uri(response)));
}

void WebKitView::openInThisView(WebKitURIRequest* request) {
  const std::string url = text(webkit_uri_request_get_uri(request));
  if (url.empty()) return;
  pending_ = Pending{.url = url, .text = std::nullopt};
  willNavigate(url);
  webkit_web_view_load_request(view_.get(), request);
  answer_.start(timeout_);
}

void WebKitView::onProcessEnded(WebKitWebProcessTerminationReason reason) {
  // The program's own doing: what it does next tells why.
  if (reason == WEBKIT_WEB_PROCESS_TERMINATED_BY_API) return;
  isEnded_ = true;
  fail({.message = reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT
                       ? "The page was closed because it took too much memory. Reload to try again."
                       : "The page crashed. Reload to try again."});
}

void WebKitView::onResponsivenessChanged() {
  const bool isResponsive = webkit_web_view_get_is_web_process_responsive(view_.get()) != FALSE;
  // It waits for a person, or is about to be ended.
  if (!isResponsive && (dialogs_->isOpen() || departure_ != nullptr)) return;
  if (isResponsive == !isUnresponsive_) return;
  isUnresponsive_ = !isResponsive;
  if (delegate_ == nullptr) return;
  delegate_->didFail(
      {.message = isResponsive ? "" : "The page does not respond. Reload to try again."});
}

// A move within a page is no load, and only this tells of its end.
void WebKitView::onLoadingChanged() {
  if (isProvisional_ || repetition_ != nullptr) return;
  if (!isLoading() && (departure_ == nullptr || !departure_->isHindered())) {
    pending_.reset();
    stopsAtStart_ = false;
    answer_.stop();
  }
  changed();
}

void WebKitView::onScriptDialog(WebKitScriptDialog* dialog) {
  const bool asksToLeave =
      webkit_script_dialog_get_dialog_type(dialog) == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM;
  // Somebody is about to leave: that is what the page may ask about, and once.
  if (departure_ != nullptr && (insists_ || !asksToLeave)) {
    if (asksToLeave) webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
    return;
  }
  PageQuestions::ask(*dialogs_, dialog, url(), [this] {
    pending_.reset();
    departure_.reset();
    answer_.stop();
    stayOnPage();
    // A move within the page ends what WebKit says of the other; it leads to where the page is.
    webkit_web_view_evaluate_javascript(view_.get(), "history.replaceState(history.state, '')", -1,
                                        WebProcess::world, nullptr, nullptr, nullptr, nullptr);
  });
}

void WebKitView::onDialogsChanged() {
  if (dialogs_->isOpen()) {
    resumesAwaiting_ = answer_.isRunning();
    answer_.stop();
    if (departure_ != nullptr) departure_->pause();
  } else {
    if (std::exchange(resumesAwaiting_, false) && pending_) answer_.start(timeout_);
    if (departure_ != nullptr) departure_->resume();
  }
}

void WebKitView::refuseDownload(const std::string& name) {
  if (delegate_ == nullptr) return;
  delegate_->didFail({.message = "Tamsel does not download files: " + name});
}

// Without the module all else works, but somebody should know.
void WebKitView::sayIfModuleIsMissing() const {
  static bool hasSaid = false;
  if (isModuleThere_ || std::exchange(hasSaid, true)) return;
  std::fputs(
      "tamsel: the module for WebKit's processes is not there: what is blocked is counted only "
      "as far as pages notice it\n",
      stderr);
}

void WebKitView::onTimeout() {
  const std::string url = pending_ ? pending_->url : this->url();
  stopNow();
  fail({.message = "The site does not answer.", .url = url});
}

}  // namespace tamsel
