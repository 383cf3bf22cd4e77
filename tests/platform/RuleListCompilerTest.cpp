#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/rulestore/RuleListCompiler.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WebKitRules.h"

// With the real WebKit, in real processes.
namespace tamsel {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test::document;
using test::hide;
using test::repeated;
using test::rule;
using testing::HasSubstr;
using testing::IsEmpty;

// How the application looks for the index of a rule in an error's text.
const std::regex indexInText("(index|rule)[^0-9]{0,20}[0-9]", std::regex::icase);

std::vector<pid_t> helpers() {
  std::vector<pid_t> processes;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream children(thread.path() / "children");
    for (pid_t child = 0; children >> child;) processes.push_back(child);
  }
  return processes;
}

class RuleListCompilerTest : public testing::Test {
 protected:
  RuleListCompiler::Options options() const {
    return {.helper = TAMSEL_RULE_COMPILER_PATH,
            .defaultFolder = folder.path() + "/default",
            .memoryFolder = ""};
  }

  RuleListCompiler::Outcome compile(const std::string& text, RuleListCompiler::Job job = {}) const {
    return compileWith(options(), text, std::move(job));
  }

  RuleListCompiler::Outcome compileWith(const RuleListCompiler::Options& options,
                                        const std::string& text,
                                        RuleListCompiler::Job job = {}) const {
    job.document = text;
    if (job.identifier.empty()) job.identifier = "Rules";
    if (job.folder.empty()) job.folder = store;
    RuleListCompiler::Outcome outcome = RuleListCompiler(options).compile(job);
    if (outcome.compiled) outcome.compiled->keep();
    return outcome;
  }

  // The sentence in which compiling ends; the rule store's users look for no rule in it.
  std::string failure(const RuleListCompiler::Options& options, const std::string& text,
                      const RuleListCompiler::Job& job = {}) const {
    try {
      (void)compileWith(options, text, job);
      return "none";
    } catch (const RuleListCompiler::Failure& failure) {
      const std::string words = failure.what() + " "s + failure.detail;
      EXPECT_FALSE(std::regex_search(words, indexInText)) << words;
      EXPECT_THAT(failure.what(), testing::EndsWith("."));
      return failure.what();
    } catch (const RuleListCompiler::Stopped& stopped) {
      return stopped.what();
    }
  }

  // Every file below the test's folder, with what tells it from one that was written anew.
  std::map<std::string, ino_t> files() const {
    std::map<std::string, ino_t> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
      struct stat status {};
      ::lstat(entry.path().c_str(), &status);
      if (!S_ISDIR(status.st_mode)) found[entry.path()] = status.st_ino;
    }
    return found;
  }

  void TearDown() override {
    EXPECT_THAT(helpers(), IsEmpty());
    for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
      EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr("/work-")));
      EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr("/ContentRuleList")));
    }
  }

  const test::TemporaryFolder folder;
  const std::string store = folder.path() + "/store";
  const std::string kept = store + "/Rules/";
};

TEST_F(RuleListCompilerTest, CompilesOnlyWhatHasChanged) {
  std::vector<std::string> rules = test::numbered(60000, "a");
  const RuleListCompiler::Outcome first = compile(document(rules));
  ASSERT_TRUE(first.compiled);
  EXPECT_FALSE(first.compiled->unchanged);
  EXPECT_GT(first.compiled->parts.size(), 1);
  const std::map<std::string, ino_t> before = files();
  EXPECT_TRUE(compile(document(rules)).compiled->unchanged);
  EXPECT_EQ(files(), before);

  rules.push_back(rule("block", "last"));
  EXPECT_FALSE(compile(document(rules)).compiled->unchanged);
  std::size_t same = 0;
  for (const auto& [path, inode] : files())
    same += before.contains(path) && before.at(path) == inode;
  EXPECT_EQ(same, before.size() - 2);  // all but the record and the last part
  EXPECT_EQ(files().size(), before.size());

  // Another version of WebKit may read another format.
  RuleListCompiler::Options older = options();
  older.webKitVersion = "2.0.0";
  EXPECT_FALSE(compileWith(older, document(rules)).compiled->unchanged);
  EXPECT_FALSE(compile(document(rules), {.reuse = false}).compiled->unchanged);
}

TEST_F(RuleListCompilerTest, TakesWhatHasNothingToDo) {
  for (const std::string& text : {"[]"s, document({hide(".x,"), hide(":no-such-thing()")})}) {
    EXPECT_THAT(compile(text).compiled->parts, IsEmpty());
    EXPECT_TRUE(compile(text).compiled->unchanged);
  }
}

TEST_F(RuleListCompilerTest, TellsWhichRuleIsRefusedAndWhy) {
  const std::pair<std::string, std::string> cases[] = {
      // What would abort WebKit, overflow its stack or keep it busy for minutes.
      {rule("block", R"([a-\\xff])"), "ASCII"},
      {rule("block", "a" + repeated(18, ".")), "overlap"},
      {rule("block", repeated(100000, "x")), "too long"},
      {hide(repeated(1000, ":not(") + ".a" + repeated(1000, ")")), "nested"},
      {hide(".a" + repeated(1000000, " .a")), "too long"},
      {hide(repeated(20, ":is(.a ") + ".a" + repeated(20, ")")), "combinations"},
      {hide("[a=\\\""), "quotation"},
      // What WebKit refuses and names.
      {rule("block", "a|b"), "Disjunctions are not supported yet."},
      {rule("block", "a", R"(,"if-domain":["Ads.example"])"), "lower case ASCII"},
      // What it refuses without naming it.
      {rule("block", "a", R"(,"resource-type":["subdocument"])"),
       "Invalid string in the trigger flags array."},
      {rule("block", "a", R"(,"if-domain":["a.b"],"unless-domain":["c.d"])"), "one condition"},
      {rule("blocks", "a"), "Invalid action type."},
      {R"({"action":{"type":"block"}})", "Invalid trigger object."},
      {"null", "Invalid rule."},
  };
  for (const auto& [faulty, reason] : cases) {
    std::vector<std::string> rules = test::numbered(2500, "good");
    const std::size_t index = std::hash<std::string>{}(faulty) % rules.size();
    rules.insert(rules.begin() + static_cast<std::ptrdiff_t>(index), faulty);
    const RuleListCompiler::Outcome outcome = compile(document(rules));
    ASSERT_EQ(outcome.refused.size(), 1) << faulty.substr(0, 80);
    EXPECT_EQ(outcome.refused.front().index, index) << faulty.substr(0, 80);
    EXPECT_THAT(outcome.refused.front().reason, HasSubstr(reason)) << faulty.substr(0, 80);
    EXPECT_FALSE(outcome.compiled);
  }
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RuleListCompilerTest, FindsAllRefusedRulesAtOnce) {
  std::vector<std::string> rules = test::numbered(45000, "good");
  std::vector<std::size_t> expected;
  for (std::size_t i = 7; i < rules.size(); i += 4999) {
    rules[i] = i % 2 == 0 ? rule("blocks", "a") : rule("block", "a", R"(,"load-type":["x"])");
    expected.push_back(i);
  }
  std::vector<std::size_t> refused;
  const RuleListCompiler::Outcome outcome = compile(document(rules), {.findAll = true});
  for (const RefusedRule& each : outcome.refused) {
    refused.push_back(each.index);
  }
  EXPECT_EQ(refused, expected);
}

TEST_F(RuleListCompilerTest, BearsMoreRulesWithDomainsThanOneFilterOfWebKit) {
  std::vector<std::string> rules;
  for (int i = 0; i < 70000; ++i) {
    rules.push_back(hide(".a", ",\"if-domain\":[\"d" + std::to_string(i) + ".example\"]"));
  }
  EXPECT_GE(compile(document(rules)).compiled->parts.size(), 2);
}

TEST_F(RuleListCompilerTest, SaysWhyThereIsNoList) {
  const std::string good = document({rule("block", "a")});
  EXPECT_THAT(failure(options(), "[{}"), HasSubstr("JSON"));
  EXPECT_THAT(failure(options(), "{}"), HasSubstr("not an array"));
  std::vector<std::string> mixed = test::numbered(150000, "a");
  mixed.insert(mixed.begin(), rule("ignore-previous-rules", "b"));
  EXPECT_THAT(failure(options(), document(mixed)), HasSubstr("Too many"));

  RuleListCompiler::Options faulty = options();
  faulty.helper = folder.path() + "/rules1/missing";
  EXPECT_THAT(failure(faulty, good), HasSubstr("cannot be started: No such file"));
  faulty = options();
  faulty.timeLimit = std::chrono::milliseconds(300);
  const std::string large = document(test::words(50000));
  EXPECT_THAT(failure(faulty, large), HasSubstr("did not finish"));

  std::stop_source stop;
  EXPECT_EQ(
      failure(options(), large,
              {.stop = stop.get_token(), .progress = [&](auto, auto) { stop.request_stop(); }}),
      "The compilation was stopped.");
  EXPECT_THAT(files(), IsEmpty());

  // Another program is at work there, and does not end.
  fs::create_directories(kept);
  const int locked = ::open(kept.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(::flock(locked, LOCK_EX), 0);
  std::stop_source interrupt;
  std::jthread interrupting([&interrupt] { interrupt.request_stop(); });
  EXPECT_EQ(failure(options(), good, {.stop = interrupt.get_token()}),
            "The compilation was stopped.");
  ::close(locked);
}

TEST_F(RuleListCompilerTest, UsesTheDefaultFolderForOneThatCannotBeUsed) {
  const std::string good = document({rule("block", "a")});
  std::ofstream(folder.path() + "/file") << "something";
  for (const std::string& unusable :
       {folder.path() + "/file", folder.path() + "/file/below", "/proc/self/none"s, "/dev/null"s}) {
    EXPECT_TRUE(compile(good, {.folder = unusable}).compiled) << unusable;
    EXPECT_TRUE(fs::exists(folder.path() + "/default/Rules/compiled.json")) << unusable;
    fs::remove_all(folder.path() + "/default");
    RuleListCompiler::Options none = options();
    none.defaultFolder = unusable;
    EXPECT_THAT(failure(none, good, {.folder = unusable}), HasSubstr("folder")) << unusable;
  }
  // The place of the list itself is taken.
  fs::create_directories(store);
  std::ofstream(store + "/Rules") << "something";
  EXPECT_TRUE(compile(good).compiled);
  EXPECT_TRUE(fs::is_regular_file(store + "/Rules"));

  const std::string large = document(test::words(30000));
  const std::string gone = folder.path() + "/gone";
  EXPECT_THAT(failure(options(), large,
                      {.folder = gone,
                       .progress =
                           [&](auto done, auto) {
                             if (done == 0) fs::remove_all(gone);
                           }}),
              HasSubstr("gone"));
}

TEST_F(RuleListCompilerTest, TrustsNothingThatIsNotAsItWasKept) {
  const std::string text = document(test::words(300));
  const auto keptFilter = [this] {
    for (const auto& entry : fs::directory_iterator(kept)) {
      if (entry.path().extension() == ".rules") return entry.path();
    }
    return fs::path();
  };
  const auto overwrite = [&keptFilter](std::streamoff position, char byte) {
    std::fstream file(keptFilter(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(position).put(byte);
  };
  const auto replace = [&keptFilter](const auto& make) {
    const fs::path filter = keptFilter();
    fs::remove(filter);
    make(filter);
  };
  const auto writeRecord = [this](const std::string& record) {
    std::ofstream(kept + "compiled.json", std::ios::binary) << record;
  };
  const std::string otherFilter = "0123456789abcdef0123456789abcdef-4.rules";
  const std::vector<std::function<void()>> damages = {
      [&] { fs::resize_file(keptFilter(), fs::file_size(keptFilter()) / 2); },
      [&] { fs::resize_file(keptFilter(), 0); },
      [&] { overwrite(0, '\x01'); },  // the version
      [&] { overwrite(static_cast<std::streamoff>(fs::file_size(keptFilter())) - 40, 'X'); },
      [&] { replace([](const fs::path&) {}); },
      [&] { replace([](const fs::path& path) { fs::create_directory(path); }); },
      [&] { replace([](const fs::path& path) { fs::create_symlink("/dev/zero", path); }); },
      [&] { replace([](const fs::path& path) { ::mkfifo(path.c_str(), 0600); }); },
      [&] { writeRecord(""); },
      [&] { writeRecord(std::string(100000, '[')); },
      [&] { writeRecord(R"({"document":1,"webKitVersion":[],"filters":{}})"); },
      [&] { writeRecord(R"({"document":"","webKitVersion":"","filters":[{"file":"../x"}]})"); },
      [&] {
        fs::remove(kept + "compiled.json");
        fs::create_directory(kept + "compiled.json");
      },
      [&] { fs::remove_all(kept); },
  };
  for (std::size_t i = 0; i < damages.size(); ++i) {
    ASSERT_TRUE(compile(text).compiled) << i;
    damages[i]();
    EXPECT_FALSE(compile(text).compiled->unchanged) << i;
    EXPECT_TRUE(compile(text).compiled->unchanged) << i;
    fs::remove_all(kept);
  }
}

TEST_F(RuleListCompilerTest, RemovesWhatADeadProcessLeftBehind) {
  const std::string text = document({rule("block", "a")});
  ASSERT_TRUE(compile(text).compiled);
  fs::create_directories(kept + "work-abcdef/webkit-0");
  std::ofstream(kept + "work-abcdef/webkit-0/ContentRuleList-x") << "left";
  std::ofstream(kept + repeated(32, "a") + "-4.rules") << "left";
  std::ofstream(kept + "of somebody else") << "kept";
  ASSERT_TRUE(compile(document({rule("block", "b")})).compiled);
  EXPECT_EQ(files().size(), 3);
  EXPECT_TRUE(fs::exists(kept + "of somebody else"));
}

TEST_F(RuleListCompilerTest, BearsManyAtOnceInOneFolder) {
  std::atomic<int> failures = 0;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 6; ++thread) {
    threads.emplace_back([this, thread, &failures] {
      for (int i = 0; i < 6; ++i) {
        const std::string text = document({rule("block", "x" + std::to_string((thread + i) % 3))});
        const std::string identifier = thread % 3 == 0 ? "Others" : "Rules";
        try {
          if (!compile(text, {.identifier = identifier}).compiled) ++failures;
        } catch (const std::exception&) {
          ++failures;
        }
      }
    });
  }
  threads.clear();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(files().size(), 4);
}

TEST_F(RuleListCompilerTest, AnswersWhenItsHelpersAreKilled) {
  const std::string texts[] = {document(test::words(3000)), document(test::words(3001))};
  RuleListCompiler::Options impatient = options();
  impatient.helper = "/bin/false";  // for what is kept no helper is needed
  impatient.webKitVersion = compile(texts[0]).compiled->source.webKitVersion;
  std::mt19937 random(5);
  int killed = 0;
  for (int round = 0; round < 100; ++round) {
    std::jthread killer([delay = std::chrono::microseconds(random() % 200000)] {
      std::this_thread::sleep_for(delay);  // any moment will do
      for (const pid_t helper : helpers()) ::kill(helper, SIGKILL);
    });
    const std::string ending = failure(options(), texts[(round + 1) % 2]);
    killer.join();
    if (ending != "none") {
      ++killed;
      EXPECT_THAT(ending, HasSubstr("killed"));
    }
    // The list is the old or the new one.
    const bool isNew = failure(impatient, texts[(round + 1) % 2]) == "none";
    EXPECT_TRUE(isNew || failure(impatient, texts[round % 2]) == "none") << round;
    EXPECT_TRUE(isNew || ending != "none");
    if (!isNew) (void)compile(texts[(round + 1) % 2]);
  }
  EXPECT_GT(killed, 0);
}

}  // namespace
}  // namespace tamsel
