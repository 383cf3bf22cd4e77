#pragma once

#include <libsoup/soup.h>

#include <stdexcept>
#include <string>

namespace tamsel::test {

/// A web server on this machine, in the test's own main loop.
class LoopbackServer {
 public:
  enum Behaviour {
    /// With the body.
    answers,
    notFound,
    /// To another path, which answers with the body.
    redirects,
    /// Never says a word.
    hangs,
    /// Says that there is more than it sends, and closes.
    breaksOff,
  };

  LoopbackServer() : server_(soup_server_new(nullptr, nullptr)) {
    soup_server_add_handler(server_, nullptr, handle, this, nullptr);
    if (soup_server_listen_local(server_, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr) == 0) {
      throw std::runtime_error("cannot listen");
    }
  }
  ~LoopbackServer() {
    soup_server_disconnect(server_);
    g_object_unref(server_);
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// Without a path.
  std::string url() const {
    GSList* uris = soup_server_get_uris(server_);
    const int port = g_uri_get_port(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    return "http://127.0.0.1:" + std::to_string(port);
  }

  Behaviour behaviour = answers;
  std::string body;

 private:
  static void handle(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                     gpointer data) {
    const LoopbackServer& server = *static_cast<LoopbackServer*>(data);
    const std::string elsewhere = "/elsewhere";
    switch (server.behaviour) {
      case redirects:
        if (path != elsewhere) {
          soup_server_message_set_redirect(message, SOUP_STATUS_FOUND, elsewhere.c_str());
          return;
        }
        [[fallthrough]];
      case answers:
        soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
        break;
      case notFound:
        soup_server_message_set_status(message, SOUP_STATUS_NOT_FOUND, nullptr);
        return;
      case hangs:
        soup_server_message_pause(message);
        return;
      case breaksOff:
        breakOff(message, server.body);
        return;
    }
    soup_server_message_set_response(message, "text/plain", SOUP_MEMORY_COPY, server.body.data(),
                                     server.body.size());
  }

  static void breakOff(SoupServerMessage* message, const std::string& body) {
    GIOStream* stream = soup_server_message_steal_connection(message);
    const std::string text = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body;
    g_output_stream_write_all(g_io_stream_get_output_stream(stream), text.data(), text.size(),
                              nullptr, nullptr, nullptr);
    g_io_stream_close(stream, nullptr, nullptr);
    g_object_unref(stream);
  }

  SoupServer* server_;
};

}  // namespace tamsel::test
