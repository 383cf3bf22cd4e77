#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "platform/files/Files.h"
#include "platform/mainloop/Awaiting.h"
#include "state/AppState.h"
#include "state/Persisted.h"
#include "state/StarterList.h"
#include "tests/support/AppFakes.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
using Sites = std::set<std::string>;
using test::finish;
using test::runUntil;
using test::runWhatIsPending;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Answers only when the test says so.
class HeldHttpClient : public HttpClient {
 public:
  Task<Response> get(std::string url) override {
    const std::function<void(Answer)> ask = [this, url](Answer answer) {
      held.emplace_back(url, std::move(answer));
    };
    auto answering = answerOf<Response>(ask);
    co_return co_await answering;
  }

  using Answer = std::function<void(Response)>;
  std::vector<std::pair<std::string, Answer>> held;
};

class AppStateListsTest : public testing::Test {
 protected:
  void launch(HttpClient* client = nullptr) {
    app.reset();
    auto owned = std::make_unique<test::FakeBrowser>();
    browser = owned.get();
    HttpClient& used = client == nullptr ? http : *client;
    app = std::make_unique<AppState>(
        AppState::Platform{supportDir, store, used, panel, std::move(owned)});
    settle();
  }

  // A start with this state on disk.
  void launchWith(const Persisted& persisted, HttpClient* client = nullptr) {
    write(persisted.encode());
    launch(client);
  }

  void settle() {
    runUntil([this] { return !app->isCompiling && !app->isRefreshing; });
  }

  void write(const std::string& bytes) const {
    fs::create_directories(supportDir);
    Files::replace(stateFile, bytes);
  }

  Persisted saved() const { return Persisted::decode(Files::read(stateFile)).value(); }

  // Whether the operation writes the state, and whether it starts a rebuild.
  template <typename Operation>
  std::string effectOf(Operation operation) {
    fs::remove(stateFile);
    operation();
    std::string effect = fs::exists(stateFile) ? "saved" : "";
    if (!effect.empty()) {
      EXPECT_EQ(saved().lists, *app->lists);
    }
    if (app->isCompiling) effect += " rebuilt";
    settle();
    return effect;
  }

  // What adding from the address returns.
  std::string add(const std::string& name, const std::string& address) {
    const std::string message = finish(app->addListFromAddress(name, address)).value_or("added");
    settle();
    return message;
  }

  Names names() const {
    Names result;
    for (const FilterList& list : *app->lists) result.push_back(list.name);
    return result;
  }

  const FilterList& last() const { return app->lists->back(); }

  // Since before: within the last minute.
  static bool isNow(const std::optional<Date>& date) {
    return date && std::abs(date->seconds - Date::now().seconds) < 60;
  }

  const test::TemporaryFolder folder;
  const std::string supportDir = folder.path() + "/data/Tamsel";
  const std::string stateFile = supportDir + "/state.json";
  test::FakeRuleListStore store;
  test::FakeHttpClient http;
  test::FakeSavePanel panel;
  test::FakeBrowser* browser = nullptr;
  std::unique_ptr<AppState> app;
};

FilterList pasted(std::string name, std::string text = "") {
  return {.name = std::move(name), .text = std::move(text)};
}
FilterList downloaded(std::string name, std::string url) {
  return {.name = std::move(name), .url = std::move(url), .text = "old", .updated = Date{1}};
}

TEST_F(AppStateListsTest, StartsWithTheStarterListAndWritesNothing) {
  launch();
  const FilterList starter{
      .id = Starter::id, .name = "Tamsel Starter List", .text = Starter::text, .isBuiltIn = true};
  EXPECT_THAT(*app->lists, ElementsAre(starter));
  EXPECT_EQ(*app->customRules, "");
  EXPECT_THAT(*app->pausedSites, IsEmpty());
  EXPECT_TRUE(fs::is_directory(supportDir));
  EXPECT_TRUE(fs::is_empty(supportDir));
  EXPECT_EQ(browser->app, app.get());
  EXPECT_EQ(browser->demos, 1);
  EXPECT_EQ(browser->ruleLists.size(), 1);
}

TEST_F(AppStateListsTest, IsLoadedAndCompilingWhenTheBrowserShowsTheDemoPage) {
  struct WatchingBrowser : test::FakeBrowser {
    explicit WatchingBrowser(std::vector<std::string>& log) : events(log) {}
    void setApp(AppState* newApp) override {
      app = newApp;
      events.emplace_back(newApp == nullptr ? "none" : "app");
    }
    void loadDemo() override {
      events.push_back(std::to_string(app->lists->size()) + (app->isCompiling ? " compiling" : ""));
    }
    std::vector<std::string>& events;
  };
  std::vector<std::string> events;
  write(Persisted{{pasted("a")}, "", {}}.encode());
  app = std::make_unique<AppState>(AppState::Platform{supportDir, store, http, panel,
                                                      std::make_unique<WatchingBrowser>(events)});
  app.reset();  // in the middle of its first rebuild
  EXPECT_THAT(events, ElementsAre("app", "2 compiling", "none"));
}

TEST_F(AppStateListsTest, LoadsWhatWasSaved) {
  FilterList full = downloaded("a", "https://a.example/");
  full.lastError = "HTTP 500";
  full.enabled = false;
  launchWith({{full, pasted("b", "||b.example^")},
              "||c.example^",
              {"z.example", "a.example", "z.example"}});
  EXPECT_EQ(names(), (Names{"Tamsel Starter List", "a", "b"}));
  EXPECT_EQ((*app->lists)[1], full);
  EXPECT_EQ(*app->customRules, "||c.example^");
  EXPECT_EQ(*app->pausedSites, (Sites{"a.example", "z.example"}));
  EXPECT_THAT(store.documents.back(),
              testing::AllOf(HasSubstr("b\\\\.example"), HasSubstr("c\\\\.example")));
  app->save();
  EXPECT_EQ(saved(), (Persisted{*app->lists, "||c.example^", {"a.example", "z.example"}}));
}

TEST_F(AppStateListsTest, KeepsTheStarterListAsItWasStored) {
  const FilterList stored{.id = Starter::id, .name = "Mine", .text = "||x^", .enabled = false};
  launchWith({{pasted("a"), pasted("b"), stored, pasted("c")}, "", {}});
  EXPECT_EQ(names(), (Names{"a", "b", "Mine", "c"}));
  EXPECT_EQ((*app->lists)[2], stored);
}

TEST_F(AppStateListsTest, StartsAnewWithADamagedFileAndSaysSo) {
  const std::string whole = Persisted{{pasted("a")}, "custom", {"a.example"}}.encode();
  write(whole.substr(0, whole.size() - 1));
  launch();
  EXPECT_EQ(names(), Names{"Tamsel Starter List"});
  EXPECT_EQ(*app->customRules, "");
  EXPECT_THAT(*app->pausedSites, IsEmpty());
  EXPECT_THAT(*app->notice, testing::StartsWith("The saved lists and rules cannot be read."));
  app->setPaused("b.example", true);
  EXPECT_EQ(saved(), (Persisted{*app->lists, "", {"b.example"}}));
}

TEST_F(AppStateListsTest, WorksWithoutAFolderAndSavesAllOfItOnceItCan) {
  const std::string inTheWay = folder.path() + "/data";
  std::ofstream(inTheWay) << "in the way";
  launch();
  app->addList("a", "");
  app->setPaused("a.example", true);
  settle();
  EXPECT_EQ(names(), (Names{"Tamsel Starter List", "a"}));
  EXPECT_EQ(Files::read(inTheWay), "in the way");
  EXPECT_THAT(*app->notice, testing::StartsWith("Your changes are not saved."));
  fs::remove(inTheWay);
  app->toggle(last().id);
  settle();
  EXPECT_EQ(*app->notice, "");
  EXPECT_EQ(saved(), (Persisted{*app->lists, "", {"a.example"}}));
}

TEST(AppStateTitle, IsTheFirstInTheHeader) {
  const auto lines = [](int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "\n\r\n||x^\r\n";
    return text;
  };
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"", std::nullopt},
      {"! Title: Demo", "Demo"},
      {"\n\n[Adblock]\n! Title: Demo\n! Title: Other", "Demo"},
      {"! TITLE:\t\u00A0 DeMo ä \u3000\t\n", "DeMo ä"},
      {"! title:Demo", "Demo"},
      {"! Title: \t\n! Title:\n! Title: Demo", "Demo"},
      {"! Title: a: b! Title: c", "a: b! Title: c"},
      {"!Title: Demo", std::nullopt},
      {" ! Title: Demo", std::nullopt},
      {"!  Title: Demo", std::nullopt},
      {"! Title : Demo", std::nullopt},
      {"! Title", std::nullopt},
      {"# Title: Demo", std::nullopt},
      {"||x^ ! Title: Demo", std::nullopt},
      {lines(19) + "! Title: Demo", "Demo"},
      {lines(20) + "! Title: Demo", std::nullopt},
      // A line of blanks is a line.
      {lines(19) + " \n! Title: Demo", std::nullopt},
      // So is a title without one.
      {lines(19) + "! Title:\n! Title: Demo", std::nullopt},
      // No line breaks, though parts of them.
      {"! Title: a\u200B\u2027\u00C5\x1C\xE2\x80\xC2.", "a\u200B\u2027\u00C5\x1C\xE2\x80\xC2."},
  };
  for (const auto& [text, title] : cases) EXPECT_EQ(AppState::title(text), title) << text;
  for (const std::string lineBreak :
       {"\n", "\r", "\r\n", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
    const std::string text = "||x^" + lineBreak + "! Title: Demo" + lineBreak + "||y^";
    EXPECT_EQ(AppState::title(text), "Demo") << testing::PrintToString(lineBreak);
  }
}

TEST_F(AppStateListsTest, AddsAPastedList) {
  launch();
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"Mine", "! Title: Demo\n||x^", "Mine"},
      {"", "\n! Title: Demo", "Demo"},
      {"", "||x^", "Pasted list"},
      {" ", "! Title: Demo", " "},
      {"", "", "Pasted list"},
  };
  std::set<Uuid> ids;
  for (const auto& [name, text, expected] : cases) {
    EXPECT_EQ(effectOf([&, &name = name, &text = text] { app->addList(name, text); }),
              "saved rebuilt");
    ids.insert(last().id);
    EXPECT_EQ(last(), (FilterList{.id = last().id, .name = expected, .text = text}));
  }
  EXPECT_EQ(ids.size(), std::size(cases));
  EXPECT_EQ(app->lists->size(), 1 + std::size(cases));
}

TEST_F(AppStateListsTest, AddsAListFromAnAddress) {
  launch();
  const std::string titled = "! Title: Demo\n||x^";
  const struct {
    std::string name, address, body, expectedName, expectedUrl;
  } cases[] = {
      {"Mine", "https://a.example/l.txt", titled, "Mine", "https://a.example/l.txt"},
      {"", " \t\r\n\u00A0\u2028https://a.example/a b?c#d\u2029\u0085 \n", titled, "Demo",
       "https://a.example/a b?c#d"},
      {"", "http://user@b.example:8080/", "||x^", "b.example", "http://user@b.example:8080/"},
      {"", "http:///list.txt", "", "List", "http:///list.txt"},
      {" ", "https://a.example/", titled, " ", "https://a.example/"},
  };
  std::string asked;
  for (const auto& [name, address, body, expectedName, expectedUrl] : cases) {
    http.answer = [&, body = body](const std::string& url) {
      asked = url;
      return HttpClient::Response{200, body};
    };
    EXPECT_EQ(add(name, address), "added") << address;
    EXPECT_EQ(asked, expectedUrl);
    EXPECT_TRUE(isNow(last().updated));
    EXPECT_EQ(last(), (FilterList{.id = last().id,
                                  .name = expectedName,
                                  .url = expectedUrl,
                                  .text = body,
                                  .updated = last().updated}));
    EXPECT_EQ(saved().lists, *app->lists);
  }
  EXPECT_EQ(app->lists->size(), 1 + std::size(cases));

  http.answer = [](const std::string&) { return HttpClient::Response{299, "a\xFF||ä"}; };
  EXPECT_EQ(add("", "https://a.example/"), "added");
  EXPECT_EQ(last().text, "a\uFFFD||ä");
}

TEST_F(AppStateListsTest, AddsNothingWhenTheAddressOrTheDownloadFails) {
  launch();
  for (const char* address :
       {"", " ", "list", "a.example/l.txt", "//a.example/", "ftp://a.example/",
        "file:///etc/passwd", "HTTP://a.example/", "Https://a.example/", "https//a.example",
        "https://a.example:port/"}) {
    EXPECT_EQ(add("", address), "Enter a valid http(s) URL.") << address;
  }
  EXPECT_EQ(add("", "https://a.example/"), "Download failed: There is no network.");
  for (const unsigned status : {0U, 199U, 300U, 304U, 404U, 500U}) {
    http.answer = [status](const std::string&) { return HttpClient::Response{status, "||x^"}; };
    EXPECT_EQ(add("", "https://a.example/"), "Download failed: HTTP " + std::to_string(status));
  }
  EXPECT_EQ(names(), Names{"Tamsel Starter List"});
  EXPECT_FALSE(fs::exists(stateFile));
  EXPECT_EQ(store.documents.size(), 1);
}

TEST_F(AppStateListsTest, SwitchesAndRemovesLists) {
  launchWith({{pasted("a", "||a.example^"), pasted("b"), pasted("c")}, "", {}});
  const Uuid a = (*app->lists)[1].id;
  EXPECT_THAT(store.documents.back(), HasSubstr("a\\\\.example"));
  EXPECT_EQ(effectOf([&] { app->toggle(a); }), "saved rebuilt");
  EXPECT_FALSE((*app->lists)[1].enabled);
  EXPECT_THAT(store.documents.back(), testing::Not(HasSubstr("a\\\\.example")));
  EXPECT_EQ(effectOf([&] { app->toggle(a); }), "saved rebuilt");
  EXPECT_TRUE((*app->lists)[1].enabled);
  EXPECT_EQ(effectOf([&] { app->toggle(Starter::id); }), "saved rebuilt");
  EXPECT_FALSE((*app->lists)[0].enabled);
  EXPECT_EQ(effectOf([&] { app->toggle(Uuid::random()); }), "");

  const std::vector<FilterList> all = *app->lists;
  EXPECT_EQ(effectOf([&] { app->remove(Starter::id); }), "saved rebuilt");
  EXPECT_EQ(effectOf([&] { app->remove(Uuid::random()); }), "saved rebuilt");
  EXPECT_EQ(*app->lists, all);
  EXPECT_EQ(effectOf([&] { app->remove((*app->lists)[2].id); }), "saved rebuilt");
  EXPECT_EQ(*app->lists, (std::vector{all[0], all[1], all[3]}));
}

TEST_F(AppStateListsTest, ActsOnEveryListOfOneIdentifierAsStored) {
  const FilterList twice = pasted("a");
  FilterList builtIn = twice;
  builtIn.isBuiltIn = true;
  launchWith({{twice, builtIn, twice}, "", {}});
  app->toggle(twice.id);
  EXPECT_FALSE((*app->lists)[1].enabled);
  EXPECT_TRUE((*app->lists)[2].enabled && last().enabled);
  app->remove(twice.id);
  EXPECT_EQ(app->lists->size(), 2);
  EXPECT_EQ(last(), builtIn);
}

TEST_F(AppStateListsTest, HasNothingToRefreshWithoutAnAddress) {
  launchWith({{pasted("a"), downloaded("b", "https://b.example/")}, "", {}});
  const Uuid a = (*app->lists)[1].id;
  const Uuid b = (*app->lists)[2].id;
  for (const Uuid& id : {a, Starter::id, Uuid::random()}) {
    EXPECT_EQ(effectOf([&] {
                app->refresh(id);
                EXPECT_EQ(*app->statusMessage, "No downloadable lists to refresh.");
              }),
              "saved rebuilt");
    EXPECT_EQ(*app->statusMessage, "Compiled 38 rules.");
  }
  app->remove(b);
  app->refresh(std::nullopt);
  EXPECT_EQ(*app->statusMessage, "No downloadable lists to refresh.");
}

TEST_F(AppStateListsTest, RefreshesWhatCanBeDownloaded) {
  FilterList hasFailed = downloaded("c", "https://c.example/");
  hasFailed.lastError = "HTTP 500";
  launchWith({{downloaded("a", "https://a.example/"), pasted("p"), downloaded("b", "no address"),
               hasFailed, downloaded("d", "ftp://d.example/")},
              "",
              {}});
  const std::vector<FilterList> before = *app->lists;
  Names asked;
  http.answer = [&asked](const std::string& url) -> HttpClient::Response {
    asked.push_back(url);
    if (url.starts_with("ftp")) throw HttpClient::TransportError("No such scheme.");
    if (url == "https://a.example/") return {404, "gone"};
    return {200, "! Title: New\n||new.example^"};
  };
  app->refresh(std::nullopt);
  EXPECT_TRUE(app->isRefreshing);
  EXPECT_EQ(*app->statusMessage, "Refreshing lists…");
  runUntil([this] { return !app->isRefreshing; });
  EXPECT_EQ(*app->statusMessage, "Refreshed with 2 failure(s).");
  EXPECT_TRUE(app->isCompiling);
  EXPECT_EQ(saved().lists, *app->lists);
  settle();
  EXPECT_THAT(asked, ElementsAre("https://a.example/", "https://c.example/", "ftp://d.example/"));

  std::vector<FilterList> expected = before;
  expected[1].lastError = "HTTP 404";
  expected[4].text = "! Title: New\n||new.example^";
  expected[4].updated = (*app->lists)[4].updated;
  expected[4].lastError = std::nullopt;
  expected[5].lastError = "No such scheme.";
  EXPECT_EQ(*app->lists, expected);
  EXPECT_TRUE(isNow((*app->lists)[4].updated));
  EXPECT_THAT(store.documents.back(), HasSubstr("new\\\\.example"));

  // One of them; and one whose address is none, which counts all the same.
  const std::pair<std::size_t, std::string> single[] = {{4, "Refreshed 1 list(s)."},
                                                        {1, "Refreshed with 1 failure(s)."},
                                                        {3, "Refreshed 1 list(s)."}};
  for (const auto& [index, message] : single) {
    app->refresh(before[index].id);
    runUntil([this] { return !app->isRefreshing; });
    EXPECT_EQ(*app->statusMessage, message);
    settle();
  }
  EXPECT_THAT(asked, testing::SizeIs(5));
  EXPECT_EQ((*app->lists)[3], before[3]);
}

TEST_F(AppStateListsTest, RefreshesOneAfterTheOtherWhileListsChange) {
  HeldHttpClient held;
  launchWith({{downloaded("a", "https://a.example/"), downloaded("b", "https://b.example/"),
               downloaded("c", "https://c.example/")},
              "",
              {}},
             &held);
  const std::vector<FilterList> before = *app->lists;
  app->refresh(std::nullopt);
  app->addList("new", "");
  app->remove(before[0].id);
  app->remove(before[1].id);  // while it is downloaded
  app->remove(before[2].id);  // before it is
  runUntil([this] { return !app->isCompiling; });
  ASSERT_EQ(held.held.size(), 1);
  held.held[0].second({200, "a"});
  runUntil([&] { return held.held.size() == 2; });
  EXPECT_EQ(held.held[1].first, "https://b.example/");
  held.held[1].second({404, ""});
  runUntil([&] { return held.held.size() == 3; });
  held.held[2].second({200, "c"});
  runUntil([this] { return !app->isRefreshing; });
  EXPECT_EQ(*app->statusMessage, "Refreshed with 1 failure(s).");
  EXPECT_EQ(names(), (Names{"Tamsel Starter List", "c", "new"}));
  EXPECT_EQ((*app->lists)[1].text, "c");
  EXPECT_EQ(saved().lists, *app->lists);
}

TEST_F(AppStateListsTest, RefreshesTwiceAtOnce) {
  HeldHttpClient held;
  launchWith({{downloaded("a", "https://a.example/")}, "", {}}, &held);
  app->refresh(std::nullopt);
  app->refresh(last().id);
  ASSERT_EQ(held.held.size(), 2);
  held.held[1].second({200, "second"});
  runUntil([this] { return !app->isRefreshing; });
  EXPECT_EQ(last().text, "second");
  settle();
  held.held[0].second({200, "first"});
  runUntil([this] { return *app->statusMessage == "Refreshed 1 list(s)."; });
  EXPECT_EQ(last().text, "first");
  EXPECT_FALSE(app->isRefreshing);
  EXPECT_EQ(saved().lists, *app->lists);
}

TEST_F(AppStateListsTest, GoesInTheMiddleOfARefreshAndAnAddition) {
  HeldHttpClient held;
  launchWith({{downloaded("a", "https://a.example/")}, "", {}}, &held);
  const std::string before = Files::read(stateFile);
  {
    const auto addition = app->addListFromAddress("", "https://b.example/");
    app->refresh(std::nullopt);
    ASSERT_EQ(held.held.size(), 2);
  }
  app.reset();
  for (const auto& [url, answer] : held.held) answer({200, "late"});
  runWhatIsPending();
  EXPECT_EQ(Files::read(stateFile), before);
}

TEST_F(AppStateListsTest, PausesAndResumesSites) {
  launch();
  const struct {
    Sites sites;
    std::string host;
    bool isPaused;
    Sites whenPaused, whenResumed;
  } cases[] = {
      {{}, "site.qqx", false, {"site.qqx"}, {}},
      {{}, "WWW.Site.QQX", false, {"site.qqx"}, {}},
      {{}, "www.www.site.qqx", false, {"www.site.qqx"}, {}},
      {{}, "Ä.qqx", false, {"ä.qqx"}, {}},
      {{"site.qqx"}, "site.qqx", true, {"site.qqx"}, {}},
      {{"site.qqx"}, "www.SITE.qqx", true, {"site.qqx"}, {}},
      {{"site.qqx"}, "a.news.site.qqx", true, {"site.qqx", "a.news.site.qqx"}, {}},
      {{"site.qqx"}, "mysite.qqx", false, {"site.qqx", "mysite.qqx"}, {"site.qqx"}},
      {{"site.qqx"}, "qqx", false, {"site.qqx", "qqx"}, {"site.qqx"}},
      {{"site.qqx"}, "site.qqx.", false, {"site.qqx", "site.qqx."}, {"site.qqx"}},
      {{"site.qqx"}, " site.qqx", false, {"site.qqx", " site.qqx"}, {"site.qqx"}},
      {{"news.site.qqx"}, "site.qqx", false, {"news.site.qqx", "site.qqx"}, {"news.site.qqx"}},
      {{"a.b.qqx", "b.qqx", "qqx", "c.a.b.qqx", "x.qqx"},
       "a.b.qqx",
       true,
       {"a.b.qqx", "b.qqx", "qqx", "c.a.b.qqx", "x.qqx"},
       {"c.a.b.qqx", "x.qqx"}},
  };
  for (const auto& [sites, host, isPaused, whenPaused, whenResumed] : cases) {
    app->pausedSites = sites;
    EXPECT_EQ(app->isPaused(host), isPaused) << host;
    EXPECT_EQ(effectOf([&, &host = host] { app->setPaused(host, true); }), "saved");
    EXPECT_EQ(*app->pausedSites, whenPaused) << host;
    EXPECT_THAT(saved().pausedSites, testing::ElementsAreArray(whenPaused));
    EXPECT_TRUE(app->isPaused(host));
    app->pausedSites = sites;
    EXPECT_EQ(effectOf([&, &host = host] { app->setPaused(host, false); }), "saved");
    EXPECT_EQ(*app->pausedSites, whenResumed) << host;
    EXPECT_FALSE(app->isPaused(host)) << host;
  }
  app->pausedSites = Sites{"site.qqx"};
  for (const char* none : {"", "www.", "WWW."}) {
    EXPECT_FALSE(app->isPaused(none));
    for (const bool paused : {true, false}) {
      EXPECT_EQ(effectOf([&] { app->setPaused(none, paused); }), "");
    }
  }
  EXPECT_EQ(*app->pausedSites, Sites{"site.qqx"});
  EXPECT_EQ(browser->ruleLists.size(), 1);
}

TEST_F(AppStateListsTest, ExportsWhatWasCompiled) {
  launch();
  const auto exportTo = [this](const std::string& path) {
    panel.path = path;
    app->statusMessage = "";
    app->exportJSON();
    runUntil([this] { return !app->statusMessage->empty(); });
    return *app->statusMessage;
  };
  app->statusMessage = "before";
  app->exportJSON();
  runWhatIsPending();
  EXPECT_EQ(*app->statusMessage, "before");
  ASSERT_EQ(panel.questions.size(), 1);
  EXPECT_EQ(panel.questions[0].fileName, "Tamsel-content-blocker.json");
  EXPECT_EQ(panel.questions[0].message,
            "Saves the compiled WebKit content blocker JSON. Safari itself is not changed.");
  EXPECT_EQ(panel.questions[0].mediaType, "application/json");

  const std::string path = folder.path() + "/Meine Regeln.json";
  std::ofstream(path) << std::string(100000, 'x');
  EXPECT_EQ(exportTo(path), "Exported 36 rules to Meine Regeln.json.");
  // In the plain form of the format, whatever WebKit is given.
  const FilterCompiler::Input starter{Starter::id, "", Starter::text};
  const ParseOutput parsed = FilterCompiler::parse({&starter, 1});
  EXPECT_EQ(Files::read(path), RuleDocument::encode(parsed.rules).view());
  EXPECT_EQ(store.documents.back(),
            RuleDocument::encode(parsed.rules, DocumentForm::hardened).view());

  for (const std::string missing : {"/missing/rules.json", ""}) {
    EXPECT_THAT(exportTo(folder.path() + missing), testing::StartsWith("Export failed: "));
  }
  EXPECT_FALSE(fs::exists(folder.path() + "/missing"));

  store.answer = [](const auto&) { return RuleListStore::Error{"It did not.", ""}; };
  app->rebuild();
  settle();
  EXPECT_THAT(exportTo(path), HasSubstr("Exported 36 rules"));
  EXPECT_EQ(Files::read(path), "[]");
}

}  // namespace
}  // namespace tamsel
