#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "compiler/RuleModel.h"

namespace tamsel {

/// How a document says what its rules say.
enum class DocumentForm : std::uint8_t {
  /// In the plain words of the format.
  plain,
  /// So that no page and no address talks itself out of the rules; see Hardening.
  hardened,
};

/// The content-blocker format has two holes. WebKit looks for the domains of "if-domain" and
/// "unless-domain" anywhere in the page's address, so a page meets the condition of another site by
/// writing that site's address into its query or, without a reload, its fragment. And the
/// expression of "||host^" sees neither a host behind a user name nor one that ends in a dot.
///
///     page          http://evil.example/#http://good.example/      is no page of good.example
///     request       http://x@ads.example/  http://ads.example./    go to ads.example
///
/// A hardened document has the same rules in the same order with
///   - "if-top-url" and "unless-top-url" for the domains, anchored at the address's beginning;
///   - host anchors that also begin behind a user name, and exceptions for "||host^" that end where
///     the host ends;
/// and two rules behind them, which no exception reaches: what goes to a third party and hides its
/// host does not go out. On its own site a page that was opened with a password, or under a dotted
/// host, needs such addresses.
namespace Hardening {

/// The url-filter of a rule. `isException` says that the rule allows.
std::string urlFilter(std::string_view plain, bool isException);

/// The expression that finds the pages of an entry of "if-domain": "*" and a domain, or a host.
std::string pageCondition(std::string_view entry);

/// The rules behind all others: block, for third parties.
struct GuardRule {
  /// What is hidden, in a sentence, as the line that the rule comes from.
  std::string_view source;
  std::string_view urlFilter;
};
inline constexpr std::array<GuardRule, 2> guard = {{
    {"The address hides its host behind a user name.", "^[^:]+://[^/?#]*@"},
    {"The address hides its host: it ends in a dot.", R"(^[^:]+://[^/?#]*\.(:[0-9]+)?/)"},
}};

}  // namespace Hardening
}  // namespace tamsel
