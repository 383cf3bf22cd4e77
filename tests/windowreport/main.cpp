// Starts the program, waits until its first page is shown under its rules, saves a picture of the
// window, prints what the window says of them, and closes it. For machines without a screen.

#include <gio/gio.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "tests/support/AccessibleApp.h"
#include "tests/support/Picture.h"

namespace {

using tamsel::test::AccessibleApp;
using tamsel::test::savePicture;
using tamsel::test::waitUntil;

constexpr const char* countSuffix = " blocked on this page";

void report(const std::string& program, const std::string& picturePath) {
  GError* error = nullptr;
  GSubprocess* process =
      g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, &error, program.c_str(), nullptr);
  if (process == nullptr) throw std::runtime_error(error->message);
  const AccessibleApp app(process);

  waitUntil("the rules", [&app] {
    const auto rules = app.labelWithSuffix(" rules active");
    return rules && *rules != "0 rules active";
  });
  // The button says what it does: it would stop a page that loads.
  waitUntil("the page", [&app] { return app.find(ATSPI_ROLE_PUSH_BUTTON, "Reload") != nullptr; });
  waitUntil("blocked requests", [&app] {
    const auto count = app.labelWithSuffix(countSuffix);
    return count && *count != std::string("0") + countSuffix;
  });
  // The count is what it is when it has not changed for a while.
  std::string count;
  for (int same = 0; same < 10;) {
    const std::string now = app.labelWithSuffix(countSuffix).value_or("");
    same = now == count ? same + 1 : 0;
    count = now;
    g_usleep(100000);
  }
  savePicture("Tamsel", picturePath);

  app.act(ATSPI_ROLE_PAGE_TAB, "Lists");
  std::string status;
  waitUntil("the status line", [&app, &status] {
    status = app.labelWithPrefix("Compile").value_or("");
    return !status.empty();
  });
  std::printf("%s\n%s\n", status.c_str(), count.c_str());

  app.act(ATSPI_ROLE_FRAME, "Tamsel", "window.close");
  if (g_subprocess_wait_check(process, nullptr, &error) == FALSE) {
    throw std::runtime_error(std::string("The program did not end well: ") + error->message);
  }
  g_object_unref(process);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: tamsel_window_report PROGRAM PICTURE.png\n");
    return 2;
  }
  try {
    report(argv[1], argv[2]);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tamsel_window_report: %s\n", failure.what());
    return 1;
  }
}
