#include <gtest/gtest.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "engine/Engine.h"
#include "tests/support/Rules.h"

namespace tamsel {
namespace {

// Meant for the thread sanitizer: whatever the engine prepares on first use is raced for.
TEST(EngineConcurrency, ThreadsGetTheAnswersOfOne) {
  SourcedRules rules = test::compile(
      "||ads.example^\n/banner/*/img^\n/[a-z]+\\d\\.gif$/\nkelvin$match-case\nstra\n"
      "trackers$domain=page.example\n@@||ads.example/ok/\n@@/(ok)+/$image\n");
  for (const char* filter :
       {"\\bword\\b", "(a+)\\1x", "(?<=pre)fix", "stra(\u00DF|x)e", "k[^a]k"}) {
    rules.push_back(test::handMade(RuleKind::block, {filter, {}, {}, {}, {}, {}}));
    rules.push_back(test::handMade(RuleKind::exception, {filter, true, {}, {}, {}, {}}));
  }
  const std::vector<std::string> urls = {"//ads.example/x",   "//ads.example/ok/x",
                                         "//x/banner/1/img/", "//x/pic7.gif",
                                         "//x/KELVIN",        "//x/\u212Aelvin",
                                         "//x/a word here",   "//x/aaaax",
                                         "//x/prefix",        "//x/STRA\u00DFE",
                                         "//x/none",          "//x/\u212A\u00E9\u212A",
                                         "//x/kkk\U0001F600", "//\u00E9.ads.example/\xFF",
                                         "//x/tracker\u017F"};
  const auto answer = [](const Engine& engine, const std::string& url) {
    return test::verdictText(engine.evaluate("http:" + url, "http://page.example/", "image"));
  };
  std::vector<std::string> expected;
  const Engine alone(rules);
  for (const std::string& url : urls) expected.push_back(answer(alone, url));

  constexpr std::size_t threads = 4;
  for (int round = 0; round < 10; ++round) {
    const Engine shared(rules);
    std::vector<std::vector<std::string>> answers(threads);
    std::barrier start(threads);
    {
      std::vector<std::jthread> workers;
      for (std::vector<std::string>& own : answers) {
        workers.emplace_back([&] {
          start.arrive_and_wait();
          for (const std::string& url : urls) own.push_back(answer(shared, url));
        });
      }
    }
    for (const std::vector<std::string>& own : answers) ASSERT_EQ(own, expected);
  }
}

}  // namespace
}  // namespace tamsel
