#pragma once

#include <exception>
#include <functional>
#include <string>
#include <utility>

/// What becomes of an exception where nobody is left to catch it: in what the main loop calls, on
/// a worker, or in a task that nobody waits for. C code must not be unwound, and the program goes
/// on.
namespace tamsel::Uncaught {

/// Told in a sentence, on the main thread. Without one, standard error is.
void setListener(std::function<void(const std::string& sentence)> listener);

/// From any thread.
void tell(const std::exception_ptr& exception) noexcept;

/// What the exception is, in a sentence.
std::string sentence(const std::exception_ptr& exception);

/// Calls the function, from which no exception comes.
template <typename Function>
void guard(Function&& function) noexcept {
  try {
    std::forward<Function>(function)();
  } catch (...) {
    tell(std::current_exception());
  }
}

}  // namespace tamsel::Uncaught
