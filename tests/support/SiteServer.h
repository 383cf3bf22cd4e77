#pragma once

#include <libsoup/soup.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tamsel::test {

/// Every http site that a test needs, on this machine and in the test's own main loop: a proxy that
/// answers itself.
class SiteServer {
 public:
  struct Answer {
    std::string body = {};
    std::string type = "text/html";
    unsigned status = SOUP_STATUS_OK;
    /// Elsewhere, instead of the body. The status is 302 unless another redirect is named.
    std::string redirect = {};
    /// More header lines.
    std::map<std::string, std::string> headers = {};
    /// Sent just so instead of all the rest; then the connection is closed.
    std::optional<std::string> raw = {};
    /// Never says a word, or no more than `raw`.
    bool hangs = false;
  };

  SiteServer() : server_(soup_server_new(nullptr, nullptr)) {
    soup_server_add_handler(server_, nullptr, handle, this, nullptr);
    if (soup_server_listen_local(server_, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr) == 0) {
      throw std::runtime_error("cannot listen");
    }
  }
  ~SiteServer() {
    soup_server_disconnect(server_);
    g_object_unref(server_);
  }
  SiteServer(const SiteServer&) = delete;
  SiteServer& operator=(const SiteServer&) = delete;

  /// Where the proxy is.
  std::string url() const {
    GSList* uris = soup_server_get_uris(server_);
    const int port = g_uri_get_port(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    return "http://127.0.0.1:" + std::to_string(port);
  }

  std::size_t timesRequested(const std::string& requestedUrl) const {
    return static_cast<std::size_t>(std::count(requests.begin(), requests.end(), requestedUrl));
  }

  /// By URL without query. What is in neither, "/favicon.ico" for instance, is not found.
  std::map<std::string, Answer> pages;
  /// For what is not among the pages, if it is set.
  std::function<Answer(const std::string& url)> others;
  /// Every URL that was requested, in order.
  std::vector<std::string> requests;
  /// Those that hang, and say their answer when they are unpaused.
  std::vector<SoupServerMessage*> hanging;
  /// How many connections hang behind something raw until the client goes; none may outlive this.
  int open = 0;

 private:
  static void handle(SoupServer*, SoupServerMessage* message, const char*, GHashTable*,
                     gpointer data) {
    SiteServer& self = *static_cast<SiteServer*>(data);
    gchar* text = g_uri_to_string(soup_server_message_get_uri(message));
    const std::string url = text;
    g_free(text);
    self.requests.push_back(url);
    const auto page = self.pages.find(url.substr(0, url.find('?')));
    if (page == self.pages.end() && (!self.others || url.ends_with("/favicon.ico"))) {
      soup_server_message_set_status(message, SOUP_STATUS_NOT_FOUND, nullptr);
      return;
    }
    const Answer answer = page != self.pages.end() ? page->second : self.others(url);
    if (answer.raw) return self.send(message, *answer.raw, answer.hangs);
    if (!answer.redirect.empty()) {
      unsigned status = answer.status;
      if (status == SOUP_STATUS_OK) status = SOUP_STATUS_FOUND;
      return soup_server_message_set_redirect(message, status, answer.redirect.c_str());
    }
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    soup_message_headers_append(headers, "Access-Control-Allow-Origin", "*");
    for (const auto& [name, value] : answer.headers) {
      soup_message_headers_append(headers, name.c_str(), value.c_str());
    }
    soup_server_message_set_status(message, answer.status, nullptr);
    soup_server_message_set_response(message, answer.type.c_str(), SOUP_MEMORY_COPY,
                                     answer.body.data(), answer.body.size());
    if (!answer.hangs) return;
    self.hanging.push_back(message);
    soup_server_message_pause(message);
  }

  struct Held {
    SiteServer* server;
    GIOStream* stream;
  };

  void send(SoupServerMessage* message, const std::string& text, bool hangs) {
    GIOStream* stream = soup_server_message_steal_connection(message);
    g_output_stream_write_all(g_io_stream_get_output_stream(stream), text.data(), text.size(),
                              nullptr, nullptr, nullptr);
    if (hangs) {
      ++open;
      g_input_stream_skip_async(g_io_stream_get_input_stream(stream), 1, G_PRIORITY_DEFAULT,
                                nullptr, onGone, new Held{this, stream});
      return;
    }
    g_io_stream_close(stream, nullptr, nullptr);
    g_object_unref(stream);
  }
  static void onGone(GObject* input, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Held> held(static_cast<Held*>(data));
    const gssize more = g_input_stream_skip_finish(G_INPUT_STREAM(input), result, nullptr);
    if (more <= 0) --held->server->open;
    g_object_unref(held->stream);
  }

  SoupServer* server_;
};

}  // namespace tamsel::test
