#pragma once

#include <atomic>
#include <csignal>
#include <stop_token>
#include <thread>

namespace tamsel::tamselc {

/// Turns what interrupts a command (Control-C, a request to terminate) into a request to stop, so
/// that it can tidy up. To be made before any other thread.
class Interrupt {
 public:
  Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  ~Interrupt();

  std::stop_token token() const { return stop_.get_token(); }

  /// Ends the process by the signal that interrupted it.
  [[noreturn]] void finish();

 private:
  void watch();
  void endWatch();

  std::stop_source stop_;
  sigset_t signals_;   // those that interrupt, one of which ends the watch as well
  sigset_t previous_;  // what was blocked before
  int received_ = 0;
  std::atomic<bool> over_ = false;
  std::thread watcher_;
};

}  // namespace tamsel::tamselc
