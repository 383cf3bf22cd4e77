#pragma once

#include <libsoup/soup.h>

#include <chrono>

#include "platform/glib/GObjects.h"
#include "platform/http/HttpClient.h"

namespace tamsel {

/// The client on libsoup, whose messages its errors have where it is libsoup that fails.
///
/// libsoup takes much for a whole answer that is none: chunks that end before the last one, or have
/// no size; less than the Content-Length when the connection ends with it; compressed data that is
/// cut, damaged or in an encoding that it does not know. So the body is read and decoded here, and
/// HTTP/2 not spoken. What cannot be told from a whole one is a body without length or compression
/// whose end is that of an unencrypted connection.
class SoupHttpClient : public HttpClient {
 public:
  struct Options {
    /// The longest wait for a connection, and for each next piece of the answer.
    std::chrono::seconds timeout{30};
    /// When less than 1 KB/s on average has come for so long, redirects included, it is enough.
    std::chrono::milliseconds patience = std::chrono::minutes(2);
  };

  SoupHttpClient() : SoupHttpClient(Options{}) {}
  explicit SoupHttpClient(const Options& options);

  Task<Response> get(std::string url) override;

 private:
  GObjectPtr<SoupSession> session_;
  std::chrono::milliseconds patience_;
};

}  // namespace tamsel
