#pragma once

#include <gio/gio.h>

#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>

#include "platform/mainloop/MainLoop.h"

/// What a Task can wait for. Whatever comes for a task that has been destroyed is dropped.
///
/// Name it before you wait for it: `auto parsing = detached(…); … = co_await parsing;`. GCC 12
/// destroys some temporaries in the operand of co_await twice, among them functions with captures.
namespace tamsel {

namespace detail {

// What both ends know of one wait: the task, until it is destroyed, and the one that has the
// answer.
template <typename T>
struct Wait {
  std::variant<std::monostate, T, std::exception_ptr> answer;
  std::coroutine_handle<> task;

  // On the main thread.
  void resume() {
    if (const std::coroutine_handle<> waiting = std::exchange(task, {})) waiting.resume();
  }
};

template <typename T, typename Start>
class Awaiter {
 public:
  explicit Awaiter(Start start) : start_(std::move(start)) {}
  Awaiter(const Awaiter&) = delete;
  Awaiter& operator=(const Awaiter&) = delete;
  ~Awaiter() { forget(); }

  // The named one itself waits.
  struct Reference {
    Awaiter* awaiter;
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> task) { awaiter->await_suspend(task); }
    T await_resume() { return awaiter->await_resume(); }
  };
  Reference operator co_await() & noexcept { return {this}; }
  void operator co_await() && = delete;

 protected:
  void forget() { wait_->task = {}; }

 private:
  void await_suspend(std::coroutine_handle<> task) {
    wait_->task = task;
    // The task may be gone, and this with it, before `start` returns.
    Start start = std::move(start_);
    const std::shared_ptr<Wait<T>> wait = wait_;
    start(wait);
  }
  T await_resume() {
    if (auto* exception = std::get_if<std::exception_ptr>(&wait_->answer)) {
      std::rethrow_exception(*exception);
    }
    return std::move(std::get<T>(wait_->answer));
  }

  Start start_;
  std::shared_ptr<Wait<T>> wait_ = std::make_shared<Wait<T>>();
};

}  // namespace detail

/// Waiting for `detached(f)` runs `f`, which returns a value, on a worker and goes on with its
/// result, or exception, on the main loop. What `f` needs it owns.
template <typename Function>
auto detached(Function function) {
  using T = std::invoke_result_t<Function&>;
  auto work = std::make_shared<Function>(std::move(function));
  auto start = [work = std::move(work)](const std::shared_ptr<detail::Wait<T>>& wait) mutable {
    GMainContext* context = g_main_context_ref_thread_default();
    MainLoop::callOnWorker([work = std::move(work), wait = wait, context]() mutable {
      try {
        wait->answer.template emplace<1>((*work)());
      } catch (...) {
        wait->answer.template emplace<2>(std::current_exception());
      }
      work.reset();  // what it owns is freed here, not on the main thread
      MainLoop::call(context, [wait = std::move(wait)] { wait->resume(); });
      g_main_context_unref(context);
    });
  };
  return detail::Awaiter<T, decltype(start)>(std::move(start));
}

/// Frees the value on a worker: what is large takes its time.
template <typename T>
void freeOnWorker(T value) {
  MainLoop::callOnWorker(
      [kept = std::make_shared<T>(std::move(value))]() mutable { kept.reset(); });
}

/// Waiting for `answerOf<T>(start)` calls `start` with a function and goes on when that is called,
/// once, on the main thread, with a T.
template <typename T>
auto answerOf(std::function<void(std::function<void(T)>)> ask) {
  auto start = [ask = std::move(ask)](const std::shared_ptr<detail::Wait<T>>& wait) {
    ask([wait](T answer) {
      wait->answer.template emplace<1>(std::move(answer));
      wait->resume();
    });
  };
  return detail::Awaiter<T, decltype(start)>(std::move(start));
}

/// Why a GIO operation failed, in GLib's words.
class GioError : public std::runtime_error {
 public:
  explicit GioError(const GError& error)
      : std::runtime_error(error.message), domain(error.domain), code(error.code) {}

  GQuark domain;
  int code;
};

/// Waiting for `gioCall(begin, finish)` is waiting for a GIO operation. `begin` takes the
/// GCancellable, the GAsyncReadyCallback and its data; `finish` the source object, the GAsyncResult
/// and the GError**, and returns what the task goes on with. Throws GioError. The operation is
/// cancelled when the task is destroyed.
template <typename Begin, typename Finish>
auto gioCall(Begin begin, Finish finish) {
  using T = std::invoke_result_t<Finish&, GObject*, GAsyncResult*, GError**>;
  struct Operation {
    Finish finish;
    std::shared_ptr<detail::Wait<T>> wait;
  };
  // Cancels when the awaiter that owns it goes.
  struct Cancel {
    void operator()(GCancellable* cancellable) const {
      g_cancellable_cancel(cancellable);
      g_object_unref(cancellable);
    }
  };
  std::shared_ptr<GCancellable> cancellable(g_cancellable_new(), Cancel());
  auto start = [begin = std::move(begin), finish = std::move(finish),
                cancellable =
                    std::weak_ptr(cancellable)](const std::shared_ptr<detail::Wait<T>>& wait) {
    const auto alive = cancellable.lock();
    begin(
        alive.get(),
        [](GObject* source, GAsyncResult* result, gpointer data) {
          const std::unique_ptr<Operation> operation(static_cast<Operation*>(data));
          GError* error = nullptr;
          T value = operation->finish(source, result, &error);
          detail::Wait<T>& answered = *operation->wait;
          if (error != nullptr) {
            answered.answer.template emplace<2>(std::make_exception_ptr(GioError(*error)));
            g_error_free(error);
          } else {
            answered.answer.template emplace<1>(std::move(value));
          }
          answered.resume();
        },
        new Operation{finish, wait});
  };
  class Awaiter : public detail::Awaiter<T, decltype(start)> {
   public:
    Awaiter(decltype(start) how, std::shared_ptr<GCancellable> cancelled)
        : detail::Awaiter<T, decltype(start)>(std::move(how)), cancelled_(std::move(cancelled)) {}

    // Before the operation is cancelled, which it may answer at once.
    ~Awaiter() { this->forget(); }

   private:
    std::shared_ptr<GCancellable> cancelled_;
  };
  return Awaiter(std::move(start), std::move(cancellable));
}

}  // namespace tamsel
