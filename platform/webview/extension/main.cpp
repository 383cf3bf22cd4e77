// A module that WebKit loads into its web processes. It tells the program which requests WebKit has
// blocked: WebKit says so itself, in a message for the developer's console, and nowhere else.
//
//   Content blocker prevented frame displaying http://page.test/ from loading a resource from
//   http://ads.test/a.png
//
// What a page writes to its console has another source, so a page cannot say this.

#include <webkit/webkit-web-process-extension.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/webview/RequestKeys.h"
#include "platform/webview/extension/Protocol.h"

namespace tamsel::WebProcess {
namespace {

// One message is sent at once; what comes less than this later waits, in milliseconds.
constexpr guint interval = 200;
// So many keys go into one message: a millisecond's work for the program.
constexpr std::size_t keysAtOnce = 20000;

// What a new document does not have yet.
constexpr const char* mark = "tamselKnowsThisDocument";

std::uint64_t seed = 0;
WebKitScriptWorld* ownWorld = nullptr;

// The address that WebKit says it has not requested; nothing if it says something else.
std::optional<std::string_view> blockedURL(WebKitConsoleMessage* message) {
  constexpr std::string_view beginning = "Content blocker prevented frame displaying ";
  constexpr std::string_view middle = " from loading a resource from ";
  if (webkit_console_message_get_source(message) != WEBKIT_CONSOLE_MESSAGE_SOURCE_OTHER) {
    return std::nullopt;
  }
  const std::string_view text = webkit_console_message_get_text(message);
  if (!text.starts_with(beginning)) return std::nullopt;
  // The last one: the address of a frame may be "data:" and any text.
  const std::size_t end = text.rfind(middle);
  if (end == std::string_view::npos) return std::nullopt;
  return text.substr(end + middle.size());
}

// What was blocked in the document that a page shows, until it is sent.
class BlockedRequests {
 public:
  explicit BlockedRequests(WebKitWebPage* page) : page_(page) {}
  ~BlockedRequests() {
    if (timer_ != 0) g_source_remove(timer_);
  }
  BlockedRequests(const BlockedRequests&) = delete;
  BlockedRequests& operator=(const BlockedRequests&) = delete;

  void add(std::string_view url) {
    forgetDocumentBefore();
    const std::uint64_t key = RequestKeys::keyOf(url, seed);
    if (!known_.insert(key)) return;
    keys_.push_back(key);
    if (named_ < namedURLs) {
      ++named_;
      // One byte more than fits tells that it is cut.
      urls_.emplace_back(url.substr(0, std::min(url.find('#'), namedLength + 1)));
    }
    if (timer_ == 0) sendInTime();
  }

  // Sends all that waits.
  void flush() {
    forgetDocumentBefore();
    while (!keys_.empty()) send();
  }

 private:
  // Nobody wants to know any more what was blocked there; the program could only take it for the
  // new one's.
  void forgetDocumentBefore() {
    // There is no other way to a document, and no site isolation in WebKitGTK.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    WebKitFrame* frame = webkit_web_page_get_main_frame(page_);
    G_GNUC_END_IGNORE_DEPRECATIONS
    JSCContext* context = webkit_frame_get_js_context_for_script_world(frame, ownWorld);
    JSCValue* marked = jsc_context_get_value(context, mark);
    if (jsc_value_is_undefined(marked) != FALSE) {
      JSCValue* yes = jsc_value_new_boolean(context, TRUE);
      jsc_context_set_value(context, mark, yes);
      g_object_unref(yes);
      known_.clear();
      named_ = 0;
      keys_.clear();
      urls_.clear();
    }
    g_object_unref(marked);
    g_object_unref(context);
  }

  // Now, and then at most once in an interval.
  void sendInTime() {
    send();
    const auto onTime = [](gpointer data) -> gboolean {
      auto& self = *static_cast<BlockedRequests*>(data);
      self.forgetDocumentBefore();
      if (!self.keys_.empty()) {
        self.send();
        return G_SOURCE_CONTINUE;
      }
      self.timer_ = 0;
      return G_SOURCE_REMOVE;
    };
    timer_ = g_timeout_add(interval, onTime, this);
  }

  void send() {
    const std::size_t count = std::min(keys_.size(), keysAtOnce);
    GVariantBuilder urls;
    g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
    // They belong to the first keys, of which there are more than that in a message.
    for (const std::string& url : urls_) {
      g_variant_builder_add_value(&urls, g_variant_new_take_string(g_utf8_make_valid(
                                             url.data(), static_cast<gssize>(url.size()))));
    }
    GVariant* keys =
        g_variant_new_fixed_array(G_VARIANT_TYPE_UINT64, keys_.data(), count, sizeof(keys_[0]));
    GVariant* content = g_variant_new("(t@atas)", webkit_web_page_get_id(page_), keys, &urls);
    webkit_web_page_send_message_to_view(page_, webkit_user_message_new(blocked, content), nullptr,
                                         nullptr, nullptr);
    keys_.erase(keys_.begin(), keys_.begin() + static_cast<std::ptrdiff_t>(count));
    urls_.clear();
  }

  WebKitWebPage* page_;
  RequestKeys known_;
  std::size_t named_ = 0;
  std::vector<std::uint64_t> keys_;
  std::vector<std::string> urls_;
  guint timer_ = 0;
};

void onPageCreated(WebKitWebProcessExtension*, WebKitWebPage* page, gpointer) {
  auto* requests = new BlockedRequests(page);
  g_object_set_data_full(G_OBJECT(page), "tamsel-blocked-requests", requests,
                         [](gpointer data) { delete static_cast<BlockedRequests*>(data); });
  const auto onConsoleMessage = [](WebKitWebPage*, WebKitConsoleMessage* message, gpointer data) {
    if (const auto url = blockedURL(message)) static_cast<BlockedRequests*>(data)->add(*url);
  };
  g_signal_connect(page, "console-message-sent", G_CALLBACK(+onConsoleMessage), requests);
  const auto onUserMessage = [](WebKitWebPage*, WebKitUserMessage* message,
                                gpointer data) -> gboolean {
    if (std::string_view(webkit_user_message_get_name(message)) != flush) return FALSE;
    static_cast<BlockedRequests*>(data)->flush();
    webkit_user_message_send_reply(message, webkit_user_message_new(flush, nullptr));
    return TRUE;
  };
  g_signal_connect(page, "user-message-received", G_CALLBACK(+onUserMessage), requests);
}

}  // namespace
}  // namespace tamsel::WebProcess

extern "C" G_MODULE_EXPORT void webkit_web_process_extension_initialize_with_user_data(
    WebKitWebProcessExtension* extension, const GVariant* data) {
  using namespace tamsel::WebProcess;
  // GLib knows no const.
  auto* given = const_cast<GVariant*>(data);
  if (given != nullptr && g_variant_is_of_type(given, G_VARIANT_TYPE_UINT64) != FALSE) {
    seed = g_variant_get_uint64(given);
  }
  ownWorld = webkit_script_world_new_with_name(world);
  g_signal_connect(extension, "page-created", G_CALLBACK(onPageCreated), nullptr);
  webkit_web_process_extension_send_message_to_context(
      extension, webkit_user_message_new(ready, nullptr), nullptr, nullptr, nullptr);
}
