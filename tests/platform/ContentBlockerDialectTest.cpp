#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/dialect/ContentBlockerDialect.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/WebKitRules.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using test::ExactCopy;
using test::repeated;

std::string refusal(const std::string& expression) {
  return std::string(
      ContentBlockerDialect::refusalOfExpression(ExactCopy(expression)).value_or(""));
}

std::string selectorRefusal(const std::string& selector) {
  return std::string(ContentBlockerDialect::refusalOfSelector(ExactCopy(selector)).value_or(""));
}

TEST(ContentBlockerDialect, TakesWhatWebKitTakes) {
  const std::vector<std::string> accepted = {
      // What filters become.
      R"(^[^:]+:(//)?([^/]+\.)?ads\.example[^a-zA-Z0-9_.%-].*\.js$)", ".*", R"(/banner[0-9]+\.gif)",
      // Anchors.
      "^", "$", "^$", "^^a", "^.*$", "(a)$", "[a]$", "a()$", "a*$",
      // Groups and repetitions.
      "()", "(a)*", "(?:ab)+", "(?<name>a)?", "((a))", "a*?", "a+?", "a??", "a{0,1}", "a{0,}",
      "a{1,}?",
      // Braces that are no counts, brackets that close nothing.
      "{", "{}", "{,3}", "{x}", "a{2", "a{ 2}", "]", "}",
      // Escapes, also those that mean a plain letter here.
      R"(\.\/\-\_\?\*\[\]\{\}\^\$\|\\\ )", R"(\a\e\p{L}\Z)", R"(\t\n\r\f\v)",
      R"(\x41\u0041\cA\101\8)", R"(\xzz\u004)", R"(\k)", R"((a)\1)",
      // Classes.
      "[]", "[^]", "[]b]", "[a-]", "[-a]", "[.$|(]", R"([\]\-\\])", R"([\b\B])", "[[:alpha:]]",
      R"([\x20-\x7e])", "[^a-z]*",
      // Wide classes that cannot explode: an anchor, or no overlap with the beginning.
      "^http://x/a" + repeated(18, "."), "/" + repeated(64, "[a-f0-9]") + R"(\.js)",
      repeated(20, "."),
      // As much as is taken.
      repeated(ContentBlockerDialect::maxNesting, "(") + "a" +
          repeated(ContentBlockerDialect::maxNesting, ")"),
      repeated(ContentBlockerDialect::maxExpressionLength, "a")};
  for (const std::string& expression : accepted) {
    EXPECT_EQ(refusal(expression), "") << expression.substr(0, 80);
  }
}

TEST(ContentBlockerDialect, RefusesTheRestWithAReason) {
  const std::string syntax = "The expression is not well formed.";
  const std::string repetition = "Arbitrary atom repetitions are not supported.";
  const std::string end = "The end of line assertion must be the last term in an expression.";
  const std::string start =
      "Start of line assertion can only appear as the first term in a filter.";
  const std::string ascii = "Only ASCII characters are supported in pattern.";
  const std::string overlap = "Too many wide classes overlap with the beginning of the expression.";
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"The expression is empty.", {""}},
      {ascii,
       {"\u00E9", "\xFF", R"(\xe9)", R"(\u00e9)", R"(\200)", R"([\xe9])", R"([a-\xff])",
        R"([\x80-\x80])", R"([!-\u0100])", R"([^a-\377])"}},
      {"The expression has a NUL character.",
       {"a\0b"s, R"(\0)", R"(q\x00)", R"([\0a])", R"([\x00-\x7f])", R"(\u0000)"}},
      {"Character class is not supported.", {R"(\d)", R"(a\W)", R"((\s)*)"}},
      {"Builtins character class atoms are not supported yet.", {R"([\d])", R"([a-\w])"}},
      {"Word boundaries assertions are not supported yet.", {R"(\bad)", R"(ad\B)"}},
      {"Groups are not supported yet.", {"(?=a)", "(?!a)", "(?<=a)", "(?<!a)", "(?i:a)"}},
      {"Disjunctions are not supported yet.", {"a|b", "|", "(a|b)", "a|"}},
      {repetition, {"a{1}", "a{0}", "a{2,}", "(a){2,3}", "[a]{1,1}", R"(\u{41})", "a{00,1}"}},
      {"Patterns cannot contain backreferences.", {R"((?<n>a)\k<n>)"}},
      {start, {"a^b", "(^a)", "()^a", "a^"}},
      {end, {"a$b", "a$$", "(a$)", "($)?", "a$*"}},
      {syntax, {"a**",   "a?*",   "a*??", "*a",  "+",       "?a",    "(*a)",  "^*",
                "{2}a",  "(",     ")",    "a)",  "(a",      "[",     "[a",    R"([\])",
                "[z-a]", R"(a\)", "(?",   "(?<", "(?<1>a)", "(?>a)", "(?#a)", "a{3,2}{0,1}*"}},
      {"The expression has an escape or a name without a clear meaning.",
       {R"(\c1)", R"([\c])", "(?<a>b)(?<a>c)", R"(\k<a>)", R"(\k<)"}},
      {"The groups are nested too deep.", {repeated(101, "(") + "a" + repeated(101, ")")}},
      {"The expression is too long.", {repeated(2049, "a"), repeated(1 << 20, "(a")}},
      {overlap,
       {"a" + repeated(18, "."), "a" + repeated(16, "[a-z]"), "^http://.*a" + repeated(12, "."),
        "x+ab" + repeated(11, "[^/]"),
        // The beginning is wide itself, optional, before a loop, after one, in another case.
        ".a" + repeated(19, "."), "a?b" + repeated(19, "[b-z]"), "(ab)?b" + repeated(19, "[b-z]"),
        "a0*" + repeated(18, "."), "^" + repeated(19, ".?") + "a" + repeated(19, "."),
        "^(.?a" + repeated(19, ".") + ")+", "X" + repeated(18, "[a-z]")}}};
  for (const auto& [reason, expressions] : cases) {
    for (const std::string& expression : expressions) {
      if (reason == syntax) {  // any reason will do where several apply
        EXPECT_NE(refusal(expression), "") << testing::PrintToString(expression);
      } else {
        EXPECT_EQ(refusal(expression), reason) << testing::PrintToString(expression.substr(0, 80));
      }
    }
  }
}

TEST(ContentBlockerDialect, TakesDomainsOfPlainCharacters) {
  const auto domainRefusal = [](const std::string& domain) {
    return ContentBlockerDialect::refusalOfDomain(ExactCopy(domain)).has_value();
  };
  for (const std::string& domain :
       {"a.example"s, "*a.example"s, "xn--4ca.example:8080"s, "192.0.2.1"s, repeated(1024, "a")}) {
    EXPECT_FALSE(domainRefusal(domain)) << domain;
  }
  for (const std::string& domain : {""s, "A.example"s, "\u00E4.example"s, "a|b"s, "a+"s, "[::1]"s,
                                    "(a)"s, "a^"s, "a\0b"s, repeated(1025, "a")}) {
    EXPECT_TRUE(domainRefusal(domain)) << domain;
  }
}

TEST(ContentBlockerDialect, WantsSelectorsClosedAndOfBearableCost) {
  const auto inside = [](std::size_t depth, const std::string& before, const std::string& after) {
    return repeated(depth, before) + ".x" + repeated(depth, after);
  };
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"",
       {".ad", R"(div[title="]"] > a[href^='(']:not(.x, [y]))", R"([a="\""], #\[x)", ".a/* [ */.b",
        // What WebKit passes over by itself.
        ".x)", ":foo(.x)", ".x {top: 0;}", ":is(])",
        // Line breaks of all kinds behind backslashes.
        "[a=\"\\\n\\\r\n\\\f\"]", "[a=\"\\26\r\n\"]",
        // Addresses that are good ones, in quotation marks, or none.
        ":is(url(a\\'b ))", ":is(url( \"b)c\"))", ":is(#url(a'b)c'))", ":is(1url(a'b)c'))",
        // As much as is taken.
        inside(100, ":not(", ")"), repeated(249, ".a,") + ".b",
        ":not(.a .b:has(> .c > .d:is(.e .f, .g + .h))) > .i",
        "." + repeated(ContentBlockerDialect::maxSelectorLength - 1, "x")}},
      {"The selector has a quotation without an end.",
       {"[a=\"", "[a=\"]", "[a=\"\\\"", "[a=\"x\ny\"]", "[a='x\r']", "[a='x\f']",
        "[a=\"\\\n\r\"]"}},
      {"The selector has a bracket without an end.",
       {"div[style*=x", ":is(.x", ":is([)", ".x{", ":is(url(x", ":is(url( "}},
      {"The selector has a comment without an end.", {".x/*", ".x/*/"}},
      {"The selector ends with a backslash.", {".x\\", "[a=\"\\", ":is(url(x\\"}},
      {"The selector has an address that is not well formed.",
       {":is(url(a'b)c'))", ":is(URL(a\"b)c\"))", R"(:is(u\72 \00006C(a'b)c')))",
        ":is(\\75\r\nrl(a'b)c'))", ":is(<!--url(a'b)c'))", ":is(1.url(a'b)c'))", "url(a b)",
        "url(a(b)", "url(\x01)", "url(a\\\n)"}},
      {"The selector is nested too deep.", {inside(101, ":not(", ")")}},
      {"The selector is too long.", {repeated(16385, "x"), repeated(1000000, "a ")}},
      {"The selector has too many parts.",
       {repeated(251, ".a"), repeated(250, "a ") + "b", repeated(250, "&,") + "*",
        ":is(" + repeated(125, "[a],") + repeated(125, ":b,") + "#c)",
        repeated(8, R"(:\48 as(.a),)") + repeated(3, ":has(.b),") + ".c"}},
      {"The selector has too many combinations of parts.",
       {inside(20, ":is(.a ", ")"), inside(8, ":is(", ").a.b.c.d.e"),
        ":not(" + inside(6, ":is(", ") *") + ", .a) b", inside(3, ":is(.a ~ ", ") ~ .b")}},
  };
  for (const auto& [reason, selectors] : cases) {
    for (const std::string& selector : selectors) {
      EXPECT_EQ(selectorRefusal(selector), reason)
          << testing::PrintToString(selector.substr(0, 80));
    }
  }
}

}  // namespace
}  // namespace tamsel
