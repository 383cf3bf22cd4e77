#pragma once

#include <webkit/webkit.h>

#include <functional>
#include <set>
#include <string>

#include "platform/glib/GObjects.h"

namespace tamsel {

/// Refuses every download of a view before anything of it is written. For the main thread.
class Downloads {
 public:
  /// `onRefused` is told what the file would have been called.
  Downloads(WebKitNetworkSession* session, WebKitWebView* view,
            std::function<void(const std::string&)> onRefused);
  ~Downloads();
  Downloads(const Downloads&) = delete;
  Downloads& operator=(const Downloads&) = delete;

  /// What an answer would be called as a file.
  static std::string fileName(WebKitURIResponse* response);

 private:
  void onStarted(WebKitDownload* download);

  WebKitNetworkSession* session_;
  WebKitWebView* view_;
  std::function<void(const std::string&)> onRefused_;
  // Those that have no name yet.
  std::set<GObjectPtr<WebKitDownload>> started_;
};

}  // namespace tamsel
