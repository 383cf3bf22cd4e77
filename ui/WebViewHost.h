#pragma once

#include <gtkmm/box.h>

#include "platform/webview/WebView.h"

namespace tamsel {

/// Shows a web view, which stays its owner's: its page lives on when this is hidden or gone.
class WebViewHost : public Gtk::Box {
 public:
  explicit WebViewHost(const WebView& webView);
};

}  // namespace tamsel
