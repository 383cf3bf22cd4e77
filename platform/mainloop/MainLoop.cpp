#include "platform/mainloop/MainLoop.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "platform/mainloop/Uncaught.h"

namespace tamsel::MainLoop {
namespace {

// A function on its way to another thread. GLib passes it on with memory synchronised; the flag
// says the same in the language's own words, which tools that look for races understand.
class Call {
 public:
  explicit Call(std::function<void()> function) : function_(std::move(function)) {
    ready_.store(true, std::memory_order_release);
  }

  void run() {
    if (ready_.load(std::memory_order_acquire)) Uncaught::guard(function_);
  }

 private:
  std::function<void()> function_;
  std::atomic<bool> ready_ = false;
};

// All threads are started with the first call: one that could not be started later would leave its
// caller waiting. Throws std::runtime_error.
GThreadPool* workers() {
  static GThreadPool* const pool = [] {
    const auto run = [](gpointer data, gpointer) {
      std::unique_ptr<Call>(static_cast<Call*>(data))->run();
    };
    GThreadPool* started = g_thread_pool_new(
        run, nullptr, static_cast<int>(std::max(2U, std::thread::hardware_concurrency())), TRUE,
        nullptr);
    if (started == nullptr) throw std::runtime_error("The system has no thread left.");
    return started;
  }();
  return pool;
}

}  // namespace

void call(GMainContext* context, std::function<void()> function) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        static_cast<Call*>(data)->run();
        return G_SOURCE_REMOVE;
      },
      new Call(std::move(function)), [](gpointer data) { delete static_cast<Call*>(data); });
  g_source_attach(source, context);
  g_source_unref(source);
}

void callOnWorker(std::function<void()> function) {
  g_thread_pool_push(workers(), new Call(std::move(function)), nullptr);
}

}  // namespace tamsel::MainLoop
