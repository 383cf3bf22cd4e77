#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "state/CompileQueue.h"
#include "tests/support/RunUntil.h"

namespace tamsel {
namespace {

using State = CompileQueue::State;
using testing::ElementsAre;
using testing::IsEmpty;

// Answers when it is told to.
class FakeStore : public RuleListStore {
 public:
  void compile(Request request, std::function<void(Result)> completion) override {
    asked.push_back(request.identifier);
    stop = request.stop;
    completion_ = std::move(completion);
  }
  void answer() { std::exchange(completion_, nullptr)(Error{"answer to " + asked.back()}); }

  std::vector<std::string> asked;
  std::stop_token stop;

 private:
  std::function<void(Result)> completion_;
};

class CompileQueueTest : public testing::Test {
 protected:
  void compile(const CompileQueue::Turn& turn, const std::string& name) {
    queue->compile(
        turn, {.document = {}, .identifier = name, .folder = {}},
        [this, name](const CompileQueue::Answer& answer) {
          const auto* error = std::get_if<RuleListStore::Error>(&answer);
          told.push_back(name + ": " + (error == nullptr ? "superseded" : error->message));
        });
  }
  // What was told since the last time.
  std::vector<std::string> news() { return std::exchange(told, {}); }

  FakeStore store;
  std::optional<CompileQueue> queue{std::in_place, store, std::chrono::milliseconds(1)};
  std::vector<std::string> told;
};

TEST_F(CompileQueueTest, CompilesForOneTurnAsOftenAsItAsks) {
  const CompileQueue::Turn turn = queue->newTurn();
  for (const std::string name : {"a", "b"}) {
    EXPECT_EQ(queue->state(), State::idle);
    compile(turn, name);
    EXPECT_EQ(queue->state(), State::compiling);
    store.answer();
    EXPECT_THAT(news(), ElementsAre(name + ": answer to " + name));
  }
}

TEST_F(CompileQueueTest, StopsWhatIsSupersededAndNeverBeginsWhatWaits) {
  const CompileQueue::Turn first = queue->newTurn();
  compile(first, "first");
  const CompileQueue::Turn second = queue->newTurn();
  EXPECT_TRUE(first.isSuperseded());
  EXPECT_TRUE(store.stop.stop_requested());
  EXPECT_EQ(queue->state(), State::stopping);
  EXPECT_THAT(news(), ElementsAre("first: superseded"));

  compile(second, "second");
  EXPECT_THAT(news(), IsEmpty());
  const CompileQueue::Turn third = queue->newTurn();
  EXPECT_THAT(news(), ElementsAre("second: superseded"));
  compile(second, "second, late");
  EXPECT_THAT(news(), ElementsAre("second, late: superseded"));
  compile(third, "third");
  EXPECT_THAT(store.asked, ElementsAre("first"));

  store.answer();
  EXPECT_THAT(store.asked, ElementsAre("first", "third"));
  EXPECT_FALSE(store.stop.stop_requested());
  EXPECT_EQ(queue->state(), State::compiling);
  store.answer();
  EXPECT_THAT(news(), ElementsAre("third: answer to third"));
  EXPECT_EQ(queue->state(), State::idle);
}

TEST_F(CompileQueueTest, WaitsNoLongerThanItsPatience) {
  compile(queue->newTurn(), "first");
  for (const std::string name : {"second", "third"}) {
    compile(queue->newTurn(), name);
    (void)news();
    test::runUntil([this] { return !told.empty(); });
    EXPECT_THAT(news().front(), testing::HasSubstr(name + ": The compilation that was under way"));
    EXPECT_EQ(queue->state(), State::stopping);
  }
  // Once it has stopped after all, all is as before.
  store.answer();
  EXPECT_EQ(queue->state(), State::idle);
  EXPECT_THAT(news(), IsEmpty());
}

TEST_F(CompileQueueTest, MayGoWhileTheStoreWorks) {
  compile(queue->newTurn(), "first");
  queue.reset();
  EXPECT_TRUE(store.stop.stop_requested());
  store.answer();
  EXPECT_THAT(news(), IsEmpty());
}

}  // namespace
}  // namespace tamsel
