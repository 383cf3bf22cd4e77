#include "ui/Redraw.h"

#include <glibmm/main.h>

#include <utility>

namespace tamsel {

Redraw::Redraw(Gtk::Widget& widget, std::function<void()> draw)
    : widget_(widget), draw_(std::move(draw)) {
  connections_.emplace_back(widget.signal_map().connect([this] {
    if (isStale_) this->draw();
  }));
}

Redraw::~Redraw() {
  idle_.disconnect();
  for (sigc::connection& connection : connections_) connection.disconnect();
}

void Redraw::follow(ChangeSignal& willChange) {
  connections_.emplace_back(willChange.connect([this] { schedule(); }));
}

void Redraw::schedule() {
  isStale_ = true;
  if (!widget_.get_mapped() || idle_.connected()) return;
  const auto onIdle = [this] {
    // Hidden since: it waits until it is shown again.
    if (widget_.get_mapped()) this->draw();
    return false;
  };
  // Just before the toolkit lays out and paints.
  idle_ = Glib::signal_idle().connect(onIdle, Glib::PRIORITY_HIGH_IDLE);
}

void Redraw::draw() {
  isStale_ = false;
  draw_();
}

}  // namespace tamsel
