#include "platform/webview/Departure.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/webview/extension/Protocol.h"

namespace tamsel {
namespace {

// What WebKit loads instead of an address that it does not know what to do with.
constexpr std::string_view emptyPage = "about:blank";

std::string_view withoutFragment(std::string_view url) {
  return url.substr(0, url.find('#'));
}

}  // namespace

Departure::Departure(WebKitWebView* page, std::chrono::milliseconds patience, OnEnd onEnd,
                     std::function<void()> again)
    : patience_(patience), onEnd_(std::move(onEnd)), again_(std::move(again)) {
  const auto onResult = [](GObject* view, GAsyncResult* result, gpointer self) {
    GError* error = nullptr;
    JSCValue* value = webkit_web_view_call_async_javascript_function_finish(WEBKIT_WEB_VIEW(view),
                                                                            result, &error);
    if (value != nullptr) g_object_unref(value);
    const bool isDestroyed = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
    // Any other error, for instance that the page is gone, is as good as an answer.
    g_clear_error(&error);
    if (!isDestroyed) Uncaught::guard([self] { static_cast<Departure*>(self)->onAnswer(); });
  };
  webkit_web_view_call_async_javascript_function(page, "return 0", -1, nullptr, WebProcess::world,
                                                 nullptr, question_.get(), onResult, this);
  resume();
}

Departure::~Departure() {
  g_cancellable_cancel(question_.get());
}

bool Departure::leadsTo(std::string_view url) const {
  return url == emptyPage || std::any_of(urls_.begin(), urls_.end(), [url](const auto& wanted) {
           return withoutFragment(url) == withoutFragment(wanted);
         });
}

bool Departure::isHinderedBy(WebKitNavigationAction* action) {
  if (!isLeading() || webkit_navigation_action_is_redirect(action) != FALSE) return false;
  const char* url = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
  if (leadsTo(url == nullptr ? "" : url)) return false;
  isHindered_ = true;
  return true;
}

bool Departure::endsAt(std::string_view url) {
  if (!isLeading() || leadsTo(url) || (isRedirected_ && !isHindered_)) return true;
  isHindered_ = true;
  return false;
}

void Departure::onAnswer() {
  isAnswered_ = true;
  // To stop is no more than that.
  if (isLeading()) return;
  const OnEnd onEnd = onEnd_;
  onEnd(End::let);
}

void Departure::onPatienceEnded() {
  const OnEnd onEnd = onEnd_;
  onEnd(isAnswered_ && !isHindered_ ? End::let : End::stuck);
}

}  // namespace tamsel
