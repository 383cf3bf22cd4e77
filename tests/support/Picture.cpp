#include "tests/support/Picture.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <gdk-pixbuf/gdk-pixbuf.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "tests/support/AccessibleApp.h"

namespace tamsel::test {
namespace {

struct Picture {
  int width = 0, height = 0;
  std::vector<guchar> pixels;  // red, green, blue

  bool operator==(const Picture&) const = default;
};

std::string titleOf(Display* display, Window window) {
  char* text = nullptr;
  const std::string title = XFetchName(display, window, &text) != 0 && text != nullptr ? text : "";
  XFree(text);
  return title;
}

std::optional<Window> findWindow(Display* display, const std::string& title) {
  Window root = 0;
  Window parent = 0;
  Window* children = nullptr;
  unsigned count = 0;
  XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count);
  const std::unique_ptr<Window, int (*)(void*)> windows(children, XFree);
  for (unsigned i = 0; i < count; ++i) {
    XWindowAttributes is;
    XGetWindowAttributes(display, children[i], &is);
    if (is.map_state == IsViewable && titleOf(display, children[i]) == title) return children[i];
  }
  return std::nullopt;
}

Picture take(Display* display, Window window) {
  XWindowAttributes is;
  XGetWindowAttributes(display, window, &is);
  XImage* image = XGetImage(display, window, 0, 0, static_cast<unsigned>(is.width),
                            static_cast<unsigned>(is.height), AllPlanes, ZPixmap);
  if (image == nullptr) throw std::runtime_error("The window cannot be seen.");
  Picture picture{is.width, is.height, {}};
  picture.pixels.reserve(static_cast<std::size_t>(is.width) * static_cast<std::size_t>(is.height) *
                         3);
  for (int y = 0; y < is.height; ++y) {
    for (int x = 0; x < is.width; ++x) {
      const unsigned long pixel = XGetPixel(image, x, y);
      for (const unsigned shift : {16U, 8U, 0U}) {
        picture.pixels.push_back(static_cast<guchar>(pixel >> shift));
      }
    }
  }
  XDestroyImage(image);
  return picture;
}

void save(const Picture& picture, const std::string& path) {
  GdkPixbuf* pixbuf =
      gdk_pixbuf_new_from_data(picture.pixels.data(), GDK_COLORSPACE_RGB, FALSE, 8, picture.width,
                               picture.height, picture.width * 3, nullptr, nullptr);
  GError* error = nullptr;
  gdk_pixbuf_save(pixbuf, path.c_str(), "png", &error, "compression", "9", nullptr);
  g_object_unref(pixbuf);
  if (error != nullptr) throw std::runtime_error(error->message);
}

}  // namespace

void savePicture(const std::string& title, const std::string& path) {
  constexpr gulong pause = 100000;  // µs, longer than a frame
  const std::unique_ptr<Display, int (*)(Display*)> display(XOpenDisplay(nullptr), XCloseDisplay);
  if (display == nullptr) throw std::runtime_error("There is no X display.");
  std::optional<Window> window;
  waitUntil("the window " + title, [&] {
    window = findWindow(display.get(), title);
    return window.has_value();
  });
  Picture last;
  waitUntil("a picture", [&] {
    g_usleep(pause);
    Picture next = take(display.get(), *window);
    std::swap(last, next);
    return last == next;
  });
  save(last, path);
}

}  // namespace tamsel::test
