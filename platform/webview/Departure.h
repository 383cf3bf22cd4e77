#pragma once

#include <webkit/webkit.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/glib/GObjects.h"
#include "platform/mainloop/Timeout.h"

namespace tamsel {

/// The program leaves a page for another, or has it stop, and sees whether the page lets it. A page
/// whose process does not answer, or that goes elsewhere itself instead, has to be ended. For the
/// main thread.
class Departure {
 public:
  enum class End {
    /// The page has stopped, or time has passed and nothing speaks against going on.
    let,
    /// The page has to be ended.
    stuck,
  };
  /// May destroy the departure.
  using OnEnd = std::function<void(End)>;

  /// The page is asked at once. `again` is what to do when the page has been ended.
  Departure(WebKitWebView* page, std::chrono::milliseconds patience, OnEnd onEnd,
            std::function<void()> again);
  ~Departure();
  Departure(const Departure&) = delete;
  Departure& operator=(const Departure&) = delete;

  const std::function<void()>& again() const { return again_; }

  /// Where it leads, in the ways that this may be written. If this is not called, the page is only
  /// to stop.
  void leadTo(std::vector<std::string> urls) { urls_ = std::move(urls); }

  bool isLeading() const { return !urls_.empty(); }

  /// The page begins to go somewhere. Whether this is something else, which is to be ignored.
  bool isHinderedBy(WebKitNavigationAction* action);
  /// A page has come. Whether it is the one that was wanted.
  bool endsAt(std::string_view url);
  /// The page that was wanted is elsewhere.
  void isRedirected() { isRedirected_ = true; }
  /// The page has begun to go, or has gone, somewhere else.
  bool isHindered() const { return isHindered_; }

  /// A person is asked something meanwhile: no time passes.
  void pause() { timeout_.stop(); }
  void resume() { timeout_.start(patience_); }

 private:
  bool leadsTo(std::string_view url) const;
  void onAnswer();
  void onPatienceEnded();

  std::chrono::milliseconds patience_;
  OnEnd onEnd_;
  std::function<void()> again_;
  std::vector<std::string> urls_;
  bool isAnswered_ = false, isHindered_ = false, isRedirected_ = false;
  Timeout timeout_{[this] { onPatienceEnded(); }};
  GObjectPtr<GCancellable> question_{g_cancellable_new()};
};

}  // namespace tamsel
