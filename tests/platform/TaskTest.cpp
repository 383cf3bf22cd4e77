#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/mainloop/Awaiting.h"
#include "platform/mainloop/MainLoop.h"
#include "platform/mainloop/Observable.h"
#include "platform/mainloop/Task.h"
#include "tests/support/RunUntil.h"

namespace tamsel {
namespace {

using test::finish;
using test::runUntil;
using test::runWhatIsPending;
using testing::ElementsAre;

// What became of a Witness, from whichever thread.
struct Fate {
  std::thread::id thread;
  std::atomic<bool> isSealed = false;
};

struct Seal {
  void operator()(Fate* fate) const {
    fate->thread = std::this_thread::get_id();
    EXPECT_FALSE(fate->isSealed.exchange(true));
    g_main_context_wakeup(nullptr);
  }
};

// Tells when and where its owner is destroyed; cannot be copied.
using Witness = std::unique_ptr<Fate, Seal>;

bool isHere(const Fate& fate) {
  return fate.thread == std::this_thread::get_id();
}

// What a task waits for until somebody answers.
class Question {
 public:
  std::function<void(std::function<void(int)>)> asking() {
    return [this](std::function<void(int)> answer) { answer_ = std::move(answer); };
  }
  void answer(int value) { std::exchange(answer_, nullptr)(value); }
  bool isOpen() const { return static_cast<bool>(answer_); }

 private:
  std::function<void(int)> answer_;
};

Task<int> answerTo(Question& question) {
  auto answer = answerOf<int>(question.asking());
  co_return co_await answer;
}

Task<> nextTurn() {
  auto turn = answerOf<int>(
      [](const std::function<void(int)>& go) { MainLoop::call(nullptr, [go] { go(0); }); });
  (void)co_await turn;
}

Task<std::unique_ptr<int>> parcel(bool later, int value) {
  if (later) {
    auto turn = nextTurn();
    co_await turn;
  }
  if (value < 0) throw std::out_of_range("negative");
  co_return std::make_unique<int>(value);
}

Task<std::string> attempt(bool later, int value) {
  try {
    auto task = parcel(later, value);
    const std::unique_ptr<int> taken = co_await task;
    co_return std::to_string(*taken);
  } catch (const std::out_of_range& error) {
    co_return error.what();
  }
}

TEST(Task, GivesItsResultOrExceptionToWhoWaits) {
  for (const bool later : {false, true}) {
    Task<std::string> task = attempt(later, 7);
    EXPECT_EQ(task.isDone(), !later);
    EXPECT_EQ(finish(std::move(task)), "7");
    EXPECT_EQ(finish(attempt(later, -1)), "negative");
    EXPECT_THROW((void)finish(parcel(later, -1)), std::out_of_range);
  }
}

// A flow at a wait, the task of which is destroyed.
class Destroyed : public testing::Test {
 protected:
  template <typename Wait>
  static Task<> flow(Wait wait, Witness, bool& wentOn) {
    auto waiting = wait();
    try {
      (void)co_await waiting;
    } catch (...) {
    }
    wentOn = true;
  }

  template <typename Wait>
  Task<> start(Wait wait) {
    return flow(std::move(wait), Witness(&frame), wentOn);
  }

  void destroy(Task<> task) {
    EXPECT_FALSE(task.isDone());
    task = Task<>();
  }

  void TearDown() override {
    runWhatIsPending();
    EXPECT_TRUE(frame.isSealed);
    EXPECT_FALSE(wentOn);
  }

  Fate frame;
  bool wentOn = false;
};

TEST_F(Destroyed, WhileTheWorkerRuns) {
  std::latch mayEnd(1);
  Fate result, data;
  Task<> task = start([&] {
    return detached([&, kept = Witness(&data)] {
      mayEnd.wait();
      return Witness(&result);
    });
  });
  destroy(std::move(task));
  EXPECT_TRUE(frame.isSealed);
  mayEnd.count_down();
  runUntil([&] { return result.isSealed.load(); });
  EXPECT_TRUE(data.isSealed);
}

TEST_F(Destroyed, WhileTheResultIsUnderWay) {
  Fate result;
  Task<> task = start([&] { return detached([&] { return Witness(&result); }); });
  while (g_main_context_pending(nullptr) == 0) std::this_thread::yield();
  destroy(std::move(task));
  runUntil([&] { return result.isSealed.load(); });
}

TEST_F(Destroyed, ByWhoeverIsAskedForTheAnswer) {
  Question question;
  Task<> task;
  const auto twice = [&]() -> Task<> {
    auto first = answerTo(question);
    (void)co_await first;
    auto second = answerOf<int>([&](const std::function<void(int)>& answer) {
      task = Task<>();
      EXPECT_TRUE(frame.isSealed);
      answer(2);
    });
    (void)co_await second;
  };
  task = start(twice);
  question.answer(1);
}

TEST_F(Destroyed, WhileAnotherTaskIsWaitedFor) {
  Question question;
  Fate inner;
  bool innerWentOn = false;
  const auto asking = [&] { return answerOf<int>(question.asking()); };
  destroy(start([&] { return flow(asking, Witness(&inner), innerWentOn); }));
  EXPECT_TRUE(inner.isSealed);
  question.answer(1);
  EXPECT_FALSE(innerWentOn);
}

// Ends when it is told to; as soon as it is cancelled, if it is prompt.
struct Operation {
  auto call() {
    return gioCall(
        [this](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
          end = [callback, data] { callback(nullptr, nullptr, data); };
          const auto cancel = [](GCancellable*, Operation* operation) {
            operation->isCancelled = true;
            if (operation->isPrompt) operation->end();
          };
          g_signal_connect(cancellable, "cancelled", G_CALLBACK(+cancel), this);
        },
        [this](GObject*, GAsyncResult*, GError**) { return Witness(&result); });
  }

  const bool isPrompt;
  bool isCancelled = false;
  std::function<void()> end = {};
  Fate result = {};
};

TEST_F(Destroyed, WhileAnOperationOfGioRuns) {
  Operation operation{.isPrompt = false};
  destroy(start([&] { return operation.call(); }));
  EXPECT_TRUE(operation.isCancelled);
  EXPECT_TRUE(frame.isSealed);
  EXPECT_FALSE(operation.result.isSealed);
  operation.end();
  EXPECT_TRUE(operation.result.isSealed);
}

TEST_F(Destroyed, WhileAnOperationRunsThatEndsAtOnceWhenCancelled) {
  Operation operation{.isPrompt = true};
  destroy(start([&] { return operation.call(); }));
  EXPECT_TRUE(operation.result.isSealed);
}

TEST(Detached, RunsOnWorkersAndComesBack) {
  const auto flow = [](int number, Fate& fate) -> Task<std::string> {
    try {
      auto work = detached([number, kept = Witness(&fate)] {
        if (number % 3 == 0) throw std::runtime_error(std::to_string(number));
        return std::make_unique<std::thread::id>(std::this_thread::get_id());
      });
      const std::unique_ptr<std::thread::id> worker = co_await work;
      co_return *worker == std::this_thread::get_id() ? "same thread" : std::to_string(number);
    } catch (const std::runtime_error& error) {
      co_return error.what();
    }
  };
  std::vector<Fate> data(500);
  std::vector<Task<std::string>> tasks;
  for (Fate& fate : data) {
    tasks.push_back(flow(static_cast<int>(tasks.size()), fate));
    EXPECT_FALSE(tasks.back().isDone());
  }
  for (std::size_t i = 0; i < data.size(); ++i) {
    EXPECT_EQ(finish(std::move(tasks[i])), std::to_string(i));
    EXPECT_TRUE(data[i].isSealed);
  }
  // What the function owns is freed on the worker, however soon that is done.
  for (int i = 0; i < 5000; ++i) {
    Fate fate;
    (void)finish(flow(i, fate));
    ASSERT_FALSE(isHere(fate)) << i;
  }
}

TEST(FreeOnWorker, FreesThere) {
  Fate fate;
  freeOnWorker(Witness(&fate));
  runUntil([&fate] { return fate.isSealed.load(); });
  EXPECT_FALSE(isHere(fate));
}

Task<> once(
    Question& question, std::function<void()> then = [] {}) {
  auto answer = answerTo(question);
  (void)co_await answer;
  then();
}

TEST(TaskScope, KeepsTasksUntilTheyAreDone) {
  TaskScope scope;
  const auto atOnce = [](bool fails) -> Task<> {
    if (fails) throw std::runtime_error("unheard");
    co_return;
  };
  scope.add(atOnce(false));
  EXPECT_TRUE(scope.isEmpty());

  Question question, added;
  scope.add(once(question, [&] { scope.add(once(added)); }));
  question.answer(1);
  EXPECT_TRUE(added.isOpen());
  EXPECT_FALSE(scope.isEmpty());
  added.answer(1);
  EXPECT_TRUE(scope.isEmpty());

  // What nobody catches is told, wherever it is thrown.
  std::vector<std::string> told;
  Uncaught::setListener([&told](const std::string& sentence) { told.push_back(sentence); });
  scope.add(atOnce(true));
  scope.add(once(question, [] { throw std::bad_alloc(); }));
  question.answer(1);
  MainLoop::callOnWorker([] { throw std::runtime_error("on a worker"); });
  MainLoop::call(nullptr, [] { throw std::runtime_error("on the main loop"); });
  runUntil([&told] { return told.size() == 4; });
  Uncaught::setListener(nullptr);
  EXPECT_THAT(told, testing::UnorderedElementsAre("unheard", "There is not enough memory.",
                                                  "on a worker", "on the main loop"));
}

TEST(TaskScope, DestroysTasksThatWait) {
  auto scope = std::make_unique<TaskScope>();
  Question questions[3];
  int ended = 0;
  for (Question& question : questions) scope->add(once(question, [&ended] { ++ended; }));
  questions[1].answer(1);
  questions[0].answer(1);
  scope.reset();
  questions[2].answer(1);
  EXPECT_EQ(ended, 2);
}

// Calls the function when a flow and what it was given is gone.
std::shared_ptr<void> atTheEnd(std::function<void()> function) {
  return {nullptr, [function = std::move(function)](void*) { function(); }};
}

TEST(TaskScope, BearsTasksWhoseEndReachesIt) {
  Question first, second;
  // The last owner of the scope is a flow in it.
  auto owned = std::make_shared<TaskScope>();
  TaskScope& there = *owned;
  there.add(once(first, [kept = std::move(owned)] {}));
  first.answer(1);

  TaskScope scope;
  scope.add(once(first, [kept = atTheEnd([&] { scope.add(once(second)); })] {}));
  first.answer(1);
  EXPECT_FALSE(scope.isEmpty());
  second.answer(1);
  EXPECT_TRUE(scope.isEmpty());
}

TEST(TaskScope, BearsTasksThatEndOthersWhenDestroyed) {
  Question first, second;
  bool ended = false;
  {
    TaskScope scope;
    scope.add(once(first, [kept = atTheEnd([&] { second.answer(1); })] {}));
    scope.add(once(second, [&ended] { ended = true; }));
  }
  EXPECT_TRUE(ended);
}

TEST(Observable, TellsOfEveryAssignmentBefore) {
  ChangeSignal willChange;
  Observable<std::string> text(willChange, "a");
  std::vector<std::string> seen;
  willChange.connect([&] { seen.push_back(text.get()); });
  text = "b";
  text = "b";
  EXPECT_EQ(text.exchange("c"), "b");
  text.modify([&seen](std::string& value) {
    EXPECT_EQ(seen.size(), 4U);
    value += "d";
    value += "e";
  });
  EXPECT_THAT(seen, ElementsAre("a", "b", "b", "c"));
  EXPECT_EQ(*text, "cde");
}

}  // namespace
}  // namespace tamsel
