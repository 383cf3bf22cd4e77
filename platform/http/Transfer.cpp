#include "platform/http/Transfer.h"

#include <algorithm>

#include "platform/http/HttpClient.h"
#include "platform/mainloop/Signals.h"

namespace tamsel {
namespace {

constexpr std::int64_t slowestBytesPerSecond = 1000;
constexpr int ticksOfPatience = 120;
// "100 Continue" and such. libsoup would read them for ever, and on the main thread.
constexpr int maxInterimAnswers = 100;
// It also keeps the bodies of what it acts on itself, such as redirects.
constexpr std::uint64_t maxBeforeAnswer = std::uint64_t{16} << 20;
constexpr const char* hasNoAnswer = "The server does not come to its answer.";

}  // namespace

Transfer::Transfer(SoupMessage* message, std::chrono::milliseconds patience)
    : message_(message),
      minimum_(static_cast<std::uint64_t>(slowestBytesPerSecond * patience.count() / 1000)) {
  soup_message_add_flags(message, SOUP_MESSAGE_COLLECT_METRICS);
  const auto onInformational = [](SoupMessage*, Transfer* self) { self->onInterimAnswer(); };
  connect(message, "got-informational", onInformational, this);
  const auto onTime = [](gpointer self) -> gboolean {
    Uncaught::guard([self] { static_cast<Transfer*>(self)->onTick(); });
    return G_SOURCE_CONTINUE;
  };
  const auto interval = std::max<std::int64_t>(patience.count() / ticksOfPatience, 1);
  tick_ = g_timeout_add(static_cast<guint>(interval), onTime, this);
}

Transfer::~Transfer() {
  g_source_remove(tick_);
  g_signal_handlers_disconnect_by_data(message_, this);
}

void Transfer::onTick() {
  SoupMessageMetrics* metrics = soup_message_get_metrics(message_);
  const std::uint64_t now = soup_message_metrics_get_response_header_bytes_received(metrics) +
                            soup_message_metrics_get_response_body_bytes_received(metrics);
  received_ += now >= receivedOfThis_ ? now - receivedOfThis_ : now;
  receivedOfThis_ = now;
  if (!isAnswered_ && received_ > maxBeforeAnswer) return giveUp(hasNoAnswer);
  if (received_ > HttpClient::maxBodyLength) return giveUp(HttpClient::TooLarge().what());

  before_.push_back(received_);
  if (before_.size() <= ticksOfPatience) return;
  const std::uint64_t lately = received_ - before_.front();
  before_.pop_front();
  if (lately < minimum_) giveUp("The server sends too slowly.");
}

void Transfer::onInterimAnswer() {
  if (++interimAnswers_ == maxInterimAnswers) giveUp(hasNoAnswer);
}

void Transfer::giveUp(const char* why) {
  if (!whyGivenUp_.empty()) return;
  whyGivenUp_ = why;
  // May end the transfer, and this with it.
  const GObjectPtr<GCancellable> current = std::move(current_);
  if (current) g_cancellable_cancel(current.get());
}

}  // namespace tamsel
