#include "platform/mainloop/Uncaught.h"

#include <cstdio>
#include <new>

#include "platform/mainloop/MainLoop.h"

namespace tamsel::Uncaught {
namespace {

using Listener = std::function<void(const std::string&)>;

// For the main thread.
Listener& listener() {
  static Listener current;
  return current;
}

void tellListener(const std::string& words) {
  if (listener()) {
    listener()(words);
  } else {
    std::fprintf(stderr, "Tamsel: %s\n", words.c_str());
  }
}

}  // namespace

void setListener(Listener newListener) {
  listener() = std::move(newListener);
}

std::string sentence(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const std::bad_alloc&) {
    return "There is not enough memory.";
  } catch (const std::exception& known) {
    return known.what();
  } catch (...) {
    return "Something went wrong that has no name.";
  }
}

void tell(const std::exception_ptr& exception) noexcept {
  try {
    MainLoop::call(nullptr, [words = sentence(exception)] { tellListener(words); });
  } catch (...) {
    std::fputs("Tamsel: There is not enough memory to say what went wrong.\n", stderr);
  }
}

}  // namespace tamsel::Uncaught
