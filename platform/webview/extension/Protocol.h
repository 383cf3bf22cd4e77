#pragma once

#include <cstddef>

/// What the program and its module in WebKit's web processes say to each other. The program gives
/// the module the seed of RequestKeys, a `t`, as its user data.
namespace tamsel::WebProcess {

/// The script world of the program's own. Pages do not reach what is in it.
inline constexpr const char* world = "Tamsel";

/// To the program's WebKitWebContext, before anything else: the module is there.
inline constexpr const char* ready = "ready";

/// To the view: of requests that WebKit has blocked, the page's identifier, the keys, each once for
/// a document, and the addresses of the first of them.
inline constexpr const char* blocked = "blocked";
inline constexpr const char* blockedFormat = "(tatas)";
/// Of a document so many addresses are told, cut to so many bytes; of the others the keys.
inline constexpr std::size_t namedURLs = 300;
inline constexpr std::size_t namedLength = 4096;

/// To a page: send what is waiting to be sent. The answer comes after it.
inline constexpr const char* flush = "flush";

}  // namespace tamsel::WebProcess
