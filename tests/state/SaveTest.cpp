#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "platform/files/Files.h"
#include "state/AppState.h"
#include "state/Persisted.h"
#include "tests/support/AppFakes.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

// About 100 KB; the next one is shorter or longer.
std::string rulesOf(int round, int number) {
  const std::string line =
      "||" + std::to_string(round) + "-" + std::to_string(number) + ".example^\n";
  std::string rules;
  while (rules.size() < static_cast<std::size_t>(80000 + number % 5 * 10000)) rules += line;
  return rules;
}

// Saves one state after the other until it is killed; tells when it begins and after each.
[[noreturn]] void saveForever(const std::string& folder, int round, int progress) {
  test::FakeRuleListStore store;
  test::FakeHttpClient http;
  test::FakeSavePanel panel;
  AppState app({folder, store, http, panel, std::make_unique<test::FakeBrowser>()});
  for (int number = 1;; ++number) {
    if (::write(progress, ".", 1) != 1) ::_exit(1);
    app.customRules = rulesOf(round, number);
    app.pausedSites = std::set{std::to_string(number)};
    app.save();
  }
}

// Such suites are run before all others, so that no thread is there yet when this one forks.
TEST(SaveDeathTest, LeavesOneWholeStateWhereverItIsKilled) {
  constexpr int rounds = 200;
  const test::TemporaryFolder folder;
  std::mt19937 random{std::random_device()()};
  std::uniform_int_distribution<int> microseconds(0, 15000);
  Persisted before;
  int changes = 0;
  for (int round = 0; round < rounds; ++round) {
    std::array<int, 2> progress{};
    ASSERT_EQ(::pipe(progress.data()), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) saveForever(folder.path(), round, progress[1]);
    ::close(progress[1]);
    char dot = 0;
    const bool hasBegun = ::read(progress[0], &dot, 1) == 1;
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    int finished = 0;
    while (::read(progress[0], &dot, 1) == 1) ++finished;
    ::close(progress[0]);
    ASSERT_TRUE(hasBegun && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << round;

    // The last that was finished, or the one that was being saved.
    const std::string path = folder.path() + "/state.json";
    const bool isThere = std::filesystem::exists(path);
    ASSERT_TRUE(isThere || (changes == 0 && finished == 0)) << round;
    if (!isThere) continue;
    const std::optional<Persisted> now = Persisted::decode(Files::read(path));
    ASSERT_TRUE(now) << round;
    if (finished == 0 && *now == before) continue;
    ASSERT_EQ(now->pausedSites.size(), 1) << round;
    const int number = std::stoi(now->pausedSites[0]);
    ASSERT_TRUE(number == finished || number == finished + 1) << number << " " << finished;
    ASSERT_EQ(now->customRules, rulesOf(round, number)) << round;
    ASSERT_EQ(now->lists.size(), 1) << round;
    before = *now;
    ++changes;
  }
  EXPECT_GT(changes, rounds / 4);

  // What the kills left behind is in nobody's way.
  const auto isLeft = [](const std::filesystem::directory_entry& entry) {
    return entry.path().filename().string().starts_with(Files::temporaryPrefix);
  };
  const std::filesystem::directory_iterator entries(folder.path());
  EXPECT_LE(std::count_if(begin(entries), end(entries), isLeft), rounds / 4);
}

}  // namespace
}  // namespace tamsel
