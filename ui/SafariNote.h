#pragma once

#include <gtkmm/box.h>

namespace tamsel {

/// Says at the foot of every tab what the program filters, and what not.
class SafariNote : public Gtk::Box {
 public:
  SafariNote();
};

}  // namespace tamsel
