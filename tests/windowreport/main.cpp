// Starts the program, waits until its first page is shown under its rules, saves a picture of the
// window, prints what the window says of them, and closes it. For machines without a screen.

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gio/gio.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/AccessibleApp.h"

namespace {

using tamsel::test::AccessibleApp;
using tamsel::test::waitUntil;

constexpr const char* countSuffix = " blocked on this page";

// The largest window on the display.
Window largestWindow(Display* display) {
  Window root = 0;
  Window parent = 0;
  Window* children = nullptr;
  unsigned count = 0;
  XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count);
  Window largest = root;
  int most = 0;
  for (unsigned i = 0; i < count; ++i) {
    XWindowAttributes is;
    XGetWindowAttributes(display, children[i], &is);
    if (is.map_state == IsViewable && is.width * is.height > most) {
      most = is.width * is.height;
      largest = children[i];
    }
  }
  XFree(children);
  return largest;
}

void savePicture(const std::string& path) {
  const std::unique_ptr<Display, int (*)(Display*)> display(XOpenDisplay(nullptr), XCloseDisplay);
  if (display == nullptr) throw std::runtime_error("There is no X display.");
  const Window window = largestWindow(display.get());
  XWindowAttributes is;
  XGetWindowAttributes(display.get(), window, &is);
  XImage* image = XGetImage(display.get(), window, 0, 0, static_cast<unsigned>(is.width),
                            static_cast<unsigned>(is.height), AllPlanes, ZPixmap);
  if (image == nullptr) throw std::runtime_error("The window cannot be seen.");
  const auto width = static_cast<std::size_t>(is.width);
  std::vector<guchar> pixels;
  pixels.reserve(width * static_cast<std::size_t>(is.height) * 3);
  for (int y = 0; y < is.height; ++y) {
    for (int x = 0; x < is.width; ++x) {
      const unsigned long pixel = XGetPixel(image, x, y);
      for (const unsigned shift : {16U, 8U, 0U}) {
        pixels.push_back(static_cast<guchar>(pixel >> shift));
      }
    }
  }
  XDestroyImage(image);
  GdkPixbuf* picture =
      gdk_pixbuf_new_from_data(pixels.data(), GDK_COLORSPACE_RGB, FALSE, 8, is.width, is.height,
                               static_cast<int>(width * 3), nullptr, nullptr);
  GError* error = nullptr;
  const bool isSaved = gdk_pixbuf_save(picture, path.c_str(), "png", &error, nullptr) != FALSE;
  g_object_unref(picture);
  if (!isSaved) throw std::runtime_error(error->message);
}

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
  savePicture(picturePath);

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
