#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/http/SoupHttpClient.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "state/AppState.h"
#include "state/StarterList.h"
#include "tests/support/AppFakes.h"
#include "tests/support/SiteServer.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;

using namespace std::string_literals;
using test::runUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Error = RuleListStore::Error;
using Result = RuleListStore::Result;

constexpr std::size_t starterRules = 36;

// Answers when it is told to.
class PatientStore : public RuleListStore {
 public:
  void compile(Request request, std::function<void(Result)> completion) override {
    waiting.push_back({std::move(request), std::move(completion)});
  }

  struct Waiting {
    Request request;
    std::function<void(Result)> completion;
  };
  void answer(std::size_t number, Result result) { waiting[number].completion(std::move(result)); }

  std::vector<Waiting> waiting;
};

std::string lines(std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += "##.a" + std::to_string(i) + "\n";
  return text;
}

class RebuildTest : public testing::Test {
 protected:
  std::unique_ptr<AppState> start(RuleListStore& in) {
    auto newBrowser = std::make_unique<test::FakeBrowser>();
    browser = newBrowser.get();
    return std::make_unique<AppState>(
        AppState::Platform{folder.path(), in, http, panel, std::move(newBrowser)});
  }

  // With only the text as custom rules.
  std::unique_ptr<AppState> startWith(RuleListStore& in, const std::string& text) {
    auto app = start(in);
    runUntil([&] { return !*app->isCompiling; });
    app->customRules = text;
    app->lists.modify([](auto& lists) { lists[0].enabled = false; });
    return app;
  }

  static void rebuild(AppState& app) {
    app.rebuild();
    EXPECT_TRUE(*app.isCompiling);
    runUntil([&] { return !*app.isCompiling; });
  }

  const test::TemporaryFolder folder;
  test::FakeRuleListStore store;
  test::FakeHttpClient http;
  test::FakeSavePanel panel;
  test::FakeBrowser* browser = nullptr;
};

TEST_F(RebuildTest, PublishesWhatBecameOfTheLists) {
  const auto app = start(store);
  EXPECT_TRUE(*app->isCompiling);
  EXPECT_EQ(app->engine(), nullptr);
  runUntil([&] { return !*app->isCompiling; });
  EXPECT_EQ(*app->totalRules, starterRules);
  EXPECT_EQ(*app->statusMessage, "Compiled 36 rules.");
  EXPECT_EQ(app->stats->at(Starter::id), (ListStats{28, 2, 6, 6}));
  EXPECT_EQ(app->stats->size(), 1);
  EXPECT_EQ(app->skipped->size(), 6);
  EXPECT_FALSE(*app->truncated);
  EXPECT_EQ(*app->compileError, std::nullopt);
  EXPECT_THAT(browser->ruleLists, ElementsAre(testing::NotNull()));
  const auto verdict = app->engine()->evaluate("https://ads.example.com/x", {}, "image");
  EXPECT_TRUE(verdict.block);

  app->customRules = "||own.example^\nown.example#?#div:has-text(x)";
  rebuild(*app);
  EXPECT_EQ(app->stats->at(Starter::customID), (ListStats{2, 0, 0, 1}));
  EXPECT_EQ(app->skipped->back().listName, "Custom rules");
  EXPECT_EQ(*app->statusMessage, "Compiled 38 rules.");
}

TEST_F(RebuildTest, AsksNoStoreWhenThereIsNoRule) {
  const auto app = startWith(store, "! nothing");
  const std::size_t asked = store.documents.size();
  rebuild(*app);
  EXPECT_EQ(store.documents.size(), asked);
  EXPECT_EQ(*app->statusMessage, "Compiled 0 rules.");
  EXPECT_EQ(browser->ruleLists.back(), nullptr);
  EXPECT_THAT(*app->stats, IsEmpty());
}

TEST_F(RebuildTest, GoesOnWithoutARuleThatIsRefused) {
  const auto app = startWith(store, lines(20));
  // The number may stand in the detail, or be told as such.
  for (const Error& error : {Error{"WebKit said: index 7"}, Error{"Refused", "RULE: #7"},
                             Error{.message = "rule 1", .ruleIndex = 7}}) {
    store.documents.clear();
    store.answer = [this, &error](const RuleListStore::Request&) {
      return store.documents.size() == 1 ? Result(error)
                                         : Result(std::make_shared<const RuleList>());
    };
    rebuild(*app);
    ASSERT_EQ(store.documents.size(), 2);
    EXPECT_THAT(store.documents[0], HasSubstr(".a7\""));
    EXPECT_THAT(store.documents[1], testing::Not(HasSubstr(".a7\"")));
    ASSERT_EQ(app->skipped->size(), 1);
    EXPECT_EQ(app->skipped->at(0).line, "##.a7");
    EXPECT_EQ(app->skipped->at(0).reason, "Rejected by WebKit when compiling");
    EXPECT_EQ(app->skipped->at(0).listID, Starter::customID);
    EXPECT_EQ(app->stats->at(Starter::customID), (ListStats{0, 0, 19, 1}));
    EXPECT_EQ(*app->statusMessage, "Compiled 19 rules.");
  }
}

TEST_F(RebuildTest, FailsInTheStoresWords) {
  const auto app = startWith(store, lines(50));
  const std::string giveUp = "WebKit could not compile the rule list.";
  const std::tuple<Result, std::string, std::size_t, std::size_t> cases[] = {
      {Error{"No number here", "none"}, "No number here", 1, 50},
      {Error{"rule 50", ""}, "rule 50", 1, 50},
      {Error{"rule 99999999999999999999", ""}, "rule 99999999999999999999", 1, 50},
      {Error{"rule 0", ""}, giveUp, 40, 10},
      {std::shared_ptr<const RuleList>(), giveUp, 1, 50},
  };
  for (const auto& [result, message, attempts, left] : cases) {
    store.documents.clear();
    store.answer = [&result = result](const RuleListStore::Request&) { return result; };
    rebuild(*app);
    EXPECT_EQ(*app->compileError, message);
    EXPECT_EQ(*app->statusMessage, "Compile failed.");
    EXPECT_EQ(store.documents.size(), attempts) << message;
    EXPECT_EQ(*app->totalRules, left) << message;
    EXPECT_EQ(app->skipped->size(), 50 - left) << message;
    EXPECT_EQ(browser->ruleLists.back(), nullptr);
    EXPECT_NE(app->engine(), nullptr);
  }
  // All rules refused, one after the other: in the end there is an empty document.
  app->customRules = lines(3);
  store.documents.clear();
  store.answer = [this](const RuleListStore::Request&) {
    return store.documents.back() == "[]" ? Result(std::make_shared<const RuleList>())
                                          : Result(Error{"index 0", ""});
  };
  rebuild(*app);
  EXPECT_EQ(*app->statusMessage, "Compiled 0 rules.");
  EXPECT_EQ(*app->compileError, std::nullopt);
}

TEST_F(RebuildTest, HandsOverNoMoreThanTheLimit) {
  const auto app = startWith(store, lines(150001));
  rebuild(*app);
  EXPECT_TRUE(*app->truncated);
  EXPECT_EQ(*app->totalRules, 150000);
  EXPECT_EQ(app->stats->at(Starter::customID).cosmetic, 150000);
  app->customRules = lines(150000);
  rebuild(*app);
  EXPECT_FALSE(*app->truncated);
  EXPECT_EQ(*app->totalRules, 150000);
}

TEST_F(RebuildTest, PublishesWhatWasLastAskedFor) {
  PatientStore patient;
  auto app = start(patient);
  for (int i = 0; i < 3; ++i) app->rebuild();
  runUntil([&] { return !patient.waiting.empty(); });
  EXPECT_TRUE(*app->isCompiling);

  // What the store works for is stopped, and asked for again only when it has ended.
  app->customRules = "||own.example^";
  app->rebuild();
  EXPECT_TRUE(patient.waiting[0].request.stop.stop_requested());
  app->customRules = "||own.example^\n||other.example^";
  app->rebuild();
  patient.answer(0, std::make_shared<const RuleList>());
  runUntil([&] { return patient.waiting.size() == 2; });
  EXPECT_THAT(*app->statusMessage, IsEmpty());
  patient.answer(1, std::make_shared<const RuleList>());
  runUntil([&] { return !*app->isCompiling; });
  EXPECT_EQ(*app->totalRules, starterRules + 4);
  EXPECT_EQ(browser->ruleLists.size(), 1);

  // Nothing to compile overtakes whatever takes longer.
  app->rebuild();
  runUntil([&] { return patient.waiting.size() == 3; });
  app->customRules = "";
  app->toggle(Starter::id);
  runUntil([&] { return !*app->isCompiling; });
  patient.answer(2, std::make_shared<const RuleList>());
  app->toggle(Starter::id);
  app->toggle(Starter::id);
  runUntil([&] { return !*app->isCompiling; });
  EXPECT_EQ(*app->statusMessage, "Compiled 0 rules.");
  EXPECT_EQ(*app->totalRules, 0);

  // An answer that the application does not live to see is dropped.
  app->toggle(Starter::id);
  runUntil([&] { return patient.waiting.size() == 4; });
  app.reset();
  EXPECT_TRUE(patient.waiting[3].request.stop.stop_requested());
  patient.answer(3, Error{"late"});
  test::runWhatIsPending();
}

TEST_F(RebuildTest, EndsWhateverIsThrown) {
  const auto app = startWith(store, "||a.example^");
  const auto fail = []() -> Result { throw std::bad_alloc(); };
  for (const bool inStore : {true, false}) {
    store.answer = [&](const RuleListStore::Request&) {
      return inStore ? fail() : Result(std::make_shared<const RuleList>());
    };
    browser->onRuleList = [&] {
      if (!inStore) (void)fail();
    };
    rebuild(*app);
    EXPECT_EQ(*app->compileError, "There is not enough memory.");
    EXPECT_EQ(*app->statusMessage, "Compile failed.");
  }
  store.answer = nullptr;
  browser->onRuleList = nullptr;
  rebuild(*app);
  EXPECT_EQ(*app->statusMessage, "Compiled 2 rules.");
}

TEST_F(RebuildTest, FindsTheIndexInAnErrorsText) {
  const std::pair<std::string, std::optional<std::size_t>> cases[] = {
      {"Error at index 7", 7},
      {"RULE: #12", 12},
      {"rule" + std::string(20, ' ') + "3", 3},
      {"rule" + std::string(21, ' ') + "3", std::nullopt},
      {"rule" + std::string(21, ' ') + "index 4", 4},
      {"The rule was refused", std::nullopt},
      {"", std::nullopt},
      {"schedules 5", std::nullopt},
      {"Rule 17 was refused: 18", 17},
      {"index ä\n\u200B 6", 6},
      {"rule 00012", 12},
      {"rule \u0663", std::nullopt},  // a digit that no computer counts with
      {"rule 18446744073709551616", std::nullopt},
      {"no\0rule 5"s, 5},
  };
  for (const auto& [text, index] : cases) EXPECT_EQ(AppState::badRuleIndex(text), index) << text;
}

// From here on with the real WebKit, and a real server.
class RealRebuildTest : public RebuildTest {
 protected:
  RuleListCompiler::Options options() const {
    return {.helper = TAMSEL_RULE_COMPILER_PATH,
            .defaultFolder = folder.path() + "/default",
            .memoryFolder = ""};
  }
};

TEST_F(RealRebuildTest, SkipsWhatWebKitRefuses) {
  WebKitRuleListStore real(options());
  const std::vector<std::string> refused = {"/[a-\\xff]/$image", "/a(b/$image",
                                            "/a..................b/$image", "##[title=\"",
                                            "##div[style*=x"};
  std::string text = "||good.example^$image\n##.good\n";
  for (const std::string& line : refused) text += line + "\n";
  const auto app = startWith(real, text);
  rebuild(*app);
  EXPECT_EQ(*app->compileError, std::nullopt);
  EXPECT_EQ(*app->statusMessage, "Compiled 2 rules.");
  std::vector<std::string> lines;
  for (const SkippedRule& skipped : *app->skipped) {
    EXPECT_EQ(skipped.reason, "Rejected by WebKit when compiling");
    lines.push_back(skipped.line.string());
  }
  EXPECT_THAT(lines, testing::UnorderedElementsAreArray(refused));
  const auto list = std::dynamic_pointer_cast<const WebKitRuleList>(browser->ruleLists.back());
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->filters().size(), 1);

  std::string many = "##.good\n";
  for (int i = 0; i < 41; ++i) many += "##[a" + std::to_string(i) + "=\"\n";
  app->customRules = many;
  rebuild(*app);
  EXPECT_EQ(*app->statusMessage, "Compile failed.");
  EXPECT_EQ(*app->compileError, "WebKit could not compile the rule list.");
  EXPECT_EQ(*app->totalRules, 2);
  EXPECT_EQ(app->skipped->size(), 40);
}

TEST_F(RealRebuildTest, TakesAsManyRulesAsTheLimitHas) {
  WebKitRuleListStore real(options());
  const auto app = startWith(real, lines(150001));
  rebuild(*app);
  EXPECT_EQ(*app->compileError, std::nullopt);
  EXPECT_EQ(*app->statusMessage, "Compiled 150000 rules.");
}

TEST_F(RealRebuildTest, StartsWithWhatWasCompiledBefore) {
  {
    WebKitRuleListStore real(options());
    const auto app = start(real);
    runUntil([&] { return !*app->isCompiling; });
    EXPECT_EQ(*app->statusMessage, "Compiled 36 rules.");
  }
  RuleListCompiler::Options without = options();
  without.helper = "/missing";
  WebKitRuleListStore real(without);
  const auto app = start(real);
  runUntil([&] { return !*app->isCompiling; });
  EXPECT_EQ(*app->statusMessage, "Compiled 36 rules.");
  app->customRules = "||new.example^";
  rebuild(*app);
  EXPECT_THAT(**app->compileError, HasSubstr("cannot be started"));
  EXPECT_NE(app->engine(), nullptr);
}

TEST_F(RealRebuildTest, FiltersWithoutItsStoreFolder) {
  WebKitRuleListStore real(options());
  std::ofstream(folder.path() + "/RuleStore") << "garbage";
  const auto app = start(real);
  runUntil([&] { return !*app->isCompiling; });
  EXPECT_EQ(*app->statusMessage, "Compiled 36 rules.");
  EXPECT_TRUE(fs::exists(folder.path() + "/default/TamselRules"));
}

TEST_F(RealRebuildTest, KeepsAListFromAServerUpToDate) {
  WebKitRuleListStore real(options());
  SoupHttpClient client({.timeout = std::chrono::seconds(1)});
  test::SiteServer server;
  AppState app({folder.path(), real, client, panel, std::make_unique<test::FakeBrowser>()});
  const auto settle = [&app] { runUntil([&] { return !*app.isCompiling && !*app.isRefreshing; }); };
  settle();
  const std::string url = server.url() + "/list.txt", moved = server.url() + "/moved.txt";
  server.pages[url] = {"! Title: Served\n||one.example^\n"};
  server.pages[moved] = {"##.moved\n"};
  EXPECT_EQ(test::finish(app.addListFromAddress("", url)), std::nullopt);
  settle();
  EXPECT_EQ(*app.totalRules, starterRules + 2);

  // What the server answers, what that makes of the list, and how the error begins.
  const std::tuple<test::SiteServer::Answer, std::size_t, std::string> cases[] = {
      {{"||two.example^\n||three.example^\n"}, 4, ""},
      {{.status = 404}, 4, "HTTP 404"},
      {{.redirect = moved}, 1, ""},
      {{"/served\n\xff\n"}, 2, ""},
      {{.hangs = true}, 2, "Socket I/O timed out"},
      {{.raw = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n##.cut\n"}, 2, "Connection"},
      {{"<!doctype html><title>Sign in</title>"}, 2, "The answer is a web page"},
      {{.status = 204}, 2, "The server has no list to send"},
      {{""}, 0, ""},
  };
  for (const auto& [answer, rules, error] : cases) {
    server.pages[url] = answer;
    app.refresh(app.lists->back().id);
    settle();
    EXPECT_EQ(*app.totalRules, starterRules + rules) << rules << error;
    EXPECT_THAT(app.lists->back().lastError.value_or(""), testing::StartsWith(error));
    EXPECT_EQ(app.lists->back().lastError.has_value(), !error.empty());
    EXPECT_EQ(app.lists->back().name, "Served");
  }

  // Removed while it is being refreshed, which happens twice at once.
  server.pages[url] = {"||late.example^\n"};
  for (int i = 0; i < 2; ++i) app.refresh({});
  app.remove(app.lists->back().id);
  settle();
  EXPECT_EQ(app.lists->size(), 1);
  runUntil([&] { return *app.statusMessage == "Compiled 36 rules."; });
}

}  // namespace
}  // namespace tamsel
