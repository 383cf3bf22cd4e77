#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/rulestore/WebKitRuleListStore.h"
#include "state/AppState.h"
#include "state/Persisted.h"
#include "tests/support/AppFakes.h"
#include "tests/support/SmallDisk.h"
#include "tests/support/TemporaryFolder.h"

// The application and the command-line tool with everything of theirs on a disk that is full, or
// nearly so, or read only.
namespace tamsel {
namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::HasSubstr;

constexpr std::uint64_t plenty = std::uint64_t{1} << 28;

std::string read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Some 3 MB when WebKit has compiled it.
std::string list(const std::string& name) {
  std::string text;
  for (int i = 0; i < 3000; ++i) text += "||" + name + std::to_string(i * 7919) + ".example^\n";
  return text;
}

class FullDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!disk.isMounted()) GTEST_SKIP() << "A file system can be mounted only with more rights.";
    std::ofstream(folder.path() + "/list.txt") << list("tool");
    ::setenv("XDG_CACHE_HOME", (disk.path() + "/cache").c_str(), 1);
    ::setenv("TMPDIR", (disk.path() + "/tmp").c_str(), 1);
    ::unsetenv("XDG_RUNTIME_DIR");
    fs::create_directory(disk.path() + "/tmp");
  }

  std::unique_ptr<AppState> start(const std::string& memoryFolder) {
    store.reset();
    store.emplace(RuleListCompiler::Options{.helper = TAMSEL_RULE_COMPILER_PATH,
                                            .defaultFolder = disk.path() + "/default",
                                            .memoryFolder = memoryFolder});
    auto app = std::make_unique<AppState>(AppState::Platform{
        disk.path() + "/Tamsel", *store, http, panel, std::make_unique<test::FakeBrowser>()});
    settle(*app);
    return app;
  }
  static void settle(const AppState& app) {
    test::runUntil([&app] { return !*app.isCompiling; });
  }
  static void apply(AppState& app, const std::string& rules) {
    app.customRules = rules;
    app.save();
    app.rebuild();
    settle(app);
  }

  std::optional<Persisted> saved() const {
    return Persisted::decode(read(disk.path() + "/Tamsel/state.json"));
  }

  // The exit code of the tool, which ends by no signal, and says so when it fails.
  int tool(const std::string& arguments) const {
    const std::string said = folder.path() + "/said";
    const int status = std::system((TAMSELC_PATH " " + arguments + " 2>" + said).c_str());
    EXPECT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    EXPECT_THAT(code, AnyOf(0, 2)) << read(said);
    if (code == 2) {
      EXPECT_THAT(read(said), AnyOf(HasSubstr("space"), HasSubstr("room")));
    }
    return code;
  }

  void expectNothingHalfWritten() const {
    for (const auto& entry : fs::recursive_directory_iterator(disk.path())) {
      EXPECT_THAT(entry.path().string(),
                  testing::Not(AnyOf(HasSubstr("/work-"), HasSubstr("/.tamsel-"),
                                     HasSubstr("/ContentRuleList"), HasSubstr("/tamselc-"))));
    }
  }

  // All that can go wrong, and nothing that was there is lost.
  void tryAll(std::uint64_t files, std::uint64_t bytes) {
    SCOPED_TRACE(std::to_string(files) + " files, " + std::to_string(bytes) + " bytes left");
    ASSERT_TRUE(disk.leave(plenty, plenty));
    const std::string out = disk.path() + "/out.json";
    std::ofstream(out) << "old";
    apply(*start(""), "##.old");
    const std::optional<Persisted> before = saved();
    ASSERT_TRUE(before);
    ASSERT_TRUE(disk.leave(files, bytes));

    const bool isWritten = tool("compile " + folder.path() + "/list.txt -o " + out) == 0;
    EXPECT_EQ(read(out) != "old", isWritten);
    (void)tool("check " + folder.path() + "/list.txt >/dev/null");
    {
      // What was compiled before filters, with its work in memory.
      const auto app = start(folder.path() + "/memory");
      EXPECT_EQ(*app->statusMessage, "Compiled 37 rules.");
      EXPECT_EQ(app->notice.get(), "");
    }
    const auto app = start("");
    const std::string rules = list("app");
    apply(*app, rules);
    const bool isSaved = app->notice->empty();
    EXPECT_EQ(saved()->customRules, isSaved ? rules : "##.old");
    if (!isSaved) {
      EXPECT_THAT(*app->notice, HasSubstr("No space left"));
    }
    if (*app->statusMessage == "Compile failed.") {
      EXPECT_THAT(app->compileError->value_or(""), AnyOf(HasSubstr("room"), HasSubstr("space")));
    } else {
      EXPECT_EQ(*app->statusMessage, "Compiled 6036 rules.");
    }
    expectNothingHalfWritten();

    // With room again, all is as it should be, without a new start.
    ASSERT_TRUE(disk.leave(plenty, plenty));
    apply(*app, rules);
    EXPECT_EQ(*app->statusMessage, "Compiled 6036 rules.");
    EXPECT_EQ(*app->notice, "");
    EXPECT_EQ(saved()->customRules, rules);
  }

  const test::TemporaryFolder folder;
  const test::SmallDisk disk{folder.path() + "/disk"};
  test::FakeHttpClient http;
  test::FakeSavePanel panel;
  std::optional<WebKitRuleListStore> store;
};

TEST_F(FullDiskTest, HasNoRoomForFiles) {
  for (std::uint64_t files = 0; files <= 20; ++files) tryAll(files, plenty);
}

TEST_F(FullDiskTest, HasNoRoomForBytes) {
  constexpr std::uint64_t kilobyte = 1024;
  for (const std::uint64_t kilobytes :
       {0U, 4U, 16U, 64U, 256U, 512U, 1024U, 2048U, 4096U, 16384U, 65536U}) {
    tryAll(plenty, kilobytes * kilobyte);
  }
}

TEST_F(FullDiskTest, IsReadOnly) {
  apply(*start(""), "##.old");
  ASSERT_TRUE(disk.setReadOnly(true));
  const auto app = start(folder.path() + "/memory");
  EXPECT_EQ(*app->statusMessage, "Compiled 37 rules.");
  apply(*app, "##.new\n##.other");
  EXPECT_EQ(*app->statusMessage, "Compiled 38 rules.");
  EXPECT_THAT(*app->notice, HasSubstr("Read-only"));
  EXPECT_EQ(saved()->customRules, "##.old");
  ASSERT_TRUE(disk.setReadOnly(false));
}

}  // namespace
}  // namespace tamsel
