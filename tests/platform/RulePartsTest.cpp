#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "platform/rulestore/RuleParts.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/WebKitRules.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using test::document;
using test::ExactCopy;
using test::hide;
using test::rule;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> numberedOf(const std::string& type, std::size_t count) {
  std::vector<std::string> rules;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    rules.push_back(type == "hide" ? hide(".a" + number) : rule(type, type + number));
  }
  return rules;
}

std::string joined(const std::vector<std::string_view>& pieces) {
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  return text;
}

std::vector<std::string> documents(const std::string& whole) {
  const RuleParts rules(whole);
  std::vector<std::string> texts;
  for (const RuleParts::Part& part : rules.parts()) texts.push_back(joined(rules.document(part)));
  return texts;
}

TEST(RuleParts, TakesRulesAsTheyStand) {
  const ExactCopy text(
      " [ { \"a\" : [1,{}] } ,\t{\"trigger\":{\"url-filter\":\"\\u0061,]\"}}\n,1 , \"x,\" ] \n");
  const RuleParts rules(text);
  ASSERT_EQ(rules.count(), 4);
  EXPECT_EQ(rules.rule(0), R"({ "a" : [1,{}] })");
  EXPECT_EQ(rules.rule(1), R"({"trigger":{"url-filter":"\u0061,]"}})");
  EXPECT_EQ(rules.rule(2), "1");
  EXPECT_EQ(rules.rule(3), "\"x,\"");
  EXPECT_EQ(rules.find("a,]", {0, 4}), 1);
  EXPECT_EQ(rules.find("a,]", {2, 4}), std::nullopt);
  EXPECT_THAT(rules.refused(), IsEmpty());
  EXPECT_EQ(joined(rules.document({{0, 1}, {2, 2}, {2, 4}})), "[{ \"a\" : [1,{}] },1 , \"x,\"]");
  EXPECT_EQ(RuleParts("[]").count(), 0);
}

TEST(RuleParts, RefusesWhatIsNoArrayOfJson) {
  for (const std::string& text :
       {""s, " "s, "{}"s, "1"s, "[1,]"s, "[1 2]"s, "[1]]"s, "[1] x"s, "[{]"s, "[\"a]"s,
        "[\"\xff\"]"s, "[{\"trigger\":{1}}]"s, "[{\"trigger\" {}}]"s, std::string(100000, '[')}) {
    EXPECT_THROW(RuleParts{ExactCopy(text)}, RuleParts::Malformed) << text.substr(0, 40);
  }
}

TEST(RuleParts, FindsWhatWebKitWouldNotSurvive) {
  const std::string good = rule("block", "good");
  const std::vector<std::string> faulty = {
      rule("block", R"([a-\\xff])"),
      rule("block", "a", R"(,"if-domain":["*ok.example","Ads.example"])"),
      rule("block", "a", R"(,"unless-domain":["a|b"])"),
      rule("block", "a", R"(,"if-top-url":["^https?://a.example/","a|b"])"),
      rule("block", "a", R"(,"unless-frame-url":["[a-\\xff]"])"), hide("[a=\\\""),
      // Of repeated members the last counts.
      R"({"trigger":{"url-filter":"good","url-filter":"a|b"}})",
      R"({"action":{"type":"block"},"trigger":{"url-filter":"good"},"trigger":{"url-filter":""}})"};
  std::vector<std::string> rules = {rule("block", "a"),
                                    R"({"trigger":{"url-filter":"a|b","url-filter":"good"}})",
                                    R"({"trigger":{"url-filter":"a|b"},"trigger":1})"};
  std::vector<std::size_t> expected;
  for (const std::string& each : faulty) {
    rules.push_back(good);
    expected.push_back(rules.size());
    rules.push_back(each);
  }
  std::vector<std::size_t> refused;
  const std::string text = document(rules);
  const RuleParts read(text);
  for (const RefusedRule& each : read.refused()) {
    EXPECT_NE(each.reason, "");
    refused.push_back(each.index);
  }
  EXPECT_EQ(refused, expected);
}

TEST(RuleParts, DividesWithoutChangingWhatRulesDo) {
  const std::vector<std::string> blocks = numberedOf("block", 70000);
  const std::vector<std::string> exceptions = numberedOf("ignore-previous-rules", 300);
  const std::vector<std::string> hiding = numberedOf("hide", 40000);
  std::vector<std::string> all = blocks;
  all.insert(all.end(), exceptions.begin(), exceptions.end());
  all.insert(all.end(), hiding.begin(), hiding.end());
  all.push_back(blocks.front());  // one that no exception reaches
  const std::string whole = document(all);
  const RuleParts rules(whole);

  std::size_t nextBlock = 0, nextHiding = 70300;
  for (const RuleParts::Part& part : rules.parts()) {
    const RuleParts::Range& first = part.front();
    EXPECT_LE(first.last - first.first, 40000);
    if (first.first < 70000) {
      EXPECT_EQ(first.first, std::exchange(nextBlock, first.last));
      ASSERT_EQ(part.size(), 2);  // every exception behind them
      EXPECT_EQ(part[1].first, 70000);
      EXPECT_EQ(part[1].last, 70300);
    } else {
      EXPECT_EQ(first.first, std::exchange(nextHiding, first.last));
      const bool isLast = &part == &rules.parts().back();
      EXPECT_EQ(part.size(), isLast ? 2 : 1);
    }
  }
  EXPECT_EQ(rules.parts().back().back().first, 110300);
  EXPECT_EQ(nextBlock, 70000);
  EXPECT_EQ(nextHiding, 110300);
  EXPECT_GE(rules.parts().size(), 4);

  // What is in another order than that of blocks, exceptions and hiding stays together.
  all.insert(all.begin() + 10, exceptions.front());
  const std::vector<std::string> divided = documents(document(all));
  EXPECT_EQ(RuleParts(divided.front()).count(), 70301);
  EXPECT_THAT(documents(document({})), ElementsAre("[]"));
  EXPECT_THAT(documents(document(numberedOf("hide", 100))),
              ElementsAre(document(numberedOf("hide", 100))));
  EXPECT_EQ(
      RuleParts(documents(document(numberedOf("ignore-previous-rules", 30000))).front()).count(),
      30000);
}

TEST(RuleParts, NeverHasMoreRulesWithConditionsThanWebKitBears) {
  const std::string condition = R"(,"if-domain":["a.example"])";
  for (const std::size_t exceptions : {0U, 20000U, 45000U, 64000U, 66000U}) {
    std::vector<std::string> rules(70000, rule("block", "a", condition));
    rules.insert(rules.end(), exceptions, rule("ignore-previous-rules", "a", condition));
    const std::string text = document(rules);
    const RuleParts read(text);
    const bool divisible = exceptions < 60000;
    EXPECT_EQ(read.refused().size(), divisible ? 0 : 70000 + exceptions - 65000) << exceptions;
    EXPECT_EQ(read.parts().size() > 1, divisible) << exceptions;
    for (const RuleParts::Part& part : read.parts()) {
      std::size_t count = 0;
      for (const RuleParts::Range& range : part) count += range.last - range.first;
      EXPECT_TRUE(count <= 65000 || !divisible) << exceptions;
    }
  }
}

TEST(RuleParts, LeavesMostPartsAsTheyWereWhenOneRuleChanges) {
  std::vector<std::string> rules = numberedOf("block", 140000);
  const std::vector<std::string> before = documents(document(rules));
  const std::set<std::string> known(before.begin(), before.end());
  const auto isNew = [&known](const std::string& part) { return !known.contains(part); };
  ASSERT_GE(before.size(), 5);

  rules.insert(rules.begin(), rule("block", "new"));
  const std::vector<std::string> inserted = documents(document(rules));
  EXPECT_LE(std::count_if(inserted.begin(), inserted.end(), isNew), 3);
  rules.erase(rules.begin());
  rules.push_back(rule("block", "new"));
  const std::vector<std::string> appended = documents(document(rules));
  EXPECT_LE(std::count_if(appended.begin(), appended.end(), isNew), 1);
}

}  // namespace
}  // namespace tamsel
