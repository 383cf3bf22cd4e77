#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "browser/BrowserModel.h"
#include "browser/DemoPage.h"
#include "compiler/FilterCompiler.h"
#include "engine/Engine.h"
#include "state/StarterList.h"
#include "tests/support/AppFakes.h"
#include "tests/support/FakeWebView.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

using test::runUntil;
using testing::ElementsAre;

struct Setting {
  Setting() : model(std::make_unique<test::FakeWebView>()) {}
  test::FakeWebView& view() { return static_cast<test::FakeWebView&>(*model.webView); }
  std::vector<std::string> takeDone() { return std::exchange(view().done, {}); }

  BrowserModel model;
};

TEST(BrowserModel, FiltersFromNowOnAndShowsThePageAgain) {
  Setting setting;
  setting.model.setRuleList(std::make_shared<const RuleList>());
  EXPECT_THAT(setting.takeDone(), ElementsAre("install"));  // nothing is shown yet
  setting.model.loadDemo();
  EXPECT_EQ(*setting.model.currentHost, "example.org");
  EXPECT_EQ(*setting.model.addressText, "https://example.org/ (demo page)");
  EXPECT_EQ(setting.view().address, "https://example.org/");
  EXPECT_THAT(setting.takeDone(), ElementsAre("show"));
  setting.model.setRuleList(std::make_shared<const RuleList>());
  EXPECT_THAT(setting.takeDone(), ElementsAre("install", "reload"));
  setting.model.setRuleList(nullptr);
  EXPECT_THAT(setting.takeDone(), ElementsAre("remove", "reload"));
}

TEST(BrowserModel, WithholdsTheListOnPausedSites) {
  const test::TemporaryFolder folder;
  test::FakeRuleListStore store;
  test::FakeHttpClient client;
  test::FakeSavePanel panel;
  auto owned = std::make_unique<BrowserModel>(std::make_unique<test::FakeWebView>());
  BrowserModel& model = *owned;
  auto& view = static_cast<test::FakeWebView&>(*model.webView);
  AppState app({folder.path(), store, client, panel, std::move(owned)});
  EXPECT_EQ(model.app, &app);
  runUntil([&app] { return !*app.isCompiling; });
  EXPECT_THAT(view.done, ElementsAre("show", "install", "reload"));
  app.setPaused("www.example.org", true);
  app.rebuild();
  runUntil([&app] { return !*app.isCompiling; });
  EXPECT_THAT(view.done, ElementsAre("show", "install", "reload", "remove", "reload"));
}

// With the starter list four of the page's five requests are blocked and three boxes are hidden.
TEST(DemoPage, RequestsWhatTheStarterListBlocks) {
  const std::string page = DemoPage::html();
  const ParseOutput parsed = FilterCompiler::parse(
      std::vector<FilterCompiler::Input>{{Starter::id, std::string(Starter::name), Starter::text}});
  const Engine engine(SourcedRules(parsed.rules));
  std::vector<std::string> allowed;
  std::size_t requests = 0;
  for (const auto& [tag, type] :
       {std::pair{"<img src=\"", "image"}, {"<script src=\"", "script"}}) {
    for (std::size_t at = page.find(tag); at != std::string::npos; at = page.find(tag, at)) {
      at += std::string_view(tag).size();
      const std::string url = page.substr(at, page.find('"', at) - at);
      const Engine::Verdict verdict = engine.evaluate(url, "https://example.org/", type);
      if (!verdict.block || verdict.exception) allowed.push_back(url);
      ++requests;
    }
  }
  EXPECT_EQ(requests, 5);
  EXPECT_THAT(allowed, ElementsAre("https://ads.example.com/allowed/ok.png"));

  std::size_t hidden = 0;
  for (const SourcedRule& rule : parsed.rules) {
    if (!rule.rule.action.selector) continue;
    const std::string selector((*rule.rule.action.selector).view());
    const bool isHere =
        !rule.rule.trigger.ifDomain || rule.source.view().starts_with("example.org");
    if (isHere && page.find("class=\"" + selector.substr(1) + "\"") != std::string::npos) ++hidden;
  }
  EXPECT_EQ(hidden, 3);
}

}  // namespace
}  // namespace tamsel
