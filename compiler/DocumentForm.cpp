#include "compiler/DocumentForm.h"

#include <algorithm>

#include "compiler/UrlPattern.h"

namespace tamsel::Hardening {
namespace {

namespace Syntax = FilterCompiler::UrlFilterSyntax;

constexpr std::string_view strongHostAnchor = R"(^[^:]+:(//)?([^/]+[.@])?)";
constexpr std::string_view endOfHost = "(:[0-9]+)?/";

// Whether an expression is the text of a host: its characters, dots behind a backslash.
bool isHost(std::string_view expression) {
  for (std::size_t i = 0; i < expression.size(); ++i) {
    if (expression.substr(i).starts_with("\\.")) {
      ++i;
    } else if (!std::isalnum(static_cast<unsigned char>(expression[i])) && expression[i] != '-' &&
               expression[i] != '_') {
      return false;
    }
  }
  return !expression.empty();
}

}  // namespace

std::string urlFilter(std::string_view plain, bool isException) {
  if (!plain.starts_with(Syntax::hostAnchor)) return std::string(plain);
  std::string_view rest = plain.substr(Syntax::hostAnchor.size());
  std::string filter(strongHostAnchor);
  if (isException && rest.ends_with(Syntax::separator)) {
    const std::string_view host = rest.substr(0, rest.size() - Syntax::separator.size());
    if (isHost(host)) return filter.append(host).append(endOfHost);
  }
  return filter.append(rest);
}

// Behind the host of a page there always is a "/". A class that excluded "?" and "#" as well would
// take WebKit a fifth more time to compile.
std::string pageCondition(std::string_view entry) {
  const bool hasSubdomains = entry.starts_with('*');
  if (hasSubdomains) entry.remove_prefix(1);
  std::string expression = hasSubdomains ? "^[^:]+://([^/]*[.@])?" : "^[^:]+://([^/]*@)?";
  for (const char c : entry) {
    if (Syntax::escaped.find(c) != std::string_view::npos) expression += '\\';
    expression += c;
  }
  return expression + R"(\.?(:[0-9]+)?/)";
}

}  // namespace tamsel::Hardening
