#pragma once

#include <libsoup/soup.h>
#include <sys/socket.h>

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
    /// Said behind `raw` again and again until the client goes, and how long it waits each time.
    std::string endless = {};
    guint millisecondsBetween = 0;
    /// Behind `raw` the connection is reset; else it is closed, where it is encrypted with a word.
    bool resets = false;
    bool closesWithoutWord = false;
  };

  /// With a certificate it serves https.
  explicit SiteServer(GTlsCertificate* certificate = nullptr)
      : server_(soup_server_new("tls-certificate", certificate, nullptr)) {
    soup_server_add_handler(server_, nullptr, handle, this, nullptr);
    auto options = static_cast<int>(SOUP_SERVER_LISTEN_IPV4_ONLY);
    if (certificate != nullptr) options |= SOUP_SERVER_LISTEN_HTTPS;
    if (!soup_server_listen_local(server_, 0, static_cast<SoupServerListenOptions>(options),
                                  nullptr)) {
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
    const std::string scheme = g_uri_get_scheme(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    return scheme + "://127.0.0.1:" + std::to_string(port);
  }

  std::size_t timesRequested(const std::string& requestedUrl) const {
    return static_cast<std::size_t>(std::count(requests.begin(), requests.end(), requestedUrl));
  }

  /// By URL without query. What is in neither, "/favicon.ico" for instance, is not found.
  std::map<std::string, Answer> pages;
  /// For what is not among the pages, if it is set.
  std::function<Answer(const std::string& url)> others;
  /// The version of the last request.
  SoupHTTPVersion version = SOUP_HTTP_1_0;
  /// Every URL that was requested, in order.
  std::vector<std::string> requests;
  /// Those that hang, and say their answer when they are unpaused.
  std::vector<SoupServerMessage*> hanging;
  /// How many connections with something raw wait until the client goes; none may outlive this.
  int open = 0;

 private:
  static void handle(SoupServer*, SoupServerMessage* message, const char*, GHashTable*,
                     gpointer data) {
    SiteServer& self = *static_cast<SiteServer*>(data);
    gchar* text = g_uri_to_string(soup_server_message_get_uri(message));
    const std::string url = text;
    g_free(text);
    self.requests.push_back(url);
    self.version = soup_server_message_get_http_version(message);
    const auto page = self.pages.find(url.substr(0, url.find('?')));
    if (page == self.pages.end() && (!self.others || url.ends_with("/favicon.ico"))) {
      soup_server_message_set_status(message, SOUP_STATUS_NOT_FOUND, nullptr);
      return;
    }
    const Answer answer = page != self.pages.end() ? page->second : self.others(url);
    if (answer.raw) return self.send(message, answer);
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
    Answer answer;

    GOutputStream* output() const { return g_io_stream_get_output_stream(stream); }
    ~Held() {
      --server->open;
      g_object_unref(stream);
    }
  };

  void send(SoupServerMessage* message, const Answer& answer) {
    const int socket = g_socket_get_fd(soup_server_message_get_socket(message));
    ++open;
    std::unique_ptr<Held> held(
        new Held{this, soup_server_message_steal_connection(message), answer});
    g_output_stream_write_all(held->output(), answer.raw->data(), answer.raw->size(), nullptr,
                              nullptr, nullptr);
    if (answer.hangs) {
      GInputStream* input = g_io_stream_get_input_stream(held->stream);
      return g_input_stream_skip_async(input, 1, G_PRIORITY_DEFAULT, nullptr, onGone,
                                       held.release());
    }
    if (!answer.endless.empty()) {
      sayMore(held.release());
      return;
    }
    const linger none{.l_onoff = 1, .l_linger = 0};
    if (answer.closesWithoutWord) shutdown(socket, SHUT_RDWR);
    if (answer.resets) setsockopt(socket, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    g_io_stream_close(held->stream, nullptr, nullptr);
  }
  static void onGone(GObject* input, GAsyncResult* result, gpointer held) {
    g_input_stream_skip_finish(G_INPUT_STREAM(input), result, nullptr);
    delete static_cast<Held*>(held);
  }
  static gboolean sayMore(gpointer data) {
    const Held& held = *static_cast<Held*>(data);
    const std::string& text = held.answer.endless;
    g_output_stream_write_all_async(held.output(), text.data(), text.size(), G_PRIORITY_DEFAULT,
                                    nullptr, onSaid, data);
    return G_SOURCE_REMOVE;
  }
  static void onSaid(GObject* output, GAsyncResult* result, gpointer data) {
    std::unique_ptr<Held> held(static_cast<Held*>(data));
    if (!g_output_stream_write_all_finish(G_OUTPUT_STREAM(output), result, nullptr, nullptr)) {
      return;
    }
    const guint wait = held->answer.millisecondsBetween;
    g_timeout_add(wait, sayMore, held.release());
  }

  SoupServer* server_;
};

}  // namespace tamsel::test
