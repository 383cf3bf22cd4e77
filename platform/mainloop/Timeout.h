#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <utility>

#include "platform/mainloop/Uncaught.h"

namespace tamsel {

/// Calls a function once, on the main loop, when time has passed; unless it is stopped, started
/// again or destroyed before.
class Timeout {
 public:
  /// `onTime` may destroy this.
  explicit Timeout(std::function<void()> onTime) : onTime_(std::move(onTime)) {}
  ~Timeout() { stop(); }
  Timeout(const Timeout&) = delete;
  Timeout& operator=(const Timeout&) = delete;

  void start(std::chrono::milliseconds time) {
    stop();
    const auto pass = [](gpointer data) -> gboolean {
      auto& self = *static_cast<Timeout*>(data);
      self.source_ = 0;
      const auto onTime = self.onTime_;
      Uncaught::guard(onTime);
      return G_SOURCE_REMOVE;
    };
    source_ = g_timeout_add(static_cast<guint>(time.count()), pass, this);
  }
  void stop() {
    if (const guint source = std::exchange(source_, 0); source != 0) g_source_remove(source);
  }
  bool isRunning() const { return source_ != 0; }

 private:
  std::function<void()> onTime_;
  guint source_ = 0;
};

}  // namespace tamsel
