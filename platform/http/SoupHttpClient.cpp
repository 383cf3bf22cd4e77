#include "platform/http/SoupHttpClient.h"

#include <optional>
#include <string_view>
#include <utility>

#include "platform/http/Address.h"
#include "platform/mainloop/Awaiting.h"

namespace tamsel {
namespace {

struct UnrefObject {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct UnrefBytes {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
template <typename T>
using ObjectPointer = std::unique_ptr<T, UnrefObject>;
using BytesPointer = std::unique_ptr<GBytes, UnrefBytes>;

std::string_view viewOf(GBytes* bytes) {
  gsize length = 0;
  const void* data = g_bytes_get_data(bytes, &length);
  return {static_cast<const char*>(data), length};
}

}  // namespace

SoupHttpClient::SoupHttpClient(std::chrono::seconds timeout)
    : session_(soup_session_new_with_options("timeout", static_cast<guint>(timeout.count()),
                                             "user-agent", "Tamsel/" TAMSEL_VERSION, nullptr)) {}

Task<HttpClient::Response> SoupHttpClient::get(std::string url) try {
  // What the flow uses while it waits may outlive the client.
  const ObjectPointer<SoupSession> session(SOUP_SESSION(g_object_ref(session_.get())));
  const std::optional<Address> address = Address::parse(url);
  const ObjectPointer<SoupMessage> message(
      address && !address->host.empty() ? soup_message_new("GET", url.c_str()) : nullptr);
  if (!message) throw TransportError("The address is not valid.");

  auto sending = gioCall(
      [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        soup_session_send_async(session.get(), message.get(), G_PRIORITY_DEFAULT, cancellable,
                                callback, data);
      },
      [](GObject* source, GAsyncResult* result, GError** error) {
        return ObjectPointer<GInputStream>(
            soup_session_send_finish(SOUP_SESSION(source), result, error));
      });
  const ObjectPointer<GInputStream> stream = co_await sending;

  Response response{soup_message_get_status(message.get()), {}};
  while (true) {
    constexpr gsize step = gsize{1} << 16;
    auto reading = gioCall(
        [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
          g_input_stream_read_bytes_async(stream.get(), step, G_PRIORITY_DEFAULT, cancellable,
                                          callback, data);
        },
        [](GObject* source, GAsyncResult* result, GError** error) {
          return BytesPointer(
              g_input_stream_read_bytes_finish(G_INPUT_STREAM(source), result, error));
        });
    const BytesPointer bytes = co_await reading;
    const std::string_view piece = viewOf(bytes.get());
    if (piece.empty()) break;
    if (piece.size() > maxBodyLength - response.body.size()) {
      throw TransportError("The answer is larger than 256 MiB.");
    }
    response.body += piece;
  }
  co_return response;
} catch (const GioError& error) {
  throw TransportError(error.what());
}

}  // namespace tamsel
