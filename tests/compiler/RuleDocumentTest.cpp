#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "compiler/RuleDocument.h"
#include "tests/support/ExactCopy.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using test::ExactCopy;
using testing::AnyOf;
using testing::HasSubstr;

std::string encode(const std::vector<WKRule>& rules) {
  return std::string(RuleDocument::encode(std::span<const WKRule>(rules)).view());
}

std::vector<WKRule> decode(const std::string& document) {
  return RuleDocument::decode(ExactCopy(document));
}

WKRule blockOf(std::string_view urlFilter) {
  return {{urlFilter, {}, {}, {}, {}, {}}, {"block", {}}};
}

TEST(RuleDocument, WritesExactBytesAndReadsThemBack) {
  const Maybe<TextList> empty(TextList{});
  const WKRule full{{"u", true, TextList{"r"}, TextList{"l"}, TextList{"*b", "*a"}, TextList{"*c"}},
                    {"t", Text("s")}};
  const WKRule hollow{{"u", false, empty, empty, empty, empty}, {"t", Text()}};
  const std::pair<std::vector<WKRule>, std::string> cases[] = {
      {{}, "[]"},
      {{blockOf("/a/"), blockOf("")},
       R"([{"action":{"type":"block"},"trigger":{"url-filter":"/a/"}},)"
       R"({"action":{"type":"block"},"trigger":{"url-filter":""}}])"},
      {{full},
       R"([{"action":{"selector":"s","type":"t"},"trigger":{"if-domain":["*b","*a"],)"
       R"("load-type":["l"],"resource-type":["r"],"unless-domain":["*c"],"url-filter":"u",)"
       R"("url-filter-is-case-sensitive":true}}])"},
      // Only what is absent is left out: false and empty are written.
      {{hollow},
       R"([{"action":{"selector":"","type":"t"},"trigger":{"if-domain":[],"load-type":[],)"
       R"("resource-type":[],"unless-domain":[],"url-filter":"u",)"
       R"("url-filter-is-case-sensitive":false}}])"},
  };
  for (const auto& [rules, document] : cases) {
    EXPECT_EQ(encode(rules), document);
    EXPECT_EQ(decode(document), rules) << document;
    std::vector<SourcedRule> sourced;
    for (const WKRule& rule : rules) {
      sourced.push_back({rule, RuleKind::exception, "source", Uuid{}, "list"});
    }
    EXPECT_EQ(RuleDocument::encode(std::span<const SourcedRule>(sourced)).view(), document);
  }
}

TEST(RuleDocument, EscapesWhatJsonRequiresAndNoMore) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\"\\", R"(\"\\)"},
      {"\b\t\n\f\r", R"(\b\t\n\f\r)"},
      {"\0\x01\v\x1F"s, R"(\u0000\u0001\u000b\u001f)"},
      {"/ \x7F\u0080\u00E9\u2028\uFFFF\U0001F600", "/ \x7F\u0080\u00E9\u2028\uFFFF\U0001F600"},
  };
  for (const auto& [raw, escaped] : cases) {
    for (std::size_t before = 0; before < 40; ++before) {
      const std::string head(before, 'a'), tail(40 - before, 'b');
      const std::string text = head + raw + tail, json = '"' + head + escaped + tail + '"';
      const std::vector<WKRule> rules = {
          {{text, {}, {}, {}, TextList{text, "x"}, {}}, {"t", Text(text)}}};
      const std::string document = R"([{"action":{"selector":)" + json +
                                   R"(,"type":"t"},"trigger":{"if-domain":[)" + json +
                                   R"(,"x"],"url-filter":)" + json + "}}]";
      SCOPED_TRACE(document);
      ASSERT_EQ(encode(rules), document);
      ASSERT_EQ(decode(document), rules);
    }
  }
}

TEST(RuleDocument, IsValidUtf8WhateverTheRulesHold) {
  for (const std::string bad : {"\x80", "\xFF", "\xC3", "\xC0\xAF", "\xE0\x80\x80", "\xE2\x82",
                                "\xED\xA0\x80", "\xF0\x9F\x98", "\xF4\x90\x80\x80", "\xC3\xC3"}) {
    for (std::size_t before = 0; before < 40; ++before) {
      const std::string head(before, 'a'), tail(before % 2, '"');
      SCOPED_TRACE(testing::PrintToString(head + bad + tail));
      // What is not UTF-8 would not be read.
      const std::vector<WKRule> rules =
          decode(encode({blockOf(head + bad + tail), blockOf("after")}));
      const std::string_view read = rules.at(0).trigger.urlFilter;
      EXPECT_TRUE(read.starts_with(head) && read.ends_with(tail)) << read;
      EXPECT_EQ(rules.at(1), blockOf("after"));
    }
  }
}

TEST(RuleDocument, ReadsAnyOrderSpacingAndRepetition) {
  const WKRule script{{"a", {}, TextList{"script"}, {}, {}, {}}, {"block", {}}};
  const std::pair<std::string, std::vector<WKRule>> cases[] = {
      {" [ ]\n", {}},
      {"[{\"trigger\" : {\n\"url-filter\"\t: \"a\" , \"resource-type\":[ \"script\" ]},\r\n"
       "\"action\" : { \"type\":\"block\" } }]",
       {script}},
      // Unknown members, whatever they hold.
      {R"([{"x":[{"trigger":1}],"action":{"type":"block","y":null},)"
       R"("trigger":{"url-filter":"a","resource-type":["script"],"z":{"url-filter":2}}}])",
       {script}},
      // Of a repeated member the last one counts, and all of it.
      {R"([{"action":{"type":"x","type":"block"},"trigger":{"url-filter":"b","url-filter":"a"}}])",
       {blockOf("a")}},
      {R"([{"action":{"selector":"s","type":"x"},"action":{"type":"block"},)"
       R"("trigger":{"load-type":["x"],"url-filter":"b"},"trigger":{"url-filter":"a"}}])",
       {blockOf("a")}},
      // Escapes, in values and in names.
      {R"([{"action":{"type":"\u0062lock"},"trigger":{"url\u002dfilter":"\ud83d\ude00\/\u0000"}}])",
       {blockOf("\U0001F600/\0"s)}},
  };
  for (const auto& [document, rules] : cases) {
    SCOPED_TRACE(document);
    EXPECT_EQ(decode(document), rules);
  }
}

TEST(RuleDocument, RejectsWhatIsNoDocument) {
  const std::string good = R"({"action":{"type":"block"},"trigger":{"url-filter":"a"}})";
  std::vector<std::string> cases = {
      // No array.
      "", " ", "{}", "null", "7", "\"x\"", good, "]", "[nul]", "[" + good + ",]", "[" + good + "}",
      // Something around it.
      "[] x", "[][]", "[],", "[]]", "x[]", "\xEF\xBB\xBF[]", "[]\0"s,
      // Text that is not UTF-8, and hostile nesting.
      "[\"\xFF\"]", "[" + good + ",{\"\xED\xA0\x80\":1}]", std::string(100000, '['),
      "[{\"x\":" + std::string(100000, '['), std::string(100000, '[') + std::string(100000, ']')};
  for (const char* filter : {R"(\ud800)", R"(\udc00\ud800)", R"(\q)", "a\nb"}) {
    cases.push_back(R"([{"action":{"type":"block"},"trigger":{"url-filter":")"s + filter + "\"}}]");
  }
  for (std::size_t size = 0; size <= good.size(); ++size)
    cases.push_back("[" + good.substr(0, size));
  for (const std::string& document : cases) {
    SCOPED_TRACE(testing::PrintToString(document.substr(0, 200)));
    EXPECT_THROW(decode(document), RuleDocument::DecodeError);
  }
  // In a member that is ignored, balanced nesting may be accepted or refused.
  try {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(decode("[{\"x\":" + deep + "," + good.substr(1) + "]").size(), 1);
  } catch (const RuleDocument::DecodeError&) {
  }
}

TEST(RuleDocument, NamesTheRuleThatItRejects) {
  const std::string action = R"("action":{"type":"t"},)",
                    trigger = R"("trigger":{"url-filter":"a"})";
  const std::string open = "{" + action + R"("trigger":{"url-filter":"a",)";
  std::string before = "[";
  for (int i = 0; i < 77; ++i) before += "{" + action + trigger + "},";
  ASSERT_EQ(decode(before + "{" + action + trigger + "}]").size(), 78);
  // Members that are missing, then members of another type.
  for (const std::string& rule : std::vector<std::string>{
           "{}", "{" + trigger + "}", "{" + action + "\"x\":1}", R"({"action":{},)" + trigger + "}",
           "{" + action + R"("trigger":{}})", "null", "[]", R"({"action":"t",)" + trigger + "}",
           R"({"action":{"type":1},)" + trigger + "}", "{" + action + R"("trigger":["a"]})",
           R"({"action":{"type":"t","selector":1},)" + trigger + "}",
           "{" + action + R"("trigger":{"url-filter":null}})",
           open + R"("resource-type":"image"}})", open + R"("load-type":[1]}})",
           open + R"("if-domain":[["a"]]}})", open + R"("unless-domain":{}}})",
           open + R"("url-filter-is-case-sensitive":"true"}})"}) {
    try {
      decode(before + rule + "]");
      ADD_FAILURE() << "accepted " << rule;
    } catch (const RuleDocument::DecodeError& error) {
      EXPECT_THAT(error.what(), AnyOf(HasSubstr("77"), HasSubstr("78"))) << rule;
    }
  }
}

}  // namespace
}  // namespace tamsel
