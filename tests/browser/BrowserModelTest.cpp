#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <regex>
#include <string>
#include <tuple>
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

// With the application, and these rules of the user's once it has settled.
struct AppSetting {
  explicit AppSetting(const std::string& rules = {}) {
    app.customRules = rules;
    app.rebuild();
  }
  void settle() {
    runUntil([this] { return !*app.isCompiling && !model.isEvaluating(); });
  }
  // The message is of the wrong shape if one of the two is missing.
  void report(std::optional<std::string> url, std::optional<std::string> type = "img") {
    struct Message : WebView::Message {
      std::optional<std::string> text(const char* key) const override { return entries.at(key); }
      std::map<std::string, std::optional<std::string>> entries;
    } message;
    message.entries = {{"url", std::move(url)}, {"type", std::move(type)}};
    view.delegate->didReceive(message);
  }

  const test::TemporaryFolder folder;
  test::FakeRuleListStore store;
  test::FakeHttpClient client;
  test::FakeSavePanel panel;
  AppState app{{folder.path(), store, client, panel,
                std::make_unique<BrowserModel>(std::make_unique<test::FakeWebView>())}};
  BrowserModel& model = static_cast<BrowserModel&>(app.browser());
  test::FakeWebView& view = static_cast<test::FakeWebView&>(*model.webView);
};

TEST(BrowserModel, WithholdsTheListOnPausedSites) {
  AppSetting setting;
  EXPECT_EQ(setting.model.app, &setting.app);
  setting.settle();
  EXPECT_THAT(setting.view.done, ElementsAre("show", "install", "reload"));
  setting.app.setPaused("www.example.org", true);
  setting.app.rebuild();
  setting.settle();
  EXPECT_THAT(setting.view.done, ElementsAre("show", "install", "reload", "remove", "reload"));
}

TEST(BrowserModel, GoesToAnAddressOrSearches) {
  const std::string search = "https://duckduckgo.com/?q=";
  std::map<std::string, std::string> urls = {
      {"a b.c", search + "a%20b.c"},
      {"Größe\u3000☃ 😀", search + "Gr%C3%B6%C3%9Fe%E3%80%80%E2%98%83%20%F0%9F%98%80"},
      {"x !$&'()*+,-./:;=?@_~azAZ09", search + "x%20!$&'()*+,-./:;=?@_~azAZ09"},
      {"\x01\t\n\"#%<>[\\]^`{|}\x7F\xFF",
       search + "%01%09%0A%22%23%25%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%7F%FF"}};
  for (const char* url :
       {"http://a.test", "HTTP://A.test:80/p?q=1#f", "https://[::1]/", "http://localhost",
        "https://bücher.test/ä b", "file:///etc/hosts", "x+y-z.1://q", "https://u:w@a.test/"})
    urls[url] = url;
  for (const std::string address : {"a.test", "127.0.0.1:8080", "a.test:80/p?q=1&r=a:b#f", "1.5",
                                    "user@a.test", "bücher.test", "a..b", "WWW.a.test."})
    urls[address] = "https://" + address;
  for (const std::string words : {"foo", "foo:8080", "localhost/p", "about:blank"})
    urls[words] = search + words;
  for (const char* neither : {"", "://", "://a.test", "1x://a.test", "to http://a.test",
                              "http://a.test:99999", "http://[::1", "javascript:a.b"})
    urls[neither] = "";

  Setting setting;
  for (const auto& [text, url] : urls) {
    for (const std::string blanks : {"", " ", "\t", "\n", "\r\n", "\v\f", "\u0085", "\u00A0",
                                     "\u2003", "\u2028", " \u3000\n "}) {
      const std::string typed = blanks + text + blanks;
      setting.model.go(typed);
      EXPECT_EQ(std::exchange(setting.view().address, ""), url) << testing::PrintToString(typed);
    }
  }
}

TEST(BrowserModel, ShowsWhatTheViewTells) {
  AppSetting setting("||ads.test^\n||blocked.test^");
  setting.settle();
  // The host, the address, the status and what was blocked.
  using Shown = std::tuple<std::string, std::string, std::string, std::vector<std::string>>;
  const auto shown = [&model = setting.model] {
    return Shown(model.currentHost, model.addressText, model.status, model.blockedURLs);
  };
  const std::string old = "https://old.test/", next = "https://next.test:80/p";
  const std::string blocked = "http://blocked.test/", ad = "http://ads.test/";
  using Row = std::tuple<std::optional<WebView::Failure>, std::string, Shown>;
  for (const auto& [failure, address, expected] : std::vector<Row>{
           {std::nullopt, next, {"next.test", next, "Old.", {ad}}},
           {std::nullopt, "", {"old.test", old, "Old.", {ad}}},
           {std::nullopt, "about:blank", {"old.test", "about:blank", "Old.", {ad}}},
           {std::nullopt, "file:///a.html", {"old.test", "file:///a.html", "Old.", {ad}}},
           {{{"No."}}, next, {"next.test", next, "No.", {ad}}},
           {{{"No.", blocked}}, old, {"old.test", old, "No.", {ad, blocked}}},
           {{{"No.", ad}}, old, {"old.test", old, "No.", {ad}}},
           {{{"No.", blocked, true}}, next, {"next.test", next, "Old.", {ad}}}}) {
    setting.view.address = old;
    setting.view.delegate->didStart();
    EXPECT_EQ(shown(), Shown("old.test", old, "", {}));
    setting.report(ad);
    setting.view.delegate->didFail({.message = "Old."});
    setting.settle();
    setting.view.address = address;
    failure ? setting.view.delegate->didFail(*failure) : setting.view.delegate->didChange();
    setting.settle();
    EXPECT_EQ(shown(), expected);
    EXPECT_EQ(*setting.model.blockedCount, setting.model.blockedURLs->size());
  }
}

TEST(BrowserModel, CountsEachBlockedURLOnce) {
  AppSetting setting("||ads.test^\n||pixel.test^$image");
  setting.report("http://ads.test/0");  // there are no rules yet
  setting.settle();
  setting.report("http://ads.test/wrong", std::nullopt);
  setting.report(std::nullopt);
  setting.report("data:image/png,http://ads.test/");
  setting.report("http://pixel.test/", "script");
  for (const char* url : {"http://ads.test/0", "http://ads.test/1", "http://ads.test/0"}) {
    setting.report(url);
  }
  setting.settle();
  EXPECT_THAT(*setting.model.blockedURLs, ElementsAre("http://ads.test/0", "http://ads.test/1"));

  // At the most that is kept there is the middle of a character.
  std::string kept = "http://ads.test/?q=", longest = kept;
  while (longest.size() < 1'000'000) longest += "ä";
  while (kept.size() < 4095) kept += "ä";
  setting.view.delegate->didStart();
  for (int i = 0; i < 2; ++i) setting.report(longest);
  setting.settle();
  EXPECT_EQ(*setting.model.blockedCount, 1);
  EXPECT_THAT(*setting.model.blockedURLs, ElementsAre(kept + "…"));
}

// What was asked about one page is no request of the next.
TEST(BrowserModel, DropsVerdictsOnThePageBefore) {
  AppSetting setting("||ads.test^");
  setting.settle();
  setting.report("http://ads.test/");
  setting.view.delegate->didStart();
  setting.settle();
  EXPECT_EQ(*setting.model.blockedCount, 0);
}

// With the starter list four of the page's five requests are blocked and three boxes are hidden.
TEST(DemoPage, RequestsWhatTheStarterListBlocks) {
  const std::string page = DemoPage::html();
  const ParseOutput parsed = FilterCompiler::parse(
      std::vector<FilterCompiler::Input>{{Starter::id, std::string(Starter::name), Starter::text}});
  const Engine engine(SourcedRules(parsed.rules));
  std::vector<std::string> allowed, blocked;
  const std::regex request("<(img|script) src=\"([^\"]*)");
  for (std::sregex_iterator found(page.begin(), page.end(), request), end; found != end; ++found) {
    const std::string type = (*found)[1] == "img" ? "image" : "script", url = (*found)[2];
    const Engine::Verdict verdict = engine.evaluate(url, "https://example.org/", type);
    (verdict.block && !verdict.exception ? blocked : allowed).push_back(url);
  }
  EXPECT_EQ(blocked.size(), 4);
  EXPECT_THAT(allowed, ElementsAre("https://ads.example.com/allowed/ok.png"));

  std::size_t hidden = 0;
  for (const SourcedRule& rule : parsed.rules) {
    if (!rule.rule.action.selector) continue;
    const std::string selector((*rule.rule.action.selector).view());
    bool isHere = !rule.rule.trigger.ifDomain || rule.source.view().starts_with("example.org");
    if (isHere && page.find("class=\"" + selector.substr(1) + "\"") != std::string::npos) ++hidden;
  }
  EXPECT_EQ(hidden, 3);
}

}  // namespace
}  // namespace tamsel
