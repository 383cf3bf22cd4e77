#pragma once

#include <cstdint>

/// What the store and its helper program say to each other over one stream. Both are always of one
/// build and one machine, so these records go over it as they are.
///
/// The helper says `ready` once, with WebKit's version as the text, and then answers every request.
namespace tamsel::HelperProtocol {

/// Followed by the identifier and the document.
struct Request {
  std::uint64_t identifierLength;
  std::uint64_t documentLength;
};

enum class Status : std::uint64_t {
  ready,
  /// The document is compiled; it stands under the identifier in the helper's folder.
  compiled,
  /// WebKit's reason is the text.
  refused,
};

/// The code that the helper exits with when it needs more memory than it may have.
inline constexpr int outOfMemory = 12;

/// Followed by the text.
struct Reply {
  Status status;
  std::uint64_t textLength;
};

}  // namespace tamsel::HelperProtocol
