#pragma once

#include <libsoup/soup.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "platform/glib/GObjects.h"
#include "platform/mainloop/Awaiting.h"

namespace tamsel {

/// Watches over a message that is sent, with all its redirects, and gives it up when too little or
/// too much comes. For the main thread; lives as long as the message is under way.
class Transfer {
 public:
  /// `patience` is how long less than 1 KB/s on average may come. The message must not be sent yet.
  Transfer(SoupMessage* message, std::chrono::milliseconds patience);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// As gioCall, for what the transfer waits for: throws GioError when it is given up as well.
  template <typename Begin, typename Finish>
  auto call(Begin begin, Finish finish) {
    return gioCall(
        [this, begin = std::move(begin)](GCancellable* cancellable, GAsyncReadyCallback callback,
                                         gpointer data) {
          current_.reset(G_CANCELLABLE(g_object_ref(cancellable)));
          // What was waited for when it was given up may have been there already.
          if (!whyGivenUp_.empty()) g_cancellable_cancel(cancellable);
          begin(cancellable, callback, data);
        },
        std::move(finish));
  }

  /// From now on what comes is the body of the answer itself.
  void onAnswer() { isAnswered_ = true; }

  /// Why it was given up, in a sentence; empty if it was not.
  const std::string& whyGivenUp() const { return whyGivenUp_; }

 private:
  void onTick();
  void onInterimAnswer();
  void giveUp(const char* why);

  SoupMessage* message_;
  guint tick_ = 0;
  std::uint64_t minimum_;
  std::uint64_t received_ = 0;
  /// As the message has it, which begins anew with each redirect.
  std::uint64_t receivedOfThis_ = 0;
  /// What had been received at each tick of the last time of patience.
  std::deque<std::uint64_t> before_;
  int interimAnswers_ = 0;
  bool isAnswered_ = false;
  GObjectPtr<GCancellable> current_;
  std::string whyGivenUp_;
};

}  // namespace tamsel
