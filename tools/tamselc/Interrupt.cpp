#include "tools/tamselc/Interrupt.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>

namespace tamsel::tamselc {
namespace {

constexpr int endOfWatch = SIGUSR1;

// A program that is started in the background, or to outlive its terminal, ignores some.
bool isIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Interrupt::Interrupt() {
  ::sigemptyset(&signals_);
  ::sigaddset(&signals_, endOfWatch);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU}) {
    if (!isIgnored(signal)) ::sigaddset(&signals_, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
  watcher_ = std::thread([this] { watch(); });
}

Interrupt::~Interrupt() {
  endWatch();
  ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

void Interrupt::watch() {
  int signal = 0;
  while (::sigwait(&signals_, &signal) == 0 && !over_) {
    received_ = signal;
    stop_.request_stop();
  }
}

void Interrupt::endWatch() {
  over_ = true;
  ::pthread_kill(watcher_.native_handle(), endOfWatch);
  watcher_.join();
}

void Interrupt::finish() {
  endWatch();
  std::signal(received_, SIG_DFL);
  ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  (void)::raise(received_);
  std::_Exit(EXIT_FAILURE);
}

}  // namespace tamsel::tamselc
