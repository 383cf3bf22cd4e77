#pragma once

#include <gtkmm/widget.h>

#include <functional>
#include <vector>

#include "platform/mainloop/Observable.h"

namespace tamsel {

/// Has a view drawn anew after something that it shows has changed: once for all the changes of a
/// turn of the main loop, and only while the view is shown. When it comes to be shown, it is drawn
/// at once.
class Redraw {
 public:
  /// The widget must outlive this.
  Redraw(Gtk::Widget& widget, std::function<void()> draw);
  ~Redraw();
  Redraw(const Redraw&) = delete;
  Redraw& operator=(const Redraw&) = delete;

  /// Draws after each emission. The signal may go first.
  void follow(ChangeSignal& willChange);

  void schedule();

 private:
  void draw();

  Gtk::Widget& widget_;
  std::function<void()> draw_;
  bool isStale_ = true;
  sigc::connection idle_;
  std::vector<sigc::connection> connections_;
};

}  // namespace tamsel
