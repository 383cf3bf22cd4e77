#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <variant>

#include "platform/mainloop/Timeout.h"
#include "platform/rulestore/RuleListStore.h"

namespace tamsel {

/// Has the store compile one document at a time, and none that nobody wants any more.
///
/// Whoever wants something compiled takes a turn, which supersedes all turns before it: their
/// compilation is stopped, or never begins.
///
///     idle ── compile ──▶ compiling ── answer ──▶ idle
///                             │
///                          newTurn
///                             ▼
///                         stopping ── answer ──▶ idle, or compiling what has been asked meanwhile
///
/// For the main thread.
class CompileQueue {
 public:
  enum class State {
    idle,
    /// The store works for the newest turn.
    compiling,
    /// The store works for a superseded turn and has been told to stop.
    stopping,
  };

  /// Copies are the same turn.
  class Turn {
   public:
    bool isSuperseded() const { return stop_.stop_requested(); }
    std::stop_token stopToken() const { return stop_.get_token(); }

   private:
    friend CompileQueue;
    std::stop_source stop_;
  };

  struct Superseded {};
  using Answer = std::variant<std::shared_ptr<const RuleList>, RuleListStore::Error, Superseded>;
  using Completion = std::function<void(Answer)>;

  /// How long the store may take to stop.
  static constexpr std::chrono::milliseconds defaultPatience = std::chrono::seconds(20);

  /// The store must outlive the queue.
  explicit CompileQueue(RuleListStore& store, std::chrono::milliseconds patience = defaultPatience)
      : store_(store), patience_(patience) {}
  CompileQueue(const CompileQueue&) = delete;
  CompileQueue& operator=(const CompileQueue&) = delete;
  /// Stops what is under way; nobody is told.
  ~CompileQueue();

  State state() const noexcept { return state_; }

  /// Supersedes every turn before.
  Turn newTurn();

  /// `completion` is called once: with what the store answers, or as soon as the turn is
  /// superseded, before this returns if it is already. If the store does not stop what came before,
  /// with an error. Not before another call for the same turn has its answer.
  void compile(const Turn& turn, RuleListStore::Request request, Completion completion);

 private:
  struct Waiting {
    RuleListStore::Request request;
    Completion completion;
  };

  void start(Waiting next);
  void onAnswer(RuleListStore::Result result);
  void onPatienceEnded();

  RuleListStore& store_;
  std::chrono::milliseconds patience_;
  State state_ = State::idle;
  Turn newest_;
  // Who is told what the store answers.
  Completion completion_;
  std::optional<Waiting> waiting_;
  Timeout stopping_{[this] { onPatienceEnded(); }};
  // What the store answers after the queue has gone is dropped.
  std::shared_ptr<CompileQueue*> self_ = std::make_shared<CompileQueue*>(this);
};

}  // namespace tamsel
