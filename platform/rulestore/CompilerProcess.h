#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>

#include "platform/files/Descriptor.h"

namespace tamsel {

/// A running helper process, which compiles one document after the other with WebKit. Text that
/// WebKit does not survive ends the process and not its user.
///
/// For one thread, and for as long as it lives: the process is killed when that thread ends.
class CompilerProcess {
 public:
  using Clock = std::chrono::steady_clock;

  /// The process cannot be started, or ended before it had answered; `what` is how, in words.
  struct Died : std::runtime_error {
    Died(const std::string& how, int endSignal, std::string lastWords, bool neededMemory = false)
        : std::runtime_error(how),
          signal(endSignal),
          neededTooMuchMemory(neededMemory),
          log(std::move(lastWords)) {}
    /// The signal that ended it, or 0.
    int signal;
    /// It ended itself because it needed more memory than it may have.
    bool neededTooMuchMemory;
    /// What it wrote to standard error, as in Answer.
    std::string log;
  };
  struct TimedOut : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  struct Stopped : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  struct Answer {
    bool compiled;
    /// Why the document is refused, in WebKit's words; empty when it is compiled.
    std::string reason;
    /// What WebKit wrote to standard error meanwhile, at most `maxLogLength` bytes.
    std::string log;
  };

  static constexpr std::size_t maxLogLength = std::size_t{4} << 20;

  /// Starts the program `helper`. `folder` takes the compiled documents and `workFolder` WebKit's
  /// work files; both must exist, and no other process may use `workFolder`. Throws Died when it
  /// cannot be started; everything else comes to light when it is used.
  CompilerProcess(const std::string& helper, const std::string& folder,
                  const std::string& workFolder);
  CompilerProcess(const CompilerProcess&) = delete;
  CompilerProcess& operator=(const CompilerProcess&) = delete;
  ~CompilerProcess();

  /// The version of the WebKit that compiles, for instance "2.50.6". Waits until the process has
  /// started. Throws like `compile`.
  const std::string& webKitVersion(Clock::time_point deadline, const std::stop_token& stop);

  /// Compiles the document that the pieces make up, into "ContentRuleList-" and the identifier.
  /// Throws Died, TimedOut and Stopped; the process is of no use after any of them.
  Answer compile(const std::string& identifier, std::span<const std::string_view> document,
                 Clock::time_point deadline, const std::stop_token& stop);

 private:
  struct Reply;
  Reply exchange(std::span<const std::string_view> request, Clock::time_point deadline,
                 const std::stop_token& stop);
  struct End {
    // That ended it, or 0.
    int signal;
    int exitCode;
  };
  // Kills the process if it has not ended by itself within `grace`.
  End end(std::chrono::milliseconds grace);

  pid_t process_ = -1;
  Descriptor stream_;
  Descriptor errors_;
  Descriptor wakeUp_;  // becomes readable when a stop is requested
  std::string webKitVersion_;
};

}  // namespace tamsel
