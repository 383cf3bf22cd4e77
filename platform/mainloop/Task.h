#pragma once

#include <coroutine>
#include <exception>
#include <functional>
#include <list>
#include <optional>
#include <type_traits>
#include <utility>

#include "platform/mainloop/Uncaught.h"

namespace tamsel {

template <typename T>
class Task;

namespace detail {

class TaskPromiseBase {
 public:
  std::suspend_never initial_suspend() noexcept { return {}; }

  // Goes on with whoever waits for the task.
  struct FinalAwaiter {
    bool await_ready() const noexcept { return false; }
    template <typename Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> task) noexcept {
      TaskPromiseBase& promise = task.promise();
      promise.done_ = true;
      if (promise.waiting_) return promise.waiting_;
      // May destroy the task, and this with it.
      if (promise.onDone_) std::exchange(promise.onDone_, nullptr)();
      return std::noop_coroutine();
    }
    void await_resume() const noexcept {}
  };
  FinalAwaiter final_suspend() noexcept { return {}; }

  void unhandled_exception() { exception_ = std::current_exception(); }

  bool done_ = false;
  std::exception_ptr exception_;
  std::coroutine_handle<> waiting_;
  std::function<void()> onDone_;
};

template <typename T>
class TaskPromise : public TaskPromiseBase {
 public:
  Task<T> get_return_object();
  void return_value(T value) { value_ = std::move(value); }
  T take() {
    if (exception_) std::rethrow_exception(exception_);
    return std::move(*value_);
  }

 private:
  std::optional<T> value_;
};

template <>
class TaskPromise<void> : public TaskPromiseBase {
 public:
  Task<void> get_return_object();
  void return_void() noexcept {}
  void take() {
    if (exception_) std::rethrow_exception(exception_);
  }
};

}  // namespace detail

/// A flow of the main thread that now and then waits for something. Calling the function starts it
/// at once; it runs up to the first wait. `co_await` on a task waits for its result or exception.
///
/// A Task owns its flow: destroying it ends a flow that waits, and nothing of it happens any more.
/// A flow must not destroy its own task, and whoever waits for a task owns it.
template <typename T = void>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::TaskPromise<T>;

  Task() = default;
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Task() {
    if (handle_) handle_.destroy();
  }

  bool isDone() const { return !handle_ || handle_.promise().done_; }

  bool await_ready() const noexcept { return handle_.promise().done_; }
  void await_suspend(std::coroutine_handle<> waiting) noexcept {
    handle_.promise().waiting_ = waiting;
  }
  T await_resume() { return handle_.promise().take(); }

  /// Has the function called at the end, from within the flow. Not for a task that is waited for or
  /// done.
  void onDone(std::function<void()>&& function) { handle_.promise().onDone_ = std::move(function); }

 private:
  friend promise_type;
  explicit Task(std::coroutine_handle<promise_type> handle) : handle_(handle) {}

  std::coroutine_handle<promise_type> handle_;
};

template <typename T>
Task<T> detail::TaskPromise<T>::get_return_object() {
  return Task<T>(std::coroutine_handle<TaskPromise>::from_promise(*this));
}
inline Task<void> detail::TaskPromise<void>::get_return_object() {
  return Task<void>(std::coroutine_handle<TaskPromise>::from_promise(*this));
}

/// Keeps tasks that nobody waits for until they are done; what they throw is Uncaught. Destroying
/// it destroys those that are not done.
class TaskScope {
 public:
  TaskScope() = default;
  ~TaskScope() {
    // The end of one may be the end of another.
    while (!tasks_.empty()) {
      const Task<void> first = std::move(tasks_.front());
      tasks_.pop_front();
    }
  }
  TaskScope(const TaskScope&) = delete;
  TaskScope& operator=(const TaskScope&) = delete;

  void add(Task<void> task) {
    if (task.isDone()) return tellOutcome(task);
    const auto place = tasks_.insert(tasks_.end(), std::move(task));
    place->onDone([this, place] {
      tellOutcome(*place);
      tasks_.erase(place);
    });
  }

  bool isEmpty() const { return tasks_.empty(); }

 private:
  static void tellOutcome(Task<void>& task) {
    Uncaught::guard([&task] { task.await_resume(); });
  }

  std::list<Task<void>> tasks_;
};

}  // namespace tamsel
