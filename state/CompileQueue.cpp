#include "state/CompileQueue.h"

#include <utility>

#include "platform/mainloop/Uncaught.h"

namespace tamsel {

CompileQueue::~CompileQueue() {
  newest_.stop_.request_stop();
}

CompileQueue::Turn CompileQueue::newTurn() {
  newest_.stop_.request_stop();
  newest_ = {};
  if (state_ == State::compiling) {
    state_ = State::stopping;
    stopping_.start(patience_);
  }
  const Completion compiling = std::exchange(completion_, nullptr);
  const std::optional<Waiting> waiting = std::exchange(waiting_, std::nullopt);
  Turn turn = newest_;  // whoever is told may want another one
  if (compiling) compiling(Superseded());
  if (waiting) waiting->completion(Superseded());
  return turn;
}

void CompileQueue::compile(const Turn& turn, RuleListStore::Request request,
                           Completion completion) {
  if (turn.isSuperseded()) return completion(Superseded());
  request.stop = turn.stopToken();
  Waiting next{std::move(request), std::move(completion)};
  if (state_ == State::idle) return start(std::move(next));
  // It has had its time to stop when the clock no longer runs.
  if (!stopping_.isRunning()) stopping_.start(patience_);
  waiting_ = std::move(next);
}

void CompileQueue::start(Waiting next) {
  state_ = State::compiling;
  completion_ = std::move(next.completion);
  try {
    store_.compile(std::move(next.request),
                   [self = std::weak_ptr(self_)](RuleListStore::Result result) {
                     if (const auto queue = self.lock()) (*queue)->onAnswer(std::move(result));
                   });
  } catch (...) {
    onAnswer(RuleListStore::Error{Uncaught::sentence(std::current_exception())});
  }
}

void CompileQueue::onAnswer(RuleListStore::Result result) {
  stopping_.stop();
  state_ = State::idle;
  const Completion completion = std::exchange(completion_, nullptr);
  if (waiting_) start(*std::exchange(waiting_, std::nullopt));
  if (!completion) return;  // superseded
  std::visit([&](auto& answer) { completion(std::move(answer)); }, result);
}

void CompileQueue::onPatienceEnded() {
  if (!waiting_) return;
  const Waiting waiting = *std::exchange(waiting_, std::nullopt);
  waiting.completion(
      RuleListStore::Error{"The compilation that was under way before does not end.", {}});
}

}  // namespace tamsel
