#pragma once

#include <gtkmm/box.h>

namespace tamsel {

/// The tab with a test of single URLs.
class TesterView : public Gtk::Box {
 public:
  TesterView();
};

}  // namespace tamsel
