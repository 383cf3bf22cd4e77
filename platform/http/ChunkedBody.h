#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace tamsel {

/// The body of an HTTP/1.1 answer that comes in chunks, each behind its size:
///
///     4;note=x ⏎ list ⏎ 0 ⏎ Trailer: y ⏎ ⏎     is "list", and complete
///     4 ⏎ list ⏎                               could go on: the chunk of size 0 is missing
class ChunkedBody {
 public:
  /// Takes the next bytes from the connection, and ignores what comes when the body is complete.
  /// Throws HttpClient::TransportError when they are no such body, HttpClient::TooLarge.
  void append(std::string_view bytes);

  /// Whether the end was there: the last chunk, and the empty line behind the trailer.
  bool isComplete() const { return expected_ == Expected::nothing; }

  /// What the chunks hold. Leaves this empty.
  std::string takeContent() { return std::move(content_); }

 private:
  enum class Expected { size, content, endOfContent, trailer, nothing };

  void readLine(std::string_view line);

  Expected expected_ = Expected::size;
  /// Of the chunk.
  std::size_t missing_ = 0;
  /// As far as it has come.
  std::string line_;
  std::size_t trailerLength_ = 0;
  std::string content_;
};

}  // namespace tamsel
