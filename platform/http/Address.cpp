#include "platform/http/Address.h"

#include <glib.h>

#include <memory>

namespace tamsel {

std::optional<Address> Address::parse(const std::string& url) {
  if (url.find('\0') != std::string::npos) return std::nullopt;
  struct Unref {
    void operator()(GUri* uri) const { g_uri_unref(uri); }
  };
  const auto flags = static_cast<GUriFlags>(G_URI_FLAGS_PARSE_RELAXED | G_URI_FLAGS_HAS_PASSWORD |
                                            G_URI_FLAGS_ENCODED_PATH | G_URI_FLAGS_ENCODED_QUERY |
                                            G_URI_FLAGS_ENCODED_FRAGMENT);
  const std::unique_ptr<GUri, Unref> uri(g_uri_parse(url.c_str(), flags, nullptr));
  if (!uri) return std::nullopt;
  const char* host = g_uri_get_host(uri.get());
  // GLib has the scheme in lower case.
  return Address{url.substr(0, url.find(':')), host == nullptr ? "" : host};
}

}  // namespace tamsel
