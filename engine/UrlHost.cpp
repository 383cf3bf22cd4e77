#include "engine/UrlHost.h"

#include <array>
#include <cstdint>

namespace tamsel {
namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// What follows "scheme:", or the whole text when it begins with no scheme.
std::string_view afterScheme(std::string_view url) {
  constexpr std::string_view mostCommon = "https:";
  if (url.starts_with(mostCommon)) return url.substr(mostCommon.size());
  if (url.empty() || !isLetter(url.front())) return url;
  for (std::size_t i = 1; i < url.size(); ++i) {
    const char c = url[i];
    if (c == ':') return url.substr(i + 1);
    if (!isLetter(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') break;
  }
  return url;
}

bool isPort(std::string_view text) {
  constexpr unsigned highestPort = 65535;
  unsigned port = 0;
  for (char c : text) {
    if (!isDigit(c)) return false;
    port = port * 10 + static_cast<unsigned>(c - '0');
    if (port > highestPort) return false;
  }
  return true;
}

// What the bytes of an authority are to it.
enum class AuthorityByte : std::uint8_t { ordinary, at, colon, end, invalid };

constexpr std::array<AuthorityByte, 256> authorityBytes = [] {
  std::array<AuthorityByte, 256> table{};
  for (std::size_t byte = 0; byte <= 0x20; ++byte) table[byte] = AuthorityByte::invalid;
  table[0x7F] = AuthorityByte::invalid;
  for (char c : {'/', '?', '#'}) table[static_cast<unsigned char>(c)] = AuthorityByte::end;
  table['@'] = AuthorityByte::at;
  table[':'] = AuthorityByte::colon;
  return table;
}();

struct Authority {
  std::string_view host;  // up to the first colon
  std::string_view port;  // what follows, with the colon in front
};

// Reads the authority that the text begins with, without its user information; nothing when it has
// a blank or a control character.
std::optional<Authority> readAuthority(std::string_view text) {
  std::size_t begin = 0;
  std::size_t colon = std::string_view::npos;
  std::size_t i = 0;
  for (; i < text.size(); ++i) {
    const AuthorityByte byte = authorityBytes[static_cast<unsigned char>(text[i])];
    if (byte == AuthorityByte::ordinary) continue;
    if (byte == AuthorityByte::invalid) return std::nullopt;
    if (byte == AuthorityByte::end) break;
    if (byte == AuthorityByte::at) {
      begin = i + 1;
      colon = std::string_view::npos;
    } else if (colon == std::string_view::npos) {
      colon = i;
    }
  }
  if (colon == std::string_view::npos) colon = i;
  return Authority{text.substr(begin, colon - begin), text.substr(colon, i - colon)};
}

}  // namespace

std::optional<std::string_view> hostOfUrl(std::string_view url) noexcept {
  const std::string_view hierarchy = afterScheme(url);
  if (!hierarchy.starts_with("//")) return std::nullopt;
  const auto authority = readAuthority(hierarchy.substr(2));
  if (!authority) return std::nullopt;

  std::string_view host = authority->host;
  std::string_view port = authority->port;
  if (host.starts_with('[')) {
    // The colons of an IPv6 address begin no port: read on to the bracket.
    const std::string_view whole(host.data(), host.size() + port.size());
    const std::size_t end = whole.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    host = whole.substr(1, end - 1);
    port = whole.substr(end + 1);
  }
  if (!port.empty() && (port.front() != ':' || !isPort(port.substr(1)))) return std::nullopt;
  if (host.empty()) return std::nullopt;
  return host;
}

}  // namespace tamsel
