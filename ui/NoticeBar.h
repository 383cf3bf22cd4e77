#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>

#include "state/AppState.h"
#include "ui/Redraw.h"

namespace tamsel {

/// Says above every tab what somebody should know, until it is no longer so or they have seen it.
class NoticeBar : public Gtk::Box {
 public:
  explicit NoticeBar(AppState& app);

 private:
  void draw();

  AppState& app_;
  // The bar itself is always there: what is hidden is not drawn anew.
  Gtk::Box row_{Gtk::Orientation::HORIZONTAL, 8};
  Gtk::Label* text_;
  Gtk::Button dismiss_;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
