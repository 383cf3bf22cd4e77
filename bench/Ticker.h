#pragma once

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <ctime>

namespace tamsel::bench {

using Clock = std::chrono::steady_clock;

inline double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Counts on a main loop every millisecond.
class Ticker {
 public:
  Ticker() : source_(g_timeout_add(1, tick, this)) {}
  ~Ticker() { g_source_remove(source_); }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  /// The longest time between two ticks, and the most that this thread computed in one, in ms. What
  /// lies between them is the system's: it gave the processor to somebody else.
  double longest() const { return longest_; }
  double mostComputed() const { return mostComputed_; }

 private:
  static double computed() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
  }

  static gboolean tick(gpointer data) {
    auto& ticker = *static_cast<Ticker*>(data);
    ticker.longest_ = std::max(ticker.longest_, millisecondsSince(ticker.last_));
    ticker.mostComputed_ = std::max(ticker.mostComputed_, computed() - ticker.lastComputed_);
    ticker.last_ = Clock::now();
    ticker.lastComputed_ = computed();
    return G_SOURCE_CONTINUE;
  }

  guint source_;
  Clock::time_point last_ = Clock::now();
  double lastComputed_ = computed();
  double longest_ = 0, mostComputed_ = 0;
};

}  // namespace tamsel::bench
