#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "platform/files/Files.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "state/AppState.h"
#include "state/Persisted.h"
#include "tests/support/AppFakes.h"
#include "tests/support/TemporaryFolder.h"

// The application on the real store, killed while it adds lists and has them compiled.
namespace tamsel {
namespace {

namespace fs = std::filesystem;

// Takes some 150 ms to compile.
std::string list(std::size_t number) {
  std::string text;
  for (int i = 0; i < 2000; ++i) {
    text += "||" + std::to_string(number) + "-" + std::to_string(i * 7919) + ".example^\n";
  }
  return text;
}

struct Application {
  explicit Application(const std::string& folder)
      : store({.helper = TAMSEL_RULE_COMPILER_PATH, .memoryFolder = ""}),
        app({folder, store, http, panel, std::make_unique<test::FakeBrowser>()}) {}
  void settle() const {
    test::runUntil([this] { return !*app.isCompiling; });
  }

  WebKitRuleListStore store;
  test::FakeHttpClient http;
  test::FakeSavePanel panel;
  AppState app;
};

// Adds one list after the other, the text of each named by its place; every second is compiled
// before the next.
[[noreturn]] void addForever(const std::string& folder, int progress) {
  Application running(folder);
  while (true) {
    running.app.addList("list", list(running.app.lists->size()));
    if (::write(progress, "+", 1) != 1) ::_exit(EXIT_FAILURE);
    if (running.app.lists->size() % 2 == 0) running.settle();
  }
}

// Whether it starts with so many lists, compiles them, and leaves nothing that it does not need.
[[noreturn]] void startAgain(const std::string& folder, std::size_t lists) {
  const Application running(folder);
  running.settle();
  bool isGood = running.app.statusMessage->starts_with("Compiled ") &&
                running.app.lists->size() == lists && running.app.notice->empty();
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    isGood = isGood && !name.starts_with("work-") && !name.starts_with(".tamsel-") &&
             !name.starts_with("ContentRuleList");
  }
  ::_exit(isGood ? EXIT_SUCCESS : EXIT_FAILURE);
}

// TAMSEL_KILLS says how often; such suites run before a thread is there.
TEST(KilledDeathTest, LosesNothingWhereverItIsKilled) {
  const char* kills = std::getenv("TAMSEL_KILLS");
  const int rounds = kills == nullptr ? 15 : std::atoi(kills);
  std::mt19937 random(11);
  std::optional<test::TemporaryFolder> folder;
  std::size_t before = 0;
  for (int round = 0; round < rounds; ++round) {
    if (round % 5 == 0) {
      folder.emplace();
      before = 1;
    }
    std::array<int, 2> progress{};
    ASSERT_EQ(::pipe(progress.data()), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) addForever(folder->path(), progress[1]);
    ::close(progress[1]);
    char mark = 0;
    ASSERT_EQ(::read(progress[0], &mark, 1), 1);
    // Any moment will do.
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 600));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    std::size_t added = 1;
    while (::read(progress[0], &mark, 1) == 1) ++added;
    ::close(progress[0]);

    const auto saved = Persisted::decode(Files::read(folder->path() + "/state.json"));
    ASSERT_TRUE(saved) << round;
    const std::size_t now = saved->lists.size();
    ASSERT_TRUE(now == before + added || now == before + added + 1) << round;
    for (std::size_t i = 1; i < now; ++i)
      ASSERT_TRUE(saved->lists[i].text == Text(list(i))) << round;
    before = now;

    const pid_t check = ::fork();
    if (check == 0) startAgain(folder->path(), now);
    ASSERT_EQ(::waitpid(check, &status, 0), check);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) << round;
  }
}

}  // namespace
}  // namespace tamsel
