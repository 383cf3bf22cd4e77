#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/Rules.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using FilterCompiler::compileDocument;
using FilterCompiler::DocumentReport;
using FilterCompiler::Input;
using FilterCompiler::LineResult;
using FilterCompiler::parse;
using test::ExactCopy;
using test::pick;
using Strings = std::vector<std::string>;

const Uuid listID = *Uuid::parse("0A0A0A0A-0000-4000-8000-000000000000");
const Text listName("0");

// The beginning of every url-filter of a "||" pattern, and what stands for "^".
const std::string hostAnchor = R"(^[^:]+:(//)?([^/]+\.)?)";
const std::string separator = "[^a-zA-Z0-9_.%-]";

std::string replaced(std::string text, const std::string& part, const std::string& by) {
  const std::size_t at = text.find(part);
  return at == std::string::npos ? text : replaced(text.replace(at, part.size(), by), part, by);
}

std::string joined(const Maybe<TextList>& list, const std::string& label) {
  std::string text;
  if (!list) return text;
  for (std::string_view item : *list) text += (text.empty() ? label : ",") + std::string(item);
  return text;
}

std::string renderTypes(const WKRule::Trigger& trigger) {
  std::string types = joined(trigger.resourceType, " [") + (trigger.resourceType ? "]" : "");
  types = replaced(types, "font,image,media,popup,raw,script,style-sheet,svg-document", "ALL");
  return replaced(types, "image,svg-document", "images") + joined(trigger.loadType, " ");
}

// For instance "block ad [script] third-party if *a.b case". The url-filter of "||a^" is shown so
// again; of a second rule, which shares everything else, only types and parties are shown.
std::string render(const LineResult& result) {
  if (const auto* skipped = std::get_if<LineResult::Skipped>(&result.value)) {
    return "skip: " + skipped->reason.string();
  }
  const auto* rules = std::get_if<LineResult::Rules>(&result.value);
  if (rules == nullptr) return "none";
  const SourcedRule& rule = rules->at(0);
  const auto& [trigger, action] = rule.rule;
  std::string text = std::string(rawValue(rule.kind)) + " " + trigger.urlFilter.string();
  text = replaced(replaced(text, hostAnchor, "||"), separator, "^");
  if (action.selector) text += " {" + action.selector->string() + "}";
  text += renderTypes(trigger);
  text += joined(trigger.ifDomain, " if ") + joined(trigger.unlessDomain, " unless ");
  if (trigger.caseSensitive) text += *trigger.caseSensitive ? " case" : " (case is false)";
  for (SourcedRule rest : LineResult::Rules(rules->begin() + 1, rules->end())) {
    text += " +" + renderTypes(rest.rule.trigger);
    rest.rule.trigger.resourceType = trigger.resourceType;
    rest.rule.trigger.loadType = trigger.loadType;
    EXPECT_EQ(rest, rule);
  }
  EXPECT_EQ(action.type.view(), rule.kind == RuleKind::block       ? "block"
                                : rule.kind == RuleKind::exception ? "ignore-previous-rules"
                                                                   : "css-display-none");
  return text;
}

LineResult parseLine(const std::string& line) {
  return FilterCompiler::parseLine(ExactCopy(line), listID, listName);
}

// The lists are named and identified by their numbers. Identifiers of skipped lines are cleared
// once they have been seen to differ.
ParseOutput parse(const Strings& texts) {
  std::deque<ExactCopy> copies;
  std::vector<Input> inputs;
  for (const std::string& text : texts) {
    inputs.push_back({listID, std::to_string(inputs.size()), copies.emplace_back(text)});
    inputs.back().id.bytes[15] = static_cast<std::uint8_t>(inputs.size() - 1);
  }
  ParseOutput output = FilterCompiler::parse(inputs);
  std::set<Uuid> ids;
  for (SkippedRule& skipped : output.skipped) ids.insert(std::exchange(skipped.id, {}));
  EXPECT_EQ(ids.size(), output.skipped.size());
  return output;
}

// A line, alone and with white space around it and as a whole list, gives the same.
void expectLine(const std::string& line, const std::string& expected) {
  SCOPED_TRACE(testing::PrintToString(line));
  const std::string trimmed = line.substr(0, line.find_last_not_of(' ') + 1);
  const LineResult result = parseLine(line);
  EXPECT_EQ(render(result), expected);
  EXPECT_EQ(parseLine("\t \u00A0" + line + "\u3000 \t").value, result.value);
  const ParseOutput output = parse({line});
  SourcedRules rules;
  std::vector<SkippedRule> skips;
  if (const auto* made = std::get_if<LineResult::Rules>(&result.value)) {
    rules.assign(made->begin(), made->end());
    EXPECT_EQ(rules[0], (SourcedRule{rules[0].rule, rules[0].kind, trimmed, listID, listName}));
  } else if (const auto* skipped = std::get_if<LineResult::Skipped>(&result.value)) {
    skips.push_back({{}, trimmed, skipped->reason, listID, listName});
    EXPECT_EQ(skipped->line, Text(trimmed));
  }
  EXPECT_EQ(output.rules, rules);
  EXPECT_EQ(output.skipped, skips);
  EXPECT_EQ(output.skippedCounts.size(), skips.size());
}

struct LineGroup {
  std::string expected;
  Strings lines;
};

void expectLines(const std::vector<LineGroup>& groups) {
  for (const auto& [expected, lines] : groups) {
    for (const std::string& line : lines) expectLine(line, expected);
  }
}

const std::string broad = "skip: Pattern is empty, too broad or non-ASCII";
const std::string expression =
    "skip: Regular expression uses syntax WebKit content blockers can't express";
const std::string unsupported = "skip: Unsupported option $";
const std::string procedural = "skip: Procedural selector ";
const std::string entity = "skip: Entity / wildcard domains are not supported";
const std::string mixed = "skip: Mixing included and excluded domains is not supported";
const std::string badDomain = "skip: Unsupported domain ";
const std::string both = " [ALL] + [document] third-party";

TEST(FilterCompiler, ClassifiesLines) {
  const std::string open(10000, '('), close(10000, ')');
  expectLines({
      // No filters.
      {"none", {"", "   ", "! a ##.b", "!\u0301 a", "[Header 2.0]", "[a]##.b"}},
      {"none", {"#", "# a", "#@", "#a#b", "#@?x#.a", "0.0.0.0 host a.b", "127.0.0.1 #x.y"}},

      // Hosts files: spaces and tabs separate fields and nothing else does.
      {"block ||ads\\.b^" + both, {"0.0.0.0 ADS.b", "127.0.0.1\t \tads.B c.d # e", "||ads.b^"}},
      {"block ||k\\.b^" + both, {"0.0.0.0 \u212A.b # the Kelvin sign"}},
      {"block 0\\.0\\.0\\.0" + both, {"0.0.0.0"}},
      {"block 127\\.0\\.0\\.2 a" + both, {"127.0.0.2 a"}},
      {unsupported + "image^", {"0.0.0.0 a.b$image"}},
      {broad, {"0.0.0.0\u00A0a.b", "0.0.0.0 \u00E9.b"}},

      // Element hiding.
      {"cosmetic .* {#a}", {"###a", "##  #a  ", "##\u2003#a", ",~,###a"}},
      {"cosmetic .* {a##b}", {"##a##b"}},
      {"cosmetic .* {a+js(x):Has-Text(x)}", {"##a+js(x):Has-Text(x)"}},
      {"cosmetic .* {.c} if *a.x,*0.0,*a.x", {"A.x,0.0,A.x##.c"}},
      {"cosmetic .* {.c} unless *a_-.x,*b", {"~a_-.x,,~B##.c"}},

      // Markers first, then the selector: empty, scriptlet, tokens in their order, ASCII.
      {"skip: Cosmetic exception (#@#) can't target a single selector in WebKit",
       {"#@#", "a.*#@#+js(x)"}},
      {"skip: Procedural / script cosmetic filter (#?#) is not supported",
       {"#?#div:has-text(x)", "#?#", "a,~b#?#.c"}},
      {"skip: Procedural / script cosmetic filter (#@$@%#) is not supported", {"#@$@%#.a"}},
      {"skip: Empty selector", {"##", "a.*##   "}},
      {"skip: Scriptlet injection is not supported", {"a.*##+js(\u00E9::)", "## +js(x)"}},
      {procedural + ":has-text( is not supported", {"a.*##\u00E9:has-text(", "##:if(:has-text("}},
      {procedural + ":if( is not supported", {"##a::before:if(x)"}},
      {procedural + ":: is not supported", {"##a::b\u00E9", "##" + std::string(1 << 20, ':')}},
      {"skip: Non-ASCII selector", {"a.*##\u00E9", "##.a\xFF", "##.\u212A"}},

      // The domains last; the first bad one counts, and the mixture when none is bad.
      {mixed, {"a,~b##.c"}},
      {entity, {"a.*##.c", "a,~b,c.*##.d"}},
      {badDomain + "~a", {"~~a,b.*##.c"}},

      // Lines that are no element hiding after all.
      {"block a#b" + both, {"a#b"}},
      {"block a#@" + both, {"a#@"}},
      {"block a b##\\.c" + both, {"a b##.c"}},
      {"block ##.c" + both, {"/##.c/"}},
      {broad, {"\u212A.b##.c"}},

      // Hostile bytes. Only whole and valid sequences are white space.
      {"block a\0b"s + both, {"a\0b"s}},
      {"cosmetic .* {a\0b}"s, {"##a\0b"s}},
      {broad, {"\uFEFF! a", "\u200Ba", "\u180Ea", "a\xFF", "a\xC2", "\x80", "\xED\xA0\x80"}},
      {broad, {"\xE2\x80", "\xC0\xA0", "\xF4\x90\x80\x80", "\xF0\x9F\x98"}},
      {"block " + std::string(1 << 20, 'a') + both, {std::string(1 << 20, 'a')}},
      {"block ad" + both, {"ad$" + std::string(1 << 20, ',')}},
      {"block " + open + "a" + close + both, {"/" + open + "a" + close + "/"}},
      {"block " + open + both, {"/" + open + "/"}},
      {"cosmetic .* {" + open + "}", {"##" + open}},
      {"block ||" + std::string(1 << 20, 'a') + "^" + both,
       {"||" + std::string(1 << 20, 'a') + "^"}},
  });
  for (const char* token : {":has-text(", ":xpath(", ":matches-css", ":upward(", ":remove(",
                            ":style(", ":-abp-", ":contains(", ":min-text-length(", ":watch-attr(",
                            ":others(", ":matches-path(", ":nth-ancestor(", ":if(", ":if-not(",
                            ":matches-media(", ":matches-attr(", ":matches-property("}) {
    expectLine("a.b##div" + std::string(token), procedural + token + " is not supported");
  }
  for (const std::string space :
       {"\t", " ", "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005",
        "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u202F", "\u205F", "\u3000"}) {
    EXPECT_EQ(render(parseLine(space + "ad" + space)), "block ad" + both) << space;
  }
}

TEST(FilterCompiler, ConvertsNetworkFilters) {
  const std::string frames = " [document] third-party";
  expectLines({
      // Kinds of rule, and options without effect.
      {"block ad" + both, {"ad", "/ad/", "ad$all,~important,IMPORTANT=x,~all,", "ad$~doc"}},
      {"exception ad" + both, {"@@ad", "@@/ad/", "@@ad$~document"}},
      {"exception @@ad" + both, {"@@@@ad"}},
      {"skip: No URL pattern (options only)", {"@@", "@@$image", "$image,foo"}},

      // Where the options begin.
      {"block ad\\$image [script]", {"ad$image$script"}},
      {"block ad\\$image,font\\$" + both, {"ad$image,font$"}},
      {"block ad\\$x/y" + both, {"ad$x/y"}},
      {"block ad\\d+$" + both, {"/ad\\d+$/"}},
      {"block /ad/\\$domain=a\\.b/c" + both, {"/ad/$domain=a.b/c"}},

      // Regular expressions. Their syntax and the pattern come before the options.
      {"block Ad[0-9]+(s$ [images]", {"/Ad[0-9]+(s$/$image"}},
      {"block // [images]", {"//$image"}},
      {"block /ad/.* [images]", {"/ad/*$image"}},
      {expression, {"/a|b/", "/(?:a)/", "/\\bad/", "/ad\\B/", "/a{2}/$foo", "/\u00E9/$foo"}},
      {broad, {"*$foo", "\u00E9$foo", std::string(1 << 20, '*')}},

      // Types, in plain string order and by any of their names.
      {"block ad [image,media,popup,raw,svg-document]", {"ad$xmlhttprequest,popup,media,image"}},
      {"block ad [font,raw,style-sheet]", {"ad$css,XHR,font,stylesheet"}},
      {"block ad [script]", {"ad$script=x,,", "ad$script,~image"}},
      {"block ad [font,media,popup,raw,script] + [document] third-party", {"ad$~image,~css"}},

      // Documents: as frames unless types are named, as pages when "document" is.
      {"block ad [ALL]", {"ad$~subdocument"}},
      {"block ad" + frames, {"ad$frame", "ad$document,~document,frame", "ad$document,3p"}},
      {"block ad" + frames, {"ad$~image,~script,~css,~font,~media,~xhr,~popup"}},
      {"exception ad" + frames, {"@@ad$subdocument"}},
      {"block ad [images] + [document] third-party", {"ad$subdocument,image"}},
      {"block ad [document]", {"ad$document", "ad$doc,frame"}},
      {"block ad [images] first-party + [document] first-party", {"ad$doc,image,1p"}},
      {"skip: Resource-type options leave nothing to match",
       {"ad$document,~document", "ad$frame,~frame", "ad$image,~image", "ad$frame,1p",
        "ad$~image,~script,~stylesheet,~font,~media,~xhr,~popup,~frame"}},
      {"skip: Page-level exceptions ($document) are not supported",
       {"@@ad$doc", "@@ad$document,~document", "@@ad$image,document"}},

      // Parties, the last of which counts, and letter case.
      {"block ad [script] third-party", {"ad$Third-Party,SCRIPT", "ad$script,~1p"}},
      {"block ad [ALL] third-party + [document] third-party", {"ad$3p", "ad$~first-party"}},
      {"block ad [ALL] first-party", {"ad$1p", "ad$3p,first-party", "ad$1p,~1p,~3p=x"}},
      {"block Ad [images] case", {"Ad$image,match-case", "Ad$~Match-Case=x,image"}},

      // Domains; the last option counts and the first bad domain gives the reason.
      {"block ad [images] if *b.x,*a,*b.x", {"ad$image,domain=B.x|a|B.x"}},
      {"block ad [images] unless *a", {"ad$image,domain=~A", "ad$domain=b,image,~domain=~a|"}},
      {"block ad [images]", {"ad$domain=a,image,domain=|~|"}},
      {"block ad [images] if *k.x", {"ad$image,domain=\u212A.x"}},
      {"skip: domain= option without value", {"ad$domain", "ad$~domain=,foo"}},
      {mixed, {"ad$domain=a|~b"}},
      {entity, {"ad$domain=a|~b|c.*", "ad$domain=\u00E9.*"}},
      {badDomain + "a:80", {"ad$domain=A:80|b.*"}},
      {badDomain + "a=b", {"ad$domain=A=b"}},
      {badDomain + "\u00E9.x", {"ad$domain=\u00C9.x"}},

      // Unknown options, in lower case and without "~" and value; the first faulty one counts.
      {unsupported + "csp", {"ad$csp=script-src 'none'", "@@ad$document,~CSP,domain"}},
      {unsupported, {"ad$~", "ad$=x", "ad$image,~=,foo"}},
      {unsupported + "~image", {"ad$~~image"}},
      {unsupported + " font", {"ad$image, font"}},
      {unsupported + "i\u0307mage\0"s, {"ad$\u0130mage\0"s}},
  });
}

TEST(FilterCompiler, SplitsLines) {
  for (const std::string between : {"\n", "\v", "\f", "\r", "\r\n", "\n\r\r\n", "\u0085", "\u2028",
                                    "\u2029", "\u2028\n\u0085", "\n\xFF\n"}) {
    const ParseOutput output = parse({between + "a$font" + between + "b$font" + between});
    EXPECT_EQ(output.rules.size(), 2) << testing::PrintToString(between);
  }
  for (const std::string& within : {"\x1C"s, "\x85"s, "\xC2"s, "\u0084"s, "\u0086"s, "\u2027"s,
                                    "\u202A"s, "\xE2\x80"s, "\xC0\x8A"s, "\0"s, " \t"s}) {
    const ParseOutput output = parse({"a$font" + within + "b$font"});
    EXPECT_EQ(output.rules.size() + output.skipped.size(), 1) << testing::PrintToString(within);
  }
}

TEST(FilterCompiler, KeepsTheFirstOfEqualRulesInOrderOfKind) {
  const std::pair<Strings, std::string> cases[] = {
      // Nothing to compile.
      {{}, ""},
      {{"", "! a\n\n \n[b]"}, ""},
      // Equal rules, of the same and of different text; one of two rules of a line.
      {{"ad$font\nad$font", "ad$font"}, " ad$font@0"},
      {{"ads$font\n/ads/$font\nads$~all,FONT"}, " ads$font@0"},
      {{"0.0.0.0 A.b x", "||a.b^"}, " 0.0.0.0 A.b x@0 0.0.0.0 A.b x@0"},
      {{"##a", "## a \n,##a"}, " ##a@0"},
      {{"ad$~frame", "ad"}, " ad$~frame@0 ad@1"},
      // Rules that differ in one field only; blocks, exceptions and element hiding in this order.
      {{"@@a$font\na$font\nA$font\na$font,match-case\na$font,1p\na$font,3p", "a$font,domain=a"},
       " a$font@0 A$font@0 a$font,match-case@0 a$font,1p@0 a$font,3p@0 a$font,domain=a@1 "
       "@@a$font@0"},
      {{"##a\n##A\na##a\n~a##a\na,b##a\nb,a##a\n@@x$font", "@@b$font\na$css"},
       " a$css@1 @@x$font@0 @@b$font@1 ##a@0 ##A@0 a##a@0 ~a##a@0 a,b##a@0 b,a##a@0"},
  };
  for (const auto& [lists, expected] : cases) {
    const ParseOutput output = parse(lists);
    std::string found;
    for (const SourcedRule& rule : output.rules) {
      found += " " + rule.source.string() + "@" + rule.listName.string();
    }
    EXPECT_EQ(found, expected);
    EXPECT_TRUE(output.skippedCounts.empty());
  }
}

TEST(FilterCompiler, KeepsTheFirstSkippedLinesOfEachList) {
  std::string many;
  for (int i = 0; i < 6000; ++i) many += "ad" + std::to_string(i) + "$foo\n";
  const ParseOutput output = parse({many + "last$image", many, "ad$foo"});
  EXPECT_EQ(output.rules.size(), 1);
  ASSERT_EQ(output.skipped.size(), 2 * FilterCompiler::maxSkippedPerList + 1);
  EXPECT_EQ(output.skipped[4999].line, "ad4999$foo");
  EXPECT_EQ(output.skipped[5000].line, "ad0$foo");
  EXPECT_EQ(output.skipped[10000].listName, "2");
  std::vector<std::size_t> counts;
  for (const auto& [id, count] : output.skippedCounts) counts.push_back(count);
  EXPECT_EQ(counts, (std::vector<std::size_t>{6000, 6000, 1}));
}

// What `parse` must do, in the most obvious way.
ParseOutput parsePlainly(const std::vector<Strings>& lists) {
  ParseOutput output;
  std::set<std::string> seen;
  for (std::size_t list = 0; list < lists.size(); ++list) {
    Uuid id = listID;
    id.bytes[15] = static_cast<std::uint8_t>(list);
    const Text name = std::to_string(list);
    for (const std::string& line : lists[list]) {
      const LineResult result = FilterCompiler::parseLine(line, id, name);
      if (const auto* skipped = std::get_if<LineResult::Skipped>(&result.value)) {
        ++output.skippedCounts[id];
        output.skipped.push_back({{}, skipped->line, skipped->reason, id, name});
      } else if (const auto* rules = std::get_if<LineResult::Rules>(&result.value)) {
        for (const SourcedRule& rule : *rules) {
          const std::string kind(rawValue(rule.kind));
          if (!seen.insert(kind + "|" + FilterCompiler::describe(rule.rule)).second) continue;
          output.rules.push_back(rule);
        }
      }
    }
  }
  std::stable_sort(output.rules.begin(), output.rules.end(),
                   [](const auto& a, const auto& b) { return a.kind < b.kind; });
  return output;
}

TEST(FilterCompiler, AgreesWithOneLineAtATime) {
  const Strings tokens = {
      "ad",       "a",      "x.b",    "|",           "||",         "^",           "*",
      "/",        "$",      "@@",     "##",          "#",          "#@#",         "#?#",
      "~",        ",",      ".",      "=",           "!",          " ",           "\t",
      "\u3000",   "image",  "$image", "third-party", "$domain=",   ",match-case", "$document",
      "0.0.0.0 ", "\u00E9", "\xFF",   "\xE2\x80",    ":has-text(", "\u212A",      "\0"s};
  const Strings separators = {"\n", "\r\n", "\r", "\n\n", "\v", "\f", "\u0085", "\u2028", "\u2029"};
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Strings known, texts(3);
    std::vector<Strings> lists(texts.size());
    for (std::size_t i = 0; i < 1200; ++i) {
      std::string line = pick(random, tokens);
      for (std::size_t n = test::pickBelow(random, 5); n > 0; --n) line += pick(random, tokens);
      known.push_back(line);
      if (test::oneIn(random, 3)) line = pick(random, known);
      lists[i / 400].push_back(line);
      texts[i / 400] += line + pick(random, separators);
    }
    const ParseOutput output = parse(texts), expected = parsePlainly(lists);
    ASSERT_EQ(output.rules.size(), expected.rules.size());
    for (std::size_t i = 0; i < expected.rules.size(); ++i) {
      ASSERT_EQ(output.rules[i], expected.rules[i])
          << testing::PrintToString(expected.rules[i].source.string());
    }
    ASSERT_EQ(output.skipped, expected.skipped);
    ASSERT_EQ(output.skippedCounts, expected.skippedCounts);
  }
}

TEST(FilterCompiler, ConvertsPatterns) {
  const std::pair<std::string, std::string> cases[] = {
      // Anchors, separators and wildcards.
      {"||cdn.qqx/ads/*.js^", hostAnchor + "cdn\\.qqx/ads/.*\\.js" + separator},
      {"|cdn.qqx/x|", "^cdn\\.qqx/x$"},
      {"a|b||", "a\\|b\\|$"},
      {"|||a", hostAnchor + "\\|a"},
      {"||||", hostAnchor + "\\|$"},
      {"||^", hostAnchor + separator},
      {"*^*", ".*" + separator + ".*"},
      // Literals.
      {"ad(s)+?[]{}\\.$", "ad\\(s\\)\\+\\?\\[\\]\\{\\}\\\\\\.\\$"},
      {"A-b_c/d&e=f:g,h!i~j@k#l%m'n\"o<p>q`r;s t", "A-b_c/d&e=f:g,h!i~j@k#l%m'n\"o<p>q`r;s t"},
      {"a\0\x7F\x1F"s, "a\0\x7F\x1F"s},
  };
  for (const auto& [pattern, expected] : cases) {
    EXPECT_EQ(FilterCompiler::convertPattern(ExactCopy(pattern)).value_or("nothing"), expected);
  }
  // Empty, too broad, or not ASCII even after a good beginning.
  for (const std::string pattern : {"", "*", "***", "|", "||", "|||", "||*", "|*|", "||**|",
                                    "ad\u00E9", "\u212A", "||a\xFF|", "a*\x80"}) {
    EXPECT_EQ(FilterCompiler::convertPattern(ExactCopy(pattern)), std::nullopt) << pattern;
  }
}

TEST(FilterCompiler, DescribesRules) {
  const Maybe<TextList> empty(TextList{});
  const std::pair<WKRule, std::string> cases[] = {
      {{}, "|false||||||"},
      {{{"a|b", true, TextList{"image", "raw"}, TextList{"x"}, TextList{"*b", "*a"}, {}},
        {"t", {}}},
       "a|b|true|image,raw|x|*b,*a||t|"},
      {{{"u", {}, {}, {}, {}, TextList{"*c", ""}}, {"t", Text(".a|b")}}, "u|false||||*c,|t|.a|b"},
      // Absent, false and empty look alike.
      {{{"a", false, empty, empty, empty, empty}, {"t", Text()}}, "a|false|||||t|"},
  };
  for (const auto& [rule, text] : cases) EXPECT_EQ(FilterCompiler::describe(rule), text);
}

// Duplicates of every kind, within a list and between two, and more lines than a batch has.
TEST(FilterCompiler, MakesTheSameOfListsWhateverIsKept) {
  std::mt19937 random(7);
  const std::string_view lines[] = {"||N.example^",
                                    "@@||N.example^",
                                    "##.N",
                                    "N.example##.ad",
                                    "/N/*$image",
                                    "N.example#?#x",
                                    "0.0.0.0 N.example",
                                    "||N.example^$third-party",
                                    "||N.example^$domain=a.N|~b.N",
                                    "! N",
                                    "##.N\xFF\"\\",
                                    "##.N\xFE\"\\"};
  for (const unsigned different : {1U, 3U, 100U, 2000U}) {
    std::string texts[2];
    for (int i = 0; i < 3000; ++i) {
      std::string line(lines[random() % std::size(lines)]);
      const std::string number = std::to_string(random() % different);
      for (std::size_t at = 0; (at = line.find('N', at)) != std::string::npos;) {
        line.replace(at, 1, number);
      }
      texts[random() % 2] += line + "\n";
    }
    const Input inputs[] = {{Uuid::random(), "a", texts[0]}, {Uuid::random(), "b", texts[1]}};
    const ParseOutput all = parse(inputs);

    DocumentReport report;
    for (const DocumentForm form : {DocumentForm::plain, DocumentForm::hardened}) {
      std::string document;
      report = compileDocument(
          inputs, [&document](std::string_view piece) { document += piece; }, form);
      EXPECT_EQ(document, std::string_view(RuleDocument::encode(all.rules, form)));
    }
    EXPECT_EQ(report.ruleCount, all.rules.size());
    EXPECT_EQ(report.skipped.size(), all.skipped.size());
    std::map<Uuid, ListStats> stats;
    for (const SourcedRule& rule : all.rules) {
      ++countOf(stats[rule.listID], rule.kind);
    }
    for (const auto& [id, skipped] : all.skippedCounts) stats[id].skipped = skipped;
    EXPECT_EQ(report.stats, stats);

    for (std::size_t limit = 0; limit < all.rules.size() + 2; limit += 1 + all.rules.size() / 50) {
      const ParseOutput some = parse(inputs, limit);
      EXPECT_EQ(some.truncated, limit < all.rules.size());
      EXPECT_EQ(some.rules, SourcedRules(all.rules.begin(),
                                         all.rules.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                 limit, all.rules.size()))));
      EXPECT_EQ(some.skippedCounts, all.skippedCounts);
    }
  }
  std::string nothing;
  (void)compileDocument({}, [&nothing](std::string_view piece) { nothing += piece; });
  EXPECT_EQ(nothing, "[]");
}

TEST(FilterCompiler, HardensWhatAddressesCouldFake) {
  const std::string list =
      "||a.test^$domain=b-c.test|d.test\n@@||a.test^\n@@||a.test/x\n@@||*.a.test^\n/"
      "a^\n~e.test##.x";
  const Input input{listID, listName, list};
  const std::string document(
      RuleDocument::encode(parse({&input, 1}).rules, DocumentForm::hardened).view());
  for (const char* part : {
           R"("if-top-url":["^[^:]+://([^/]*[.@])?b-c\\.test\\.?(:[0-9]+)?/",)"
           R"("^[^:]+://([^/]*[.@])?d\\.test\\.?(:[0-9]+)?/"])",
           R"("unless-top-url":["^[^:]+://([^/]*[.@])?e\\.test\\.?(:[0-9]+)?/"])",
           R"("url-filter":"^[^:]+:(//)?([^/]+[.@])?a\\.test[^a-zA-Z0-9_.%-]")",
           R"("url-filter":"^[^:]+:(//)?([^/]+[.@])?a\\.test(:[0-9]+)?/")",
           R"("url-filter":"^[^:]+:(//)?([^/]+[.@])?a\\.test/x")",
           R"("url-filter":"^[^:]+:(//)?([^/]+[.@])?.*\\.a\\.test[^a-zA-Z0-9_.%-]")",
           R"("url-filter":"/a[^a-zA-Z0-9_.%-]")",
           R"({"action":{"type":"block"},"trigger":{"load-type":["third-party"],"url-filter":)"
           R"("^[^:]+://[^/?#]*@"}},)",
       }) {
    EXPECT_NE(document.find(part), std::string::npos) << part << "\n" << document;
  }
  EXPECT_EQ(document.find("-domain"), std::string::npos);
  EXPECT_EQ(RuleDocument::encode(SourcedRules(), DocumentForm::hardened).view(), "[]");
}

}  // namespace
}  // namespace tamsel
