#pragma once

#include <gtkmm/box.h>
#include <gtkmm/label.h>
#include <gtkmm/spinner.h>

#include "state/AppState.h"
#include "ui/Redraw.h"

namespace tamsel {

/// The tab with the filter lists.
class ListsView : public Gtk::Box {
 public:
  explicit ListsView(AppState& app);

 private:
  void draw();

  AppState& app_;
  Gtk::Spinner working_;
  Gtk::Label* status_ = nullptr;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
