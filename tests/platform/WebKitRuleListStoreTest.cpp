#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/rulestore/WebKitRuleListStore.h"
#include "tests/support/RunUntil.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WebKitRules.h"

// The store in a process that is linked with WebKit and has a main loop.
namespace tamsel {
namespace {

namespace fs = std::filesystem;
using test::document;
using test::rule;
using test::runUntil;
using testing::HasSubstr;
using testing::IsEmpty;

class WebKitRuleListStoreTest : public testing::Test {
 protected:
  RuleListStore::Request request(const std::string& text, const std::string& identifier = "Rules") {
    const auto owner = std::make_shared<const std::string>(text);
    return {.document = {*owner, owner}, .identifier = identifier, .folder = folder.path()};
  }

  RuleListStore::Result compile(RuleListStore& in, RuleListStore::Request what) {
    std::optional<RuleListStore::Result> answer;
    in.compile(std::move(what), [&answer](RuleListStore::Result result) {
      EXPECT_FALSE(answer);
      answer = std::move(result);
    });
    EXPECT_FALSE(answer);
    runUntil([&answer] { return answer.has_value(); });
    return *answer;
  }

  static std::vector<std::string> identifiers(const RuleListStore::Result& result) {
    std::vector<std::string> names;
    if (const auto* error = std::get_if<RuleListStore::Error>(&result)) return {error->message};
    const auto& list = std::get<std::shared_ptr<const RuleList>>(result);
    for (const auto& filter : dynamic_cast<const WebKitRuleList&>(*list).filters()) {
      names.emplace_back(webkit_user_content_filter_get_identifier(filter.get()));
    }
    return names;
  }

  std::size_t fileCount() const {
    std::size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
      EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr("/work-")));
      if (entry.is_regular_file()) ++count;
    }
    return count;
  }

  const test::TemporaryFolder folder;
  const RuleListCompiler::Options options = {.helper = TAMSEL_RULE_COMPILER_PATH,
                                             .defaultFolder = folder.path() + "/default",
                                             .memoryFolder = ""};
  const std::string good = document({rule("block", "a")});
};

TEST_F(WebKitRuleListStoreTest, AnswersAListOfFilters) {
  WebKitRuleListStore store(options);
  EXPECT_THAT(identifiers(compile(store, request(good))), testing::ElementsAre("Rules-0"));
  const std::string large = document(test::numbered(60000, "a"));
  const std::size_t parts = identifiers(compile(store, request(large, "Large"))).size();
  EXPECT_GT(parts, 1);
  EXPECT_THAT(identifiers(compile(store, request("[]", "Empty"))), IsEmpty());
  EXPECT_EQ(fileCount(), 1 + 1 + parts + 1 + 1);

  // What is kept takes no helper.
  RuleListCompiler::Options without = options;
  without.helper = "/missing";
  WebKitRuleListStore another(without);
  EXPECT_EQ(identifiers(compile(another, request(large, "Large"))).size(), parts);
  EXPECT_THAT(identifiers(compile(another, request(good, "New"))).front(),
              HasSubstr("cannot be started"));
}

TEST_F(WebKitRuleListStoreTest, AnswersAnErrorAndKeepsTheOldList) {
  WebKitRuleListStore store(options);
  (void)compile(store, request(good));
  const RuleListStore::Result refused = compile(
      store, request(document({rule("block", "a"), rule("block", "b"), rule("block", "c|d")})));
  EXPECT_EQ(refused, RuleListStore::Result(RuleListStore::Error{
                         .message = "Rule 2 was refused: Disjunctions are not supported yet.",
                         .ruleIndex = 2}));
  EXPECT_THAT(identifiers(compile(store, request("[{"))).front(), HasSubstr("JSON"));
  EXPECT_THAT(identifiers(compile(store, request(good, "../x"))).front(), HasSubstr("could not"));
}

// A filter whose digest is right and which WebKit does not take all the same.
TEST_F(WebKitRuleListStoreTest, CompilesAgainWhatCannotBeLoaded) {
  WebKitRuleListStore store(options);
  (void)compile(store, request(good));
  const std::string kept = folder.path() + "/Rules/";
  std::string record;
  std::getline(std::ifstream(kept + "compiled.json"), record);
  const std::string garbage = "no filter";
  const std::vector<std::string_view> pieces = {garbage};
  const std::string name = digestOf(pieces) + ".rules";
  std::ofstream(kept + name) << garbage;
  const std::size_t end = record.find(".rules");
  const std::size_t begin = record.rfind('"', end) + 1;
  std::ofstream(kept + "compiled.json") << record.replace(begin, end + 6 - begin, name);

  EXPECT_THAT(identifiers(compile(store, request(good))), testing::ElementsAre("Rules-0"));
  EXPECT_FALSE(fs::exists(kept + name));
  EXPECT_EQ(fileCount(), 2);
}

TEST_F(WebKitRuleListStoreTest, StopsWhenAsked) {
  WebKitRuleListStore store(options);
  const std::string large = document(test::words(50000));
  for (const int turns : {0, 1, 200}) {
    std::stop_source stop;
    std::optional<RuleListStore::Result> answer;
    RuleListStore::Request what = request(large);
    what.stop = stop.get_token();
    store.compile(what, [&answer](RuleListStore::Result result) { answer = std::move(result); });
    if (turns == 0) stop.request_stop();
    g_timeout_add(
        static_cast<guint>(turns),
        [](gpointer source) -> gboolean {
          static_cast<std::stop_source*>(source)->request_stop();
          return G_SOURCE_REMOVE;
        },
        &stop);
    while (!answer || g_main_context_pending(nullptr) != 0) g_main_context_iteration(nullptr, TRUE);
    EXPECT_THAT(identifiers(*answer).front(), HasSubstr("stopped"));
    EXPECT_EQ(fileCount(), 0);
  }
}

TEST_F(WebKitRuleListStoreTest, GoesWithoutAWordWhileItCompiles) {
  const std::string large = document(test::words(50000));
  int answers = 0;
  for (const bool started : {false, true}) {
    WebKitRuleListStore store(options);
    store.compile(request(large), [&answers](const RuleListStore::Result&) { ++answers; });
    store.compile(request(good, "Small"), [&answers](const RuleListStore::Result&) { ++answers; });
    if (started) runUntil([&answers] { return answers != 0; });
  }
  test::runWhatIsPending();
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(fileCount(), 2);
}

}  // namespace
}  // namespace tamsel
