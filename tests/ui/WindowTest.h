#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/support/AccessibleApp.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel::test {

/// The program itself in a home of its own, used as a person would: started, and with its rules
/// active.
class WindowTest : public testing::Test {
 protected:
  WindowTest() { start(); }
  ~WindowTest() override;

  void start();
  /// Closes the window; the exit code of the program.
  int close();
  /// Starts it once more, which shows what already runs; the exit code.
  int startAgain();

  AccessibleApp& window() { return *window_; }
  void showTab(const std::string& name);

  /// Waits until it is so. If that takes too long, the exception tells what the window shows.
  void await(const std::string& what, const std::function<bool()>& isSo);
  /// Each waits until a label of the tab that is shown begins, or ends, like this.
  void awaitText(const std::string& prefix);
  void awaitCount(const std::string& count);

  /// A file in the home, where the test may have its own too.
  std::string path(const std::string& name) const { return home_.path() + "/" + name; }
  std::string read(const std::string& name) const;
  void write(const std::string& name, const std::string& text) const;
  /// What is saved.
  std::string state() const { return read("Tamsel/state.json"); }

 private:
  GSubprocess* launch() const;

  TemporaryFolder home_;
  GSubprocess* process_ = nullptr;
  std::unique_ptr<AccessibleApp> window_;
};

}  // namespace tamsel::test
