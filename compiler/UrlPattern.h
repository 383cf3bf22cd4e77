#pragma once

#include <string>
#include <string_view>

namespace tamsel::FilterCompiler {

/// The fixed pieces that a converted pattern is made of; the matcher recognises them again.
namespace UrlFilterSyntax {
/// "||": a scheme, then the start of the host or of any of its labels.
inline constexpr std::string_view hostAnchor = R"(^[^:]+:(//)?([^/]+\.)?)";
/// "^": one character that cannot be part of a word, a number or a host name.
inline constexpr std::string_view separator = "[^a-zA-Z0-9_.%-]";
inline constexpr std::string_view wildcard = ".*";
/// Characters that are written with a backslash in front to stand for themselves.
inline constexpr std::string_view escaped = R"(.+?()[]{}\$|)";
}  // namespace UrlFilterSyntax

/// Writes the url-filter of `pattern` over `filter`. False when the pattern is empty, matches
/// everything or has a non-ASCII character; `filter` is then of no use.
bool convertPatternInto(std::string& filter, std::string_view pattern);

}  // namespace tamsel::FilterCompiler
