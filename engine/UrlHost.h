#pragma once

#include <optional>
#include <string_view>

namespace tamsel {

/// The host of a URL as it is written there, without user information, port and the brackets of an
/// IPv6 address; nothing when the text is no URL or names no host. A scheme may be absent
/// ("//host/path"). RFC 3986, but lenient about the characters of names and paths, as browsers are.
std::optional<std::string_view> hostOfUrl(std::string_view url) noexcept;

}  // namespace tamsel
