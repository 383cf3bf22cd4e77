#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dialect/ContentBlockerDialect.h"
#include "platform/rulestore/CompilerProcess.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WebKitRules.h"

// Random texts, the same in every run, that the dialect and the real WebKit both have to judge.
namespace tamsel {
namespace {

using namespace std::string_view_literals;
using test::ExactCopy;
using Pieces = std::vector<std::string_view>;

constexpr std::mt19937::result_type seed = 20240607;
constexpr std::size_t expressionCount = 30000;
constexpr std::size_t domainCount = 5000;

std::vector<std::string> randomTexts(const Pieces& pieces, std::size_t count) {
  constexpr std::array<std::size_t, 8> lengths = {1, 2, 3, 4, 5, 6, 8, 12};
  std::mt19937 random(seed);
  std::vector<std::string> texts(count);
  for (std::string& text : texts) {
    const std::size_t length = lengths[random() % lengths.size()];
    for (std::size_t i = 0; i < length; ++i) text += pieces[random() % pieces.size()];
  }
  return texts;
}

// As it stands between quotation marks in JSON.
std::string escaped(std::string_view text) {
  const std::string quoted = nlohmann::json(text).dump();
  return quoted.substr(1, quoted.size() - 2);
}

std::string blockRule(std::string_view expression) {
  return test::rule("block", escaped(expression));
}

class DialectAgainstWebKit : public testing::Test {
 protected:
  struct Answer {
    bool isTaken;
    std::string words;  // why not: what WebKit says, or what became of it
  };
  using MakeRule = std::function<std::string(const std::string&)>;

  void SetUp() override {
    const Answer answer = ask(blockRule("x"));
    ASSERT_TRUE(answer.isTaken) << answer.words;
  }

  // A text that is too much for the process costs that process; the next gets a new one.
  Answer ask(const std::string& rules) {
    constexpr auto patience = std::chrono::seconds(20);
    const std::string document = "[" + rules + "]";
    const std::array<std::string_view, 1> pieces = {document};
    try {
      if (!process_) process_.emplace(TAMSEL_RULE_COMPILER_PATH, filters_.path(), work_.path());
      const CompilerProcess::Answer answer =
          process_->compile("x", pieces, CompilerProcess::Clock::now() + patience, {});
      return {answer.compiled, answer.reason + '\n' + answer.log};
    } catch (const CompilerProcess::Died& death) {
      process_.reset();
      return {false, death.what() + ('\n' + death.log)};
    } catch (const CompilerProcess::TimedOut& timeout) {
      process_.reset();
      return {false, timeout.what()};
    }
  }

  // Many rules at once, as long as all of them are taken.
  void expectTaken(std::span<const std::string> texts, const MakeRule& makeRule) {
    constexpr std::size_t most = 50;
    while (!texts.empty()) {
      const auto batch = texts.first(std::min(texts.size(), most));
      texts = texts.subspan(batch.size());
      std::string rules;
      for (const std::string& text : batch) rules += (rules.empty() ? "" : ",") + makeRule(text);
      if (ask(rules).isTaken) continue;
      for (const std::string& text : batch) {
        const Answer answer = ask(makeRule(text));
        EXPECT_TRUE(answer.isTaken) << testing::PrintToString(text) << '\n' << answer.words;
      }
    }
  }

 private:
  const test::TemporaryFolder filters_, work_;
  std::optional<CompilerProcess> process_;
};

constexpr std::string_view endOfLine =
    "The end of line assertion must be the last term in an expression.";

// What must not be asked: WebKit dies of such a class, or compiles for minutes.
bool isTooMuchForWebKit(std::string_view refusal, const std::string& expression) {
  return (refusal == "Only ASCII characters are supported in pattern." &&
          expression.find('[') != std::string::npos) ||
         refusal == "Too many wide classes overlap with the beginning of the expression.";
}

// What WebKit may take, though it is refused: what it takes for something else than it says.
bool isStricterThanWebKit(std::string_view refusal, const std::string& expression) {
  return refusal == "The expression has a NUL character." ||
         refusal == "The expression has an escape or a name without a clear meaning." ||
         refusal == "Patterns cannot contain backreferences." ||
         (refusal == "Arbitrary atom repetitions are not supported." &&
          expression.find("{00,1}") != std::string::npos);
}

// Why WebKit refused the expression; empty when it has nothing more to say than that it did.
std::string_view reasonIn(std::string_view words, const std::string& expression) {
  const std::string before = "Error while parsing " + expression + ": ";
  const std::size_t found = words.find(before);
  if (found == std::string_view::npos) return {};
  const std::string_view after = words.substr(found + before.size());
  const std::string_view reason = after.substr(0, after.find('\n'));
  return reason == "Internal error in YARR." ? std::string_view() : reason;
}

TEST_F(DialectAgainstWebKit, Expressions) {
  const Pieces pieces = {
      "a",           "b",        "z",         ".",        "*",        "+",        "?",
      "^",           "$",        "|",         "(",        ")",        "(?:",      "(?<n>",
      "(?<m>",       "(?<$>",    "(?!",       "(?i:",     "(?=",      "[",        "]",
      "[^",          "[z-",      "-",         "{",        "}",        "{1}",      "{0,1}",
      "{1,}",        "{0,}",     "{2,3}",     "{00,1}",   "\\",       R"(\d)",    R"(\w)",
      R"(\b)",       R"(\B)",    R"(\.)",     R"(\/)",    R"(\x41)",  R"(\xe9)",  R"(\x7e)",
      R"(\400)",     "X",        R"(\u0041)", R"(\u00)",  R"(\cA)",   R"(\c)",    R"(\c1)",
      R"(\k)",       R"(\k<n>)", R"(\0)",     R"(\1)",    R"(\7)",    R"(\8)",    R"(\12)",
      R"(\200)",     R"(\177)",  R"(\t)",     R"(\p{L})", R"(\-)",    "[a-z]",    "[^a-z]",
      R"([a-\x7f])", R"([\b])",  "[]",        "[^]",      ".*",       ".+",       ",",
      "0",           "1",        " ",         "/",        "<",        ">",        "=",
      ":",           "#",        R"(\])",     R"(\[)",    R"(\\)",    R"(\ )",    R"(\_)",
      R"(\e)",       R"(\h)",    R"(\y)",     R"(\Z)",    R"([\c1])", R"([\cA])", R"([\B-\D])",
      "\u00E9",      "\0"sv};
  std::size_t accepted = 0, sameReason = 0;
  for (const std::string& expression : randomTexts(pieces, expressionCount)) {
    const auto refusal = ContentBlockerDialect::refusalOfExpression(ExactCopy(expression));
    if (refusal && isTooMuchForWebKit(*refusal, expression)) continue;
    const Answer answer = ask(blockRule(expression));
    const std::string shown = testing::PrintToString(expression) + '\n' + answer.words;
    if (!refusal) {
      ++accepted;
      EXPECT_TRUE(answer.isTaken) << shown;
      continue;
    }
    if (isStricterThanWebKit(*refusal, expression)) continue;
    EXPECT_FALSE(answer.isTaken) << shown << "but refused: " << *refusal;
    // Behind a "$" that is not the last, WebKit may find another fault first.
    const std::string_view reason = reasonIn(answer.words, expression);
    if (reason.empty() || refusal == endOfLine) continue;
    ++sameReason;
    EXPECT_EQ(*refusal, reason) << shown;
  }
  EXPECT_GT(accepted, expressionCount / 10);
  EXPECT_GT(sameReason, expressionCount / 10);
}

// Wide classes, repeated and not, behind and before what they overlap with: most are refused, and
// none of the others may keep WebKit busy.
TEST_F(DialectAgainstWebKit, ExpressionsThatCouldExplode) {
  const Pieces terms = {".", "[a-z]", "[^/]", "a", "b", "X", "[0-9]", "[a-f]", "[^a]", "/"};
  const Pieces quantifiers = {"", "", "", "", "?", "*", "+"};
  const Pieces starts = {"", "", "^", "^https?://"};
  std::mt19937 random(seed);
  const auto oneOf = [&random](const Pieces& pieces) { return pieces[random() % pieces.size()]; };
  std::size_t accepted = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string expression(oneOf(starts));
    const std::size_t runs = 1 + random() % 5;
    for (std::size_t run = 0; run < runs; ++run) {
      constexpr std::array<std::size_t, 7> lengths = {1, 1, 1, 2, 3, 10, 19};
      const std::size_t length = lengths[random() % lengths.size()];
      const std::string_view term = oneOf(terms), quantifier = oneOf(quantifiers);
      const bool isGroup = random() % 6 == 0;
      if (isGroup) expression += '(';
      for (std::size_t k = 0; k < length; ++k) {
        expression += term;
        if (!isGroup) expression += length < 10 || quantifier == "?" ? quantifier : "";
      }
      if (isGroup) expression.append(")").append(quantifier);
    }
    if (ContentBlockerDialect::refusalOfExpression(ExactCopy(expression))) continue;
    ++accepted;
    const Answer answer = ask(blockRule(expression));
    EXPECT_TRUE(answer.isTaken) << expression << '\n' << answer.words;
  }
  EXPECT_GT(accepted, 1000);
}

TEST_F(DialectAgainstWebKit, Domains) {
  const Pieces pieces = {"a",      "b", "z",  "0",       "9",    ".",   ".",    "*",    "-",
                         "_",      "a", "b",  "example", ".com", "*.",  "xn--", "A",    "Z",
                         "\u00E9", "|", "(",  ")",       "[",    "]",   "{",    "}",    "{1}",
                         "^",      "$", "?",  "+",       "\\",   "\\d", ":",    "/",    " ",
                         "%",      ",", "\"", "'",       "<",    "&",   "=",    "@",    "#",
                         "!",      "~", ";",  "`",       "\x01", "\t",  "\n",   "\x7F", "\0"sv};
  const auto ruleWith = [](const std::string& key) {
    return [key](const std::string& domain) {
      return test::rule("block", "x", ",\"" + key + "\":[\"" + escaped(domain) + "\"]");
    };
  };
  std::vector<std::string> accepted, refused;
  for (const std::string& domain : randomTexts(pieces, domainCount)) {
    const bool isRefused = ContentBlockerDialect::refusalOfDomain(ExactCopy(domain)).has_value();
    (isRefused ? refused : accepted).push_back(domain);
  }
  EXPECT_GT(accepted.size(), domainCount / 10);
  for (const std::string key : {"if-domain", "unless-domain"}) {
    expectTaken(accepted, ruleWith(key));
    for (const std::string& domain : refused) {
      // WebKit makes these part of an expression, and that can be a good one.
      if (domain.find_first_of("()[]{}+") != std::string::npos) continue;
      EXPECT_FALSE(ask(ruleWith(key)(domain)).isTaken) << testing::PrintToString(domain);
    }
  }
}

}  // namespace
}  // namespace tamsel
