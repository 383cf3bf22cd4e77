#include "tests/ui/WindowTest.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace tamsel::test {
namespace {

// Of the process, once it has ended; -1 if it did not exit by itself.
int exitCode(GSubprocess* process) {
  g_subprocess_wait(process, nullptr, nullptr);
  const bool hasExited = g_subprocess_get_if_exited(process) != FALSE;
  const int code = hasExited ? g_subprocess_get_exit_status(process) : -1;
  g_object_unref(process);
  return code;
}

}  // namespace

WindowTest::~WindowTest() {
  if (process_ == nullptr) return;
  g_subprocess_force_exit(process_);
  g_subprocess_wait(process_, nullptr, nullptr);
  g_object_unref(process_);
}

GSubprocess* WindowTest::launch() const {
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
  for (const char* name : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
    g_subprocess_launcher_setenv(launcher, name, home_.path().c_str(), TRUE);
  }
  // What the toolkit keeps until the end is not the program's.
  g_subprocess_launcher_setenv(launcher, "ASAN_OPTIONS", "detect_leaks=0", TRUE);
  GSubprocess* process = g_subprocess_launcher_spawn(launcher, nullptr, TAMSEL_PATH, nullptr);
  g_object_unref(launcher);
  if (process == nullptr) throw std::runtime_error("The program cannot be started.");
  return process;
}

void WindowTest::start() {
  process_ = launch();
  window_ = std::make_unique<AccessibleApp>(process_);
  waitUntil("the rules", [this] {
    const auto rules = window_->labelWithSuffix(" rules active");
    return rules && *rules != "0 rules active";
  });
}

int WindowTest::close() {
  window_->act(ATSPI_ROLE_FRAME, "Tamsel", "window.close");
  window_.reset();
  return exitCode(std::exchange(process_, nullptr));
}

int WindowTest::startAgain() {
  return exitCode(launch());
}

void WindowTest::showTab(const std::string& name) {
  window_->act(ATSPI_ROLE_PAGE_TAB, name);
}

void WindowTest::await(const std::string& what, const std::function<bool()>& isSo) {
  try {
    waitUntil(what, isSo);
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error(failure.what() +
                             (" There is " + testing::PrintToString(window_->labels())));
  }
}

void WindowTest::awaitText(const std::string& prefix) {
  await(prefix, [&] { return window_->labelWithPrefix(prefix).has_value(); });
}

void WindowTest::awaitCount(const std::string& count) {
  const std::string text = count + " blocked on this page";
  await(text, [&] { return window_->find(ATSPI_ROLE_LABEL, text) != nullptr; });
}

std::string WindowTest::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WindowTest::write(const std::string& name, const std::string& text) const {
  std::ofstream(path(name), std::ios::binary) << text;
}

}  // namespace tamsel::test
