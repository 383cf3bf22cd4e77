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
///   - selectors that end in the middle of something for CSS, be it a quotation, a comment, a
///     bracket, an address in "url()" or an escape, or have an address that CSS calls bad: WebKit
///     accepts many of them and lets them disable other rules;
///   - selectors longer than `maxSelectorLength`, nested deeper than `maxNesting`, of more than
///     `maxSelectorParts` parts or more than `maxSelectorCombinations` combinations of parts, with
///     which WebKit holds up every page.
namespace tamsel::ContentBlockerDialect {

inline constexpr std::size_t maxExpressionLength = 2048;
inline constexpr std::size_t maxNesting = 100;
inline constexpr std::size_t maxOverlaps = 10;
inline constexpr std::size_t maxDomainLength = 1024;

// What a selector may be. The longest in the lists that people use has 343 bytes, and none of
// theirs counts as more than 54 parts and 31,000 combinations.

/// Repeated up to here, ".a" takes the compiler 40 ms and the first page 100 ms. Both grow with the
/// square.
inline constexpr std::size_t maxSelectorLength = 16384;
/// Types, classes, attributes and so on; ":has()" counts as 25. So many alternatives cost a page of
/// 3,000 elements up to 40 ms.
inline constexpr std::size_t maxSelectorParts = 250;
/// Of the parts of an alternative with each other and with all combinations in its brackets, which
/// multiply with every level: 25 times ":is(.a " costs each page a quarter of a second, and 30
/// times ten seconds. What combinators lead to multiplies them again.
inline constexpr std::size_t maxSelectorCombinations = 250000;

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
