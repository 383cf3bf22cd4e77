#pragma once

#include <webkit/webkit.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tamsel {

/// The program leaves a page for another, or has it stop, and sees whether the page lets it. A page
/// whose process does not answer, or that goes elsewhere itself instead, has to be ended. For the
/// main thread.
class Departure {
 public:
  /// The page is asked at once. `onStuck` is called when it has not let the program go in this
  /// time; this may be destroyed in it. `again` is what to do when the page has been ended.
  Departure(WebKitWebView* page, std::chrono::milliseconds patience, std::function<void()> onStuck,
            std::function<void()> again);
  ~Departure();
  Departure(const Departure&) = delete;
  Departure& operator=(const Departure&) = delete;

  const std::function<void()>& again() const { return again_; }

  /// Where it leads, in the ways that this may be written; nowhere if this is not called.
  void leadTo(std::vector<std::string> urls) { urls_ = std::move(urls); }

  /// Whether the page begins to go somewhere else, which is to be ignored.
  bool isHinderedBy(WebKitNavigationAction* action);

  /// What was wanted has begun.
  void hasBegun() { hasBegun_ = true; }

  /// A person is asked something meanwhile: no time passes.
  void pause();
  void resume();

 private:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };

  void onPatienceEnded();

  std::chrono::milliseconds patience_;
  std::function<void()> onStuck_, again_;
  std::vector<std::string> urls_;
  bool isAnswered_ = false, hasBegun_ = false, isHindered_ = false;
  guint timer_ = 0;
  std::unique_ptr<GCancellable, Unref> question_{g_cancellable_new()};
};

}  // namespace tamsel
