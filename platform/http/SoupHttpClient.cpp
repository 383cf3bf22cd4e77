#include "platform/http/SoupHttpClient.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/http/Address.h"
#include "platform/http/ChunkedBody.h"
#include "platform/http/ContentCodings.h"
#include "platform/http/Transfer.h"
#include "platform/mainloop/Awaiting.h"

namespace tamsel {
namespace {

struct UnrefBytes {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using BytesPointer = std::unique_ptr<GBytes, UnrefBytes>;

std::string_view viewOf(GBytes* bytes) {
  gsize length = 0;
  const void* data = g_bytes_get_data(bytes, &length);
  return {static_cast<const char*>(data), length};
}

std::string header(SoupMessage* message, const char* name) {
  return text(soup_message_headers_get_list(soup_message_get_response_headers(message), name));
}

// HTTP/1.1, which every server speaks: in HTTP/2 libsoup takes it for the end of a body when the
// server cancels it, and waits when the connection is cut. And the other side has to say that it
// closes the connection, or anybody could cut a body that ends with it.
void chooseProtocol(SoupMessage*, GSocketClientEvent event, GIOStream* connection, gpointer) {
  if (event != G_SOCKET_CLIENT_TLS_HANDSHAKING || !G_IS_TLS_CONNECTION(connection)) return;
  std::array<const char*, 2> protocols = {"http/1.1", nullptr};
  g_tls_connection_set_advertised_protocols(G_TLS_CONNECTION(connection), protocols.data());
  g_tls_connection_set_require_close_notify(G_TLS_CONNECTION(connection), TRUE);
}

[[noreturn]] void refuseAsCut() {
  throw HttpClient::TransportError("The connection ended before the answer did.");
}

// The same length may be given several times.
std::optional<std::size_t> contentLength(SoupMessage* message) {
  const std::string value = header(message, "Content-Length");
  if (value.empty()) return std::nullopt;
  std::optional<std::size_t> length;
  for (std::string_view rest = value; !rest.empty();) {
    const std::string_view one = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(one.size() + 1, rest.size()));
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
    std::size_t given = 0;
    const auto [end, error] = std::from_chars(one.data(), one.data() + one.size(), given);
    if (error == std::errc::result_out_of_range) throw HttpClient::TooLarge();
    if (error != std::errc() || end != one.data() + one.size() || (length && *length != given)) {
      throw HttpClient::TransportError("The server does not know how long its answer is: “" +
                                       value.substr(0, 40) + "”.");
    }
    length = given;
  }
  return length;
}

// What the connection says after the headers, below the two streams that libsoup (3.2 to 3.6) puts
// on top for a chunked body. Null where it does otherwise: then it must tell itself what is whole.
GInputStream* connectionBelow(GInputStream* stream) {
  const auto is = [&stream](const char* type) {
    return std::string_view(G_OBJECT_TYPE_NAME(stream)) == type;
  };
  for (const char* type : {"SoupClientInputStream", "SoupBodyInputStream"}) {
    if (!is(type)) return nullptr;
    stream = g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(stream));
  }
  return is("SoupFilterInputStream") ? stream : nullptr;
}

auto nextPiece(Transfer& transfer, GInputStream* stream) {
  constexpr gsize most = gsize{1} << 16;
  return transfer.call(
      [stream](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        g_input_stream_read_bytes_async(stream, most, G_PRIORITY_DEFAULT, cancellable, callback,
                                        data);
      },
      [](GObject* source, GAsyncResult* result, GError** error) {
        return BytesPointer(
            g_input_stream_read_bytes_finish(G_INPUT_STREAM(source), result, error));
      });
}

Task<std::string> readChunks(Transfer& transfer, GInputStream* connection) {
  ChunkedBody body;
  while (!body.isComplete()) {
    auto reading = nextPiece(transfer, connection);
    const BytesPointer bytes = co_await reading;
    const std::string_view piece = viewOf(bytes.get());
    if (piece.empty()) refuseAsCut();
    body.append(piece);
  }
  std::string content = body.takeContent();
  co_return content;
}

Task<std::string> readToEnd(Transfer& transfer, GInputStream* stream, std::size_t likelyLength) {
  std::string body;
  body.reserve(likelyLength);
  while (true) {
    auto reading = nextPiece(transfer, stream);
    const BytesPointer bytes = co_await reading;
    const std::string_view piece = viewOf(bytes.get());
    if (piece.empty()) co_return body;
    if (piece.size() > HttpClient::maxBodyLength - body.size()) throw HttpClient::TooLarge();
    body += piece;
  }
}

// As it was sent, and all of it.
Task<std::string> read(Transfer& transfer, SoupMessage* message, GInputStream* stream) {
  const std::optional<std::size_t> length = contentLength(message);
  if (length && *length > HttpClient::maxBodyLength) throw HttpClient::TooLarge();
  const SoupEncoding end =
      soup_message_headers_get_encoding(soup_message_get_response_headers(message));
  if (end == SOUP_ENCODING_CHUNKED) {
    if (length) throw HttpClient::TransportError("The server gives its answer two lengths.");
    if (GInputStream* connection = connectionBelow(stream)) {
      auto reading = readChunks(transfer, connection);
      co_return co_await reading;
    }
  }
  auto reading = readToEnd(transfer, stream, length.value_or(0));
  std::string body = co_await reading;
  // Of an answer without a length nothing is left when its headers are cut.
  if (body.size() < length.value_or(end == SOUP_ENCODING_EOF ? 1 : 0)) refuseAsCut();
  co_return body;
}

struct Encoded {
  unsigned status = 0;
  std::string body;
  std::vector<std::string> codings;
};

Task<Encoded> receive(SoupSession* session, SoupMessage* message,
                      std::chrono::milliseconds patience) {
  Transfer transfer(message, patience);
  try {
    auto sending = transfer.call(
        [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
          soup_session_send_async(session, message, G_PRIORITY_DEFAULT, cancellable, callback,
                                  data);
        },
        [](GObject* source, GAsyncResult* result, GError** error) {
          return GObjectPtr<GInputStream>(
              soup_session_send_finish(SOUP_SESSION(source), result, error));
        });
    const GObjectPtr<GInputStream> stream = co_await sending;
    transfer.onAnswer();

    const unsigned status = soup_message_get_status(message);
    if (status == SOUP_STATUS_PARTIAL_CONTENT) {
      throw HttpClient::TransportError("The server sent only a part of its answer.");
    }
    const bool hasBody = SOUP_STATUS_IS_SUCCESSFUL(status) && status != SOUP_STATUS_NO_CONTENT &&
                         status != SOUP_STATUS_RESET_CONTENT;
    if (!hasBody) co_return Encoded{status, {}, {}};
    const auto codings = ContentCodings::parse(header(message, "Content-Encoding"));
    auto reading = read(transfer, message, stream.get());
    std::string body = co_await reading;
    co_return Encoded{status, std::move(body), codings};
  } catch (const GioError& error) {
    const std::string& why = transfer.whyGivenUp();
    throw HttpClient::TransportError(why.empty() ? error.what() : why);
  }
}

}  // namespace

SoupHttpClient::SoupHttpClient(const Options& options)
    : session_(soup_session_new_with_options("timeout", static_cast<guint>(options.timeout.count()),
                                             "user-agent", "Tamsel/" TAMSEL_VERSION, nullptr)),
      patience_(options.patience) {
  soup_session_remove_feature_by_type(session_.get(), SOUP_TYPE_CONTENT_DECODER);
}

Task<HttpClient::Response> SoupHttpClient::get(std::string url) {
  // What the flow uses while it waits may outlive the client.
  const GObjectPtr<SoupSession> session(SOUP_SESSION(g_object_ref(session_.get())));
  const std::optional<Address> address = Address::parse(url);
  const GObjectPtr<SoupMessage> message(
      address && !address->host.empty() ? soup_message_new("GET", url.c_str()) : nullptr);
  if (!message) throw TransportError("The address is not valid.");
  soup_message_headers_replace(soup_message_get_request_headers(message.get()), "Accept-Encoding",
                               ContentCodings::accepted);
  g_signal_connect(message.get(), "network-event", G_CALLBACK(chooseProtocol), nullptr);

  auto receiving = receive(session.get(), message.get(), patience_);
  Encoded answer = co_await receiving;
  if (answer.codings.empty()) co_return Response{answer.status, std::move(answer.body)};
  const unsigned status = answer.status;
  auto decoding = detached([answer = std::move(answer)]() mutable {
    return ContentCodings::decoded(std::move(answer.body), answer.codings);
  });
  std::string body = co_await decoding;
  co_return Response{status, std::move(body)};
}

}  // namespace tamsel
