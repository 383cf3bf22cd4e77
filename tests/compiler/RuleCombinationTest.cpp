#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleCombination.h"
#include "tests/support/Rules.h"

namespace tamsel {
namespace {

using test::pick;

std::string joined(const Maybe<TextList>& list) {
  std::string text = list ? "+" : "-";
  if (list) {
    for (const std::string_view item : *list) text.append(item) += ',';
  }
  return text;
}

// What decides whether a rule applies to an address on a page.
std::string placeOf(const WKRule& rule) {
  return rule.trigger.urlFilter.string() + (rule.trigger.caseSensitive == true ? " C " : " i ") +
         joined(rule.trigger.ifDomain) + joined(rule.trigger.unlessDomain);
}

bool appliesTo(const WKRule& rule, std::string_view type, std::string_view party) {
  const auto holds = [](const Maybe<TextList>& list, std::string_view item) {
    return !list || std::find(list->begin(), list->end(), item) != list->end();
  };
  return holds(rule.trigger.resourceType, type) && holds(rule.trigger.loadType, party);
}

// For each type and party the places that a document blocks, up to its exceptions, and what
// follows.
struct Effects {
  std::map<std::pair<std::string_view, std::string_view>, std::set<std::string>> blocked;
  std::vector<WKRule> rest;

  bool operator==(const Effects&) const = default;

  void add(const WKRule& rule) {
    const bool isStep = rule.trigger.urlFilter == ".*" && rule.action.type != "css-display-none" &&
                        rule.trigger.resourceType;
    if (rule.action.type != "block" && !isStep) return rest.push_back(rule);
    for (const std::string_view type : resourceTypeNames) {
      for (const std::string_view party : {"first-party", "third-party"}) {
        if (!appliesTo(rule, type, party)) continue;
        if (isStep) {
          blocked.erase({type, party});
        } else {
          blocked[{type, party}].insert(placeOf(rule));
        }
      }
    }
  }
};

// Several documents block what one of them blocks; each has all exceptions.
void expectSameSplit(const Effects& whole, const RuleCombination& combined, std::size_t limit) {
  const auto documents = combined.split(limit);
  if (!documents) return;
  Effects together;
  std::vector<WKRule> exceptions, hiding;
  for (const RuleCombination::Document& document : *documents) {
    Effects one;
    std::size_t count = 0;
    for (const auto& [first, last] : document) {
      for (std::size_t i = first; i < last; ++i, ++count) one.add(combined.rules[i]);
    }
    EXPECT_LE(count, limit);
    for (const auto& [cell, places] : one.blocked)
      together.blocked[cell].insert(places.begin(), places.end());
    const auto middle = std::find_if(one.rest.begin(), one.rest.end(), [](const WKRule& rule) {
      return rule.action.type == "css-display-none";
    });
    if (!one.blocked.empty()) exceptions.assign(one.rest.begin(), middle);
    hiding.insert(hiding.end(), middle, one.rest.end());
    const auto isAfter = whole.rest.begin() + (middle - one.rest.begin());
    EXPECT_TRUE(one.blocked.empty() ||
                std::equal(one.rest.begin(), middle, whole.rest.begin(), isAfter));
  }
  // Exceptions without a block have nothing to do.
  const auto firstHiding =
      std::find_if(whole.rest.begin(), whole.rest.end(),
                   [](const WKRule& rule) { return rule.action.type == "css-display-none"; });
  if (whole.blocked.empty()) exceptions.assign(whole.rest.begin(), firstHiding);
  together.rest = exceptions;
  together.rest.insert(together.rest.end(), hiding.begin(), hiding.end());
  EXPECT_TRUE(together == whole) << limit;
}

void expectSame(const SourcedRules& rules, const RuleCombination& combined) {
  Effects plain, made;
  std::vector<int> timesNamed(rules.size());
  for (const SourcedRule& rule : rules) plain.add(rule.rule);
  for (std::size_t i = 0; i < combined.rules.size(); ++i) {
    made.add(combined.rules[i]);
    for (const std::uint32_t source : combined.sourcesOf(i)) {
      ++timesNamed.at(source);
      EXPECT_EQ(placeOf(rules[source].rule), placeOf(combined.rules[i]));
    }
  }
  EXPECT_TRUE(plain == made);
  for (const std::size_t limit :
       {combined.rules.size(), combined.rules.size() / 2 + 1, std::size_t{9}}) {
    if (limit > 100 || combined.rules.size() < 100) expectSameSplit(plain, combined, limit);
  }
  EXPECT_TRUE(
      std::all_of(timesNamed.begin(), timesNamed.end(), [](int times) { return times > 0; }));
  EXPECT_LE(combined.rules.size(), rules.size() + 1);
}

SourcedRules compile(const std::string& text) {
  const FilterCompiler::Input input{Uuid::random(), "list", text};
  return FilterCompiler::parse({&input, 1}).rules;
}

TEST(RuleCombination, IsOneRuleForMostFilters) {
  const SourcedRules rules = compile(
      "||a.test^\n||b.test^$third-party\n||c.test^$script\n||c.test^$image,media\n||d.test^$"
      "document\n"
      "||e.test^$~third-party\n||f.test^\n||f.test^$document\n@@||a.test/ok\n##.x\n");
  const RuleCombination combined = RuleCombination::of(rules);
  expectSame(rules, combined);
  // With the step, and three that are no blocks.
  std::map<std::string, int> counts;
  for (const WKRule& rule : combined.rules) ++counts[rule.trigger.urlFilter.string()];
  const auto filterOf = [](const std::string& host) {
    return FilterCompiler::convertPattern("||" + host + ".test^").value();
  };
  for (const char* host : {"a", "b", "c", "d", "e", "f"})
    EXPECT_EQ(counts[filterOf(host)], 1) << host;
  EXPECT_EQ(combined.rules.size(), 6 + 1 + 3);
}

TEST(RuleCombination, DoesTheSameForRandomLists) {
  std::mt19937 random(3);
  const std::vector<std::string> options = {
      "script",        "image",          "document",     "subdocument", "popup",
      "~image",        "third-party",    "~third-party", "xhr",         "media",
      "domain=a.test", "domain=~b.test", "match-case",   "font"};
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (std::size_t lines = 1 + random() % 12; lines > 0; --lines) {
      text += random() % 8 == 0 ? "@@" : "";
      text += "||" + std::string(1, static_cast<char>('a' + random() % 3)) + ".test^";
      std::string separator = "$";
      for (std::size_t count = random() % 4; count > 0; --count) {
        text += separator + pick(random, options);
        separator = ",";
      }
      text += '\n';
    }
    const SourcedRules rules = compile(text + "##.x\na.test##.y\n");
    expectSame(rules, RuleCombination::of(rules));
    ASSERT_FALSE(HasFailure()) << text;
  }
}

// TAMSEL_LISTS names them, with ":" between.
TEST(RuleCombination, DoesTheSameForRealLists) {
  const char* lists = std::getenv("TAMSEL_LISTS");
  if (lists == nullptr) GTEST_SKIP() << "TAMSEL_LISTS names no lists.";
  std::string text;
  std::istringstream paths(lists);
  for (std::string path; std::getline(paths, path, ':');) {
    std::ifstream list(path, std::ios::binary);
    text.append(std::istreambuf_iterator<char>(list), std::istreambuf_iterator<char>()) += "\n";
  }
  const SourcedRules rules = compile(text);
  const RuleCombination combined = RuleCombination::of(rules);
  expectSame(rules, combined);
  RecordProperty("rules", static_cast<int>(combined.rules.size()));
  std::printf("%zu rules, combined %zu\n", rules.size(), combined.rules.size());
}

}  // namespace
}  // namespace tamsel
