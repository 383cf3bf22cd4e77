#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "platform/mainloop/Task.h"

namespace tamsel {

/// Fetches what is behind an address. For the main thread, which it never holds up.
class HttpClient {
 public:
  struct Response {
    /// Of the last answer, when there were redirects.
    unsigned status = 0;
    std::string body;
  };

  /// There is no answer; `what` is why, in the words of whoever found out.
  struct TransportError : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  HttpClient() = default;
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;
  virtual ~HttpClient() = default;

  /// Follows redirects. Destroying the task ends the transfer. Throws TransportError.
  virtual Task<Response> get(std::string url) = 0;
};

}  // namespace tamsel
