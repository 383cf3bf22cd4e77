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
    /// All of it, decompressed. Empty if the status is not one of success (200 to 299).
    std::string body;
  };

  /// A larger body, at any time on its way, is an error: no filter list comes near it.
  static constexpr std::size_t maxBodyLength = std::size_t{256} << 20;

  /// There is no answer, or not all of it; `what` is why, in the words of whoever found out.
  struct TransportError : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  struct TooLarge : TransportError {
    TooLarge() : TransportError("The answer is larger than 256 MiB.") {}
  };

  HttpClient() = default;
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;
  virtual ~HttpClient() = default;

  /// Follows redirects. Destroying the task ends the transfer. Throws TransportError.
  virtual Task<Response> get(std::string url) = 0;
};

}  // namespace tamsel
