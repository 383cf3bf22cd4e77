#include "platform/webview/Downloads.h"

#include <utility>

#include "platform/mainloop/Signals.h"

namespace tamsel {
Downloads::Downloads(WebKitNetworkSession* session, WebKitWebView* view,
                     std::function<void(const std::string&)> onRefused)
    : session_(session), view_(view), onRefused_(std::move(onRefused)) {
  const auto onSignal = [](WebKitNetworkSession*, WebKitDownload* download, Downloads* self) {
    if (webkit_download_get_web_view(download) == self->view_) self->onStarted(download);
  };
  connect(session_, "download-started", onSignal, this);
}

Downloads::~Downloads() {
  g_signal_handlers_disconnect_by_data(session_, this);
  for (const auto& download : started_) {
    g_signal_handlers_disconnect_by_data(download.get(), this);
    webkit_download_cancel(download.get());
  }
}

void Downloads::onStarted(WebKitDownload* download) {
  // What it would be called is known later; nothing has been written then.
  started_.emplace(WEBKIT_DOWNLOAD(g_object_ref(download)));
  const auto onName = [](WebKitDownload* started, const char* name, Downloads* self) -> gboolean {
    self->onRefused_(text(name));
    webkit_download_cancel(started);
    return TRUE;
  };
  connect(download, "decide-destination", onName, this);
  const auto onFinished = [](WebKitDownload* ended, Downloads* self) {
    g_signal_handlers_disconnect_by_data(ended, self);
    std::erase_if(self->started_, [ended](const auto& each) { return each.get() == ended; });
  };
  connect(download, "finished", onFinished, this);
}

std::string Downloads::fileName(WebKitURIResponse* response) {
  std::string suggested = text(webkit_uri_response_get_suggested_filename(response));
  if (!suggested.empty()) return suggested;
  const std::string url = text(webkit_uri_response_get_uri(response));
  const std::string path = url.substr(0, url.find_first_of("?#"));
  std::string name = path.substr(path.rfind('/') + 1);  // npos + 1 is 0
  return name.empty() ? url : name;
}

}  // namespace tamsel
