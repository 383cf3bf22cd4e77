#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "engine/Engine.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/PlainScan.h"
#include "tests/support/Rules.h"
#include "tests/support/WebKitRules.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using test::compile;
using test::ExactCopy;
using test::handMade;
using test::oneIn;
using test::pick;
using test::pickBelow;
using test::PlainScan;
using test::repeated;
using test::verdictText;

using Strings = std::vector<std::string>;
const Strings allTypes = {"document",    "image", "svg-document", "script", "raw",
                          "style-sheet", "font",  "media",        "popup"};

struct Request {
  std::string url;
  std::optional<std::string> page;
  std::string type;
};

// An engine and the matcher that it must agree with, for each form of documents.
class Pair {
 public:
  explicit Pair(const SourcedRules& rules)
      : engine_(rules),
        plain_(rules),
        hardened_(rules, DocumentForm::hardened),
        plainHardened_(rules, DocumentForm::hardened) {}

  // That of the plain form.
  std::string verdict(const Request& request) {
    (void)verdictOf(hardened_, plainHardened_, request);
    return verdictOf(engine_, plain_, request);
  }

 private:
  static std::string verdictOf(const Engine& engine, PlainScan& plain, const Request& request) {
    const ExactCopy url(request.url), page(request.page.value_or("")), type(request.type);
    const auto pageURL = request.page ? std::optional<std::string_view>(page) : std::nullopt;
    const Engine::Verdict found = engine.evaluate(url, pageURL, type);
    const Engine::Verdict expected = plain.evaluate(url, pageURL, type);
    EXPECT_TRUE(found == expected)
        << "found " << verdictText(found) << "\nexpected " << verdictText(expected) << "\nurl "
        << testing::PrintToString(request.url) << "\npage " << testing::PrintToString(request.page)
        << "\ntype " << request.type;
    return verdictText(found);
  }

  Engine engine_;
  PlainScan plain_;
  Engine hardened_;
  PlainScan plainHardened_;
};

SourcedRules block(WKRule::Trigger trigger) {
  return {handMade(RuleKind::block, std::move(trigger))};
}

// A rule for pages of certain domains.
SourcedRules on(Maybe<TextList> ifDomain, Maybe<TextList> unlessDomain = {}) {
  return block({"ad", {}, {}, {}, ifDomain, unlessDomain});
}

TEST(Engine, FindsTheFirstRules) {
  const std::string ad = "http://s.x/ad", own = "http://s.x/", other = "http://b.c/";
  const struct {
    SourcedRules rules;
    Request request;
    std::string expected;
  } cases[] = {
      // Nothing blocks; the sites are still compared.
      {{}, {"http://x.b.c/", "http://b.c/", "image"}, "-"},
      {compile("##ad\n@@ad"), {"http://c.co.uk/ad", "http://a.b.co.uk/", "raw"}, "- (third-party)"},
      // The first block rule, then the first exception.
      {compile("no\nad\nhttp\n@@no\n@@http\n@@ad"), {ad, own, "image"}, "ad but @@http"},
      {compile("http\nad\n@@no"), {ad, other, "image"}, "http (third-party)"},
      // Types, by their exact names.
      {compile("ad$image"), {ad, own, "svg-document"}, "ad$image"},
      {compile("ad$script\nad$image"), {ad, own, "Image"}, "-"},
      {compile("ad"), {ad, other, "document"}, "ad (third-party)"},
      {compile("ad"), {ad, own, "document"}, "-"},
      {block({"ad", {}, {}, {}, {}, {}}), {ad, own, ""}, "ad"},
      {block({"ad", {}, TextList{}, {}, {}, {}}), {ad, own, "image"}, "-"},
      {block({"ad", {}, TextList{"odd", ""}, {}, {}, {}}), {ad, own, "odd"}, "ad"},
      {block({"ad", {}, TextList{"odd", ""}, {}, {}, {}}), {ad, own, ""}, "ad"},
      // Parties: an unknown host is none of a third party, and only the first element counts.
      {compile("ad$3p"), {ad, other, "image"}, "ad$3p (third-party)"},
      {compile("ad$3p"), {ad, {}, "image"}, "-"},
      {compile("ad$1p"), {"ad", other, "image"}, "ad$1p"},
      {compile("ad$1p"), {ad, other, "image"}, "- (third-party)"},
      {block({"ad", {}, {}, TextList{}, {}, {}}), {ad, own, "image"}, "ad"},
      {block({"ad", {}, {}, TextList{"odd", "third-party"}, {}, {}}), {ad, own, "image"}, "ad"},
      {block({"ad", {}, {}, TextList{"third-party", "first-party"}, {}, {}}), {ad, own, "x"}, "-"},
      // Pages, also of domains as no filter line writes them.
      {on(TextList{"*x", "*b.c"}), {"ad", "HTTP://B.C:8", "raw"}, "ad"},
      {on(TextList{"*b.c"}), {"ad", "http://x.b.c/", "raw"}, "ad"},
      {on(TextList{"*b.c"}), {"ad", "http://xb.c/", "raw"}, "-"},
      {on(TextList{"*b.c"}), {"ad", "http://b.c./", "raw"}, "-"},
      {on(TextList{"*b.c"}), {"ad", {}, "raw"}, "-"},
      {on({}, TextList{"*x", "*b.c"}), {"ad", "http://x.b.c/", "raw"}, "-"},
      {on({}, TextList{"*b.c"}), {"ad", "http://c/", "raw"}, "ad"},
      {on({}, TextList{"*b.c"}), {"ad", "about:blank", "raw"}, "ad"},
      {on(TextList{}), {"ad", other, "raw"}, "-"},
      {on({}, TextList{}), {"ad", other, "raw"}, "ad"},
      {on(TextList{"b.c"}), {"ad", "//x.b.c", "raw"}, "ad"},
      {on(TextList{"*B.c", "**b.c", "*", ""}), {"ad", other, "raw"}, "-"},
      {on(TextList{"**b.c"}), {"ad", "http://x.*b.c/", "raw"}, "ad"},
      {on(TextList{"*"}), {"ad", "http://b.c./", "raw"}, "ad"},
      {on(TextList{"*.b"}), {"ad", "http://x..b/", "raw"}, "ad"},
      {on(TextList{"*b.c"}, TextList{"x.b.c"}), {"ad", other, "raw"}, "ad"},
      {on(TextList{"*b.c"}, TextList{"x.b.c"}), {"ad", "//y.x.b.c", "raw"}, "-"},
      // Letter case, in ASCII and beyond it.
      {compile("aD"), {"AD", own, "image"}, "aD"},
      {compile("Ad$match-case\nad"), {"xad", own, "image"}, "ad"},
      {block({"Ad", false, {}, {}, {}, {}}), {"aD", own, "image"}, "Ad"},
      {compile("ks$match-case\nks"), {"\u212A\u017F", own, "image"}, "ks"},
      {compile("xss"), {"x\u00DF", own, "image"}, "xss"},
      {compile("x^\nx^$match-case"), {"x\u212A", own, "image"}, "x^$match-case"},
      {block({"\u00E9", {}, {}, {}, {}, {}}), {"\u00C9", own, "image"}, "\u00E9"},
      // The URL is searched as it is; a character beyond the BMP is one.
      {compile("?q#Ad|"), {"http://u:p@s.x:8/?q#ad", own, "image"}, "?q#Ad|"},
      {compile("/^a..b$/\n/^a.b$/"), {"a\U0001F600b", own, "image"}, "/^a.b$/"},
      {compile("/x*/"), {"", own, "image"}, "/x*/"},
      {compile("ad|"), {"ad\u2028", own, "image"}, "ad|"},
      {compile("ad|"), {"ad\n\n", own, "image"}, "-"},
      {compile("a*d"), {"a\nd a\u0085d", own, "image"}, "-"},
      {compile("a*d"), {"a\0\td"s, own, "image"}, "a*d"},
      // Expressions that are none never match, whatever stands around them.
      {compile("/ad(/\n/[/\n/a**/\n/+a/\n/ad)/\n/[z-a]/\n/ad\\/\n/ad}/"), {ad, own, "image"}, "-"},
      {compile("/ad(/\nad\n@@/ad(/"), {"ad(", own, "image"}, "ad"},
      {block({"\\bad\\b|x{2}", {}, {}, {}, {}, {}}), {ad, own, ""}, "\\bad\\b|x{2}"},
  };
  for (const auto& [rules, request, expected] : cases) {
    SCOPED_TRACE(rules.empty() ? "no rules" : testing::PrintToString(rules[0].source.string()));
    EXPECT_EQ(Pair(rules).verdict(request), expected) << testing::PrintToString(request.url);
  }
  const Engine engine(compile("ad\n##ad\n@@ad$image\nb$font"));
  EXPECT_EQ(engine.blocks().size(), 3);
  EXPECT_EQ(engine.exceptions().size(), 1);
}

TEST(Engine, FindsTheHostOfAnUrl) {
  const auto expectHost = [](const std::string& url, const std::string& host) {
    SCOPED_TRACE(testing::PrintToString(url));
    EXPECT_EQ(PlainScan::hostOf(ExactCopy(url)).value_or(""), host);
    const std::string party = host.empty() ? "" : " (third-party)";
    Pair pair(on(TextList{"*" + host}));
    EXPECT_EQ(pair.verdict({"//other.x/ad", url, "raw"}), (host.empty() ? "-" : "ad") + party);
    EXPECT_EQ(pair.verdict({url, "//other.x", "raw"}), "-" + party);
  };
  expectHost("http://a.b/", "a.b");
  expectHost("//A.B", "a.b");
  expectHost("h+t-t.P1://u:p@v@a.b:80?x/", "a.b");
  expectHost("http://@a.b:#x@c.d", "a.b");
  expectHost("http://a.b:65535/ \n", "a.b");
  expectHost("http://u@[2001:DB8::1]:80", "2001:db8::1");
  expectHost("http://\u212A.\u00C9/", "k.\u00E9");
  for (const char* hostless :
       {// No scheme, no authority, no host.
        "", "a.b/x", "1http://a.b/", "ht_tp://a.b/", "://a.b/", "http:a.b", "http:/a.b",
        "about:blank", "data:,//a.b", "http://", "http:///x", "http://u@/", "http://:80/",
        // No port, no closed brackets, blanks.
        "http://a.b:65536/", "http://a.b:99999999999999999999/", "http://a.b:8x/", "http://a.b:-1/",
        "http://[::1/", "http://[::1]x/", "http://[]/", "http://a b/", "http://a.b\t/",
        "http://u \x7F@a.b/"}) {
    expectHost(hostless, "");
  }
}

TEST(Engine, AnswersHardInputs) {
  const std::string host = R"(^[^:]+:(//)?([^/]+\.)?ads\.x[^a-zA-Z0-9_.%-])";
  const std::string many = std::string(1 << 20, 'a');
  const std::tuple<std::string, std::string, bool> cases[] = {
      // Expressions that take a backtracking matcher for ever.
      {"(a+)+$", repeated(40, "a") + "!", false},
      {"(a+)+$", repeated(40, "a") + "\u212A!", false},
      {"(a+)+$", many + "!", false},
      {"(a|aa)+$", repeated(60, "a") + "!", false},
      {"(x+x+)+y", repeated(5000, "x"), false},
      {"([a-z]+)*\\d", repeated(60, "a"), false},
      {repeated(20, "a.*") + "b", repeated(300, "a"), false},
      // Nesting; what the regular-expression library refuses never matches.
      {repeated(50, "(") + "ad" + repeated(50, ")"), "http://x/ad", true},
      {repeated(10000, "(") + "ad" + repeated(10000, ")"), "http://x/ad", false},
      // Length.
      {host, "http://ads.x/" + many, true},
      {host, "http://" + many + ".ads.x/", true},
      {host, "http://" + repeated(200000, "ads.") + "y/", false},
      {"/end\\.gif$", "http://x/\u00E9" + many + "/end.gif", true},
      {many, "http://x/" + many, true},
  };
  for (const auto& [filter, url, matches] : cases) {
    SCOPED_TRACE(filter.substr(0, 60) + " in " + url.substr(0, 60));
    const Engine engine(block({filter, {}, {}, {}, {}, {}}));
    EXPECT_EQ(engine.evaluate(ExactCopy(url), std::nullopt, "image").block.has_value(), matches);
  }
}

// All sequences of at most `length` pieces.
Strings sequences(const Strings& pieces, std::size_t length) {
  Strings all = {""};
  for (std::size_t from = 0; length > 0; --length) {
    for (const std::size_t to = all.size(); from < to; ++from) {
      for (const std::string& piece : pieces) all.push_back(all[from] + piece);
    }
  }
  return all;
}

TEST(EngineAgreement, OnAllSmallPatterns) {
  for (const auto& [patternLength, urlLength] : {std::pair{3u, 3u}, std::pair{4u, 2u}}) {
    std::set<std::string> filters;
    for (const std::string& tail : sequences({"a", ".", "/", "*", "^", "|"}, patternLength)) {
      for (const std::string start : {"", "||"}) {
        if (const auto filter = FilterCompiler::convertPattern(start + tail))
          filters.insert(*filter);
      }
    }
    const Strings urls = sequences({"a", "b", ".", "/", ":", "?", "@", "-"}, urlLength);
    // Two patterns are tested at once, as a block rule and as an exception, under each type.
    for (auto filter = filters.begin(); filter != filters.end();) {
      SourcedRules rules;
      for (const RuleKind kind : {RuleKind::block, RuleKind::exception}) {
        for (std::size_t i = 0; i < allTypes.size() && filter != filters.end(); ++i, ++filter) {
          rules.push_back(handMade(kind, {*filter, {}, TextList{allTypes[i]}, {}, {}, {}}));
        }
      }
      rules.push_back(handMade(RuleKind::block, {".*", {}, {}, {}, {}, {}}));
      Pair pair(rules);
      for (const std::string& url : urls) {
        for (const std::string& type : allTypes) pair.verdict({"http://" + url, {}, type});
        if (HasFailure()) return;
      }
    }
  }
}

const Strings words = {"ad", "ads", "banner", "pixel.gif", "k", "ss", "track-er", "a", "js"};
const Strings hosts = {"ads.x", "cdn.example", "b.co.uk", "x.ads.x", "track.ks"};

std::string randomExpression(std::mt19937& random) {
  const Strings once = {"ads?",   "\\d",      "[k-s]", "(ads)?", "\\.",       ".",  "^http", "x$",
                        "[^a-k]", "(a(d)?)?", "s",     "\\/",    "[a-z0-9_]", "ss", "%"};
  const Strings often = {"[a-z]+", ".*", "\\w+", "[^/]*", "(ads)*", "s+?", "[s-]*"};
  std::string expression = pick(random, words).substr(0, 2);
  for (int part = 0; part < 2; ++part) {
    for (std::size_t n = pickBelow(random, 3); n > 0; --n) expression += pick(random, once);
    if (oneIn(random, 2)) expression += pick(random, often);
  }
  return oneIn(random, 20) ? expression + "(" : expression;
}

std::string randomFilter(std::mt19937& random) {
  const Strings joints = {"*", "^", "/", ".", "?", "-", "", "|"};
  const Strings starts = {"", "", "*", "|http://", "|", "||"};
  std::string filter = oneIn(random, 4) ? "@@" : "";
  if (oneIn(random, 4)) {
    filter += "/" + randomExpression(random) + "/";
  } else {
    filter +=
        oneIn(random, 3) ? "||" + pick(random, hosts) : pick(random, starts) + pick(random, words);
    for (std::size_t n = pickBelow(random, 4); n > 0; --n) {
      filter += pick(random, joints) + (oneIn(random, 2) ? pick(random, words) : "");
    }
    if (oneIn(random, 3)) filter += oneIn(random, 2) ? "^" : "|";
  }
  filter += "$all";
  for (std::size_t n = pickBelow(random, 3); n > 0; --n) {
    const std::string host = pick(random, hosts);
    filter += "," + pick(random, Strings{"image", "script", "~image", "xhr,css", "document",
                                         "frame", "3p", "~3p", "match-case", "domain=x|" + host,
                                         "domain=" + host, "domain=~" + host});
  }
  return filter;
}

// Triggers that no filter line yields.
SourcedRule randomOddRule(std::mt19937& random) {
  const Strings filters = {
      "(?:ads|pixel)", "\\bad\\b",    "s{2}",     "(k|s)\\1",  "[\\p{L}&&[^a-z]]",
      "\u00DF",        "k(?=\u00E9)", "\u017F",   "(?-i)K",    "[\u00E0-\u00FF]",
      "a++d",          "\\x41d",      "(?<!/)ad", "x|^[^:]*$", "",
      "[[:alpha:]]$"};
  WKRule::Trigger trigger{pick(random, filters), {}, {}, {}, {}, {}};
  if (oneIn(random, 3)) trigger.caseSensitive = oneIn(random, 2);
  if (oneIn(random, 3)) trigger.resourceType = TextList{pick(random, allTypes), "odd"};
  if (oneIn(random, 3)) trigger.loadType = TextList{oneIn(random, 2) ? "third-party" : "odd"};
  if (oneIn(random, 4)) trigger.ifDomain = TextList{"*" + pick(random, hosts), pick(random, hosts)};
  if (oneIn(random, 4)) trigger.unlessDomain = TextList{"*" + pick(random, hosts)};
  return handMade(oneIn(random, 3) ? RuleKind::exception : RuleKind::block, std::move(trigger));
}

std::string randomUrl(std::mt19937& random) {
  const Strings starts = {"http://", "http://",     "https://x.", "//",          "http:",
                          "",        "http://u:p@", "http://x.",  "http://www.", "http://\u212A."};
  const Strings joints = {"/", "/", ".", "?", "=", "&", "-", "", "%41", ":80", "//", "@", "./"};
  const Strings odd = {"\u00E9", "\u00C9", "\u212A", "\u017F", "\u00DF",     "\n",   "\r\n",
                       "\u2028", "\u0085", "\x01",   " ",      "\U0001F600", "\xFF", "\0"s};
  std::string url = pick(random, starts) + pick(random, hosts);
  for (std::size_t n = pickBelow(random, 6); n > 0; --n) {
    url += pick(random, joints) + pick(random, words);
    if (oneIn(random, 10)) url += pick(random, odd);
  }
  for (char& c : url) {
    if (oneIn(random, 12) && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return url;
}

TEST(EngineAgreement, OnRandomRulesAndUrls) {
  int blocked = 0, allowed = 0;
  for (unsigned seed = 1; seed <= 200 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string filters;
    const std::size_t count = 1 + pickBelow(random, seed % 4 == 0 ? 100 : 8);
    for (std::size_t i = 0; i < count; ++i) filters += randomFilter(random) + "\n";
    SourcedRules rules = compile(filters);
    for (std::size_t n = pickBelow(random, 4); n > 0; --n) {
      const auto at =
          rules.begin() + static_cast<std::ptrdiff_t>(pickBelow(random, rules.size() + 1));
      rules.insert(at, randomOddRule(random));
    }
    Pair pair(rules);
    for (int i = 0; i < 40; ++i) {
      Request request{randomUrl(random), {}, oneIn(random, 20) ? "odd" : pick(random, allTypes)};
      if (!oneIn(random, 8)) request.page = randomUrl(random);
      const std::string verdict = pair.verdict(request);
      blocked += verdict.starts_with("-") ? 0 : 1;
      allowed += verdict.find(" but ") != std::string::npos ? 1 : 0;
    }
  }
  // The inputs are of use only while they often match.
  EXPECT_GT(blocked, 800);
  EXPECT_GT(allowed, 80);
}

TEST(EngineAgreement, OnRealLists) {
  const char* const lists = std::getenv("TAMSEL_LISTS");
  const char* const requests = std::getenv("TAMSEL_REQUESTS");
  if (lists == nullptr || requests == nullptr) {
    GTEST_SKIP() << "set TAMSEL_LISTS (paths, colon-separated) and TAMSEL_REQUESTS (a file of "
                    "lines: url, page and type, tab-separated) to run this";
  }
  std::string filters;
  std::istringstream paths(lists);
  for (std::string path; std::getline(paths, path, ':');) {
    std::ifstream list(path, std::ios::binary);
    ASSERT_TRUE(list) << path;
    filters.append(std::istreambuf_iterator<char>(list), std::istreambuf_iterator<char>()) += "\n";
  }
  Pair pair(compile(filters));

  constexpr int stride = 97, most = 100;
  std::ifstream file(requests);
  ASSERT_TRUE(file) << requests;
  int number = 0;
  for (std::string line; number < stride * most && std::getline(file, line); ++number) {
    if (number % stride != 0) continue;
    std::istringstream fields(line);
    Request request;
    request.page.emplace();
    std::getline(fields, request.url, '\t');
    std::getline(fields, *request.page, '\t');
    std::getline(fields, request.type, '\t');
    pair.verdict(request);
  }
  EXPECT_GT(number, 0);
}

}  // namespace
}  // namespace tamsel
