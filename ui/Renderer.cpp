#include "ui/Renderer.h"

#include <epoxy/gl.h>
#include <gtk/gtk.h>

#include <memory>
#include <string_view>

namespace tamsel::Renderer {
namespace {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};

// Whether OpenGL is imitated. Not if there is none, which the toolkit notices itself.
bool isOpenGLSoftware(GdkDisplay* display) {
  const std::unique_ptr<GdkGLContext, Unref> context(
      gdk_display_create_gl_context(display, nullptr));
  if (context == nullptr || gdk_gl_context_realize(context.get(), nullptr) == FALSE) return false;
  gdk_gl_context_make_current(context.get());
  const auto* text = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  const std::string_view name = text == nullptr ? "" : text;
  gdk_gl_context_clear_current();
  // Mesa's two.
  return name.find("llvmpipe") != std::string_view::npos ||
         name.find("softpipe") != std::string_view::npos;
}

}  // namespace

void chooseForDisplay() {
  GdkDisplay* display = gdk_display_get_default();
  if (g_getenv("GSK_RENDERER") != nullptr || !isOpenGLSoftware(display)) return;
  // As the variable does, which cannot be set safely once there are threads.
  static char renderer[] = "cairo";
  g_object_set_data(G_OBJECT(display), "gsk-renderer", renderer);
}

}  // namespace tamsel::Renderer
