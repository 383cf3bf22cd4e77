#pragma once

#include <libsoup/soup.h>

#include <algorithm>
#include <functional>
#include <map>
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
    /// Elsewhere, instead of the body.
    std::string redirect = {};
    /// More header lines.
    std::map<std::string, std::string> headers = {};
    /// Never says a word.
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
    if (answer.hangs) return soup_server_message_pause(message);
    if (!answer.redirect.empty()) {
      return soup_server_message_set_redirect(message, SOUP_STATUS_FOUND, answer.redirect.c_str());
    }
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    soup_message_headers_append(headers, "Access-Control-Allow-Origin", "*");
    for (const auto& [name, value] : answer.headers) {
      soup_message_headers_append(headers, name.c_str(), value.c_str());
    }
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(message, answer.type.c_str(), SOUP_MEMORY_COPY,
                                     answer.body.data(), answer.body.size());
  }

  SoupServer* server_;
};

}  // namespace tamsel::test
