#pragma once

#include <glib.h>

#include <functional>
#include <utility>

#include "platform/mainloop/Task.h"

namespace tamsel::test {

/// Runs the main loop until it is so. A test that waits for what never comes is ended by its
/// runner.
inline void runUntil(const std::function<bool()>& isSo) {
  while (!isSo()) g_main_context_iteration(nullptr, TRUE);
}

/// Runs the main loop as long as it has something to do at once.
inline void runWhatIsPending() {
  while (g_main_context_iteration(nullptr, FALSE) != 0) {
  }
}

/// What the task comes to.
template <typename T>
T finish(Task<T> task) {
  runUntil([&task] { return task.isDone(); });
  return task.await_resume();
}

}  // namespace tamsel::test
