#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

/// What WebKit's content-blocker compiler takes, told without asking it. The compiler names no rule
/// when it refuses a document, and there is text that it does not survive, so everything is held
/// against this first.
///
/// These functions read their text once, without recursion and without allocating, and return the
/// reason of a refusal in words or nothing. They never accept what WebKit refuses; they refuse
/// beyond WebKit what makes it abort, overflow its stack or run for minutes, and what it takes for
/// something else than it says:
///   - expressions longer than `maxExpressionLength` or nested deeper than `maxNesting`;
///   - expressions whose wide classes overlap more than `maxOverlaps` times with what may stand at
///   a
///     beginning, as "a" followed by 18 dots: the automaton doubles with each;
///   - NUL in an expression, which WebKit takes for the end of the URL;
///   - more than one named group, "\k" beside one, "\k<" anywhere, "\c" without a letter, counts
///     with superfluous digits such as {00,1}, and escapes in the names of groups;
///   - ranges in classes that end at 0x80 or above, of which WebKit dies;
///   - domains longer than `maxDomainLength`, and brackets and "+" in domains, which WebKit makes
///     part of an expression;
///   - selectors that are not closed, which WebKit accepts and lets disable other rules;
///   - selectors nested deeper than `maxNesting` or of more than `maxCompounds` compounds.
namespace tamsel::ContentBlockerDialect {

inline constexpr std::size_t maxExpressionLength = 2048;
inline constexpr std::size_t maxNesting = 100;
inline constexpr std::size_t maxOverlaps = 10;
inline constexpr std::size_t maxCompounds = 10000;
inline constexpr std::size_t maxDomainLength = 1024;

/// Why "url-filter" (or a condition that takes the same syntax) cannot have this value.
///
///     ^[^:]+://ads\.example/.*\.js$    nothing
///     ads|banner                       "Disjunctions are not supported yet."
std::optional<std::string_view> refusalOfExpression(std::string_view expression) noexcept;

/// Why "if-domain" and "unless-domain" cannot hold this domain.
///
///     *ads.example    nothing
///     Ads.example     "Domains must be lower case ASCII. Use punycode to encode non-ASCII
///     characters."
std::optional<std::string_view> refusalOfDomain(std::string_view domain) noexcept;

/// Why "selector" cannot have this value. A selector that WebKit does not know, which it passes
/// over together with its rule, is not refused.
///
///     div[title="]"] > .ad    nothing
///     div[title="             "The selector has a quotation without an end."
std::optional<std::string_view> refusalOfSelector(std::string_view selector) noexcept;

}  // namespace tamsel::ContentBlockerDialect
