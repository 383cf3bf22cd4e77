#pragma once

#include <libsoup/soup.h>

#include <chrono>
#include <memory>

#include "platform/http/HttpClient.h"

namespace tamsel {

/// The client on libsoup, whose messages its errors have. A transfer that breaks off is an error
/// where libsoup can tell; the end of a body without a length is where the server says it is.
class SoupHttpClient : public HttpClient {
 public:
  /// A larger body, once it is decompressed, is an error: no filter list comes near it.
  static constexpr std::size_t maxBodyLength = std::size_t{256} << 20;

  /// `timeout` is the longest wait for a connection and for each next piece of the answer.
  explicit SoupHttpClient(std::chrono::seconds timeout = std::chrono::seconds(30));

  Task<Response> get(std::string url) override;

 private:
  struct Unref {
    void operator()(SoupSession* session) const { g_object_unref(session); }
  };
  std::unique_ptr<SoupSession, Unref> session_;
};

}  // namespace tamsel
