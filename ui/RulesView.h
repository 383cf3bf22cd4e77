#pragma once

#include <gtkmm/box.h>

namespace tamsel {

/// The tab with what the last rebuild produced.
class RulesView : public Gtk::Box {
 public:
  RulesView();
};

}  // namespace tamsel
