#include "ui/WebViewHost.h"

#include <gtkmm/widget.h>

namespace tamsel {

WebViewHost::WebViewHost(const WebView& webView) {
  add_css_class("outlined");
  Gtk::Widget* widget = Glib::wrap(webView.widget());
  widget->set_expand();
  append(*widget);
}

}  // namespace tamsel
