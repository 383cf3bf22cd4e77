#pragma once

#include <gtkmm/box.h>

#include "browser/BrowserModel.h"
#include "state/AppState.h"

namespace tamsel {

/// All that is in the window: a header with the tabs' names, and the tab that is shown.
class ContentView : public Gtk::Box {
 public:
  ContentView(AppState& app, BrowserModel& browser);
};

}  // namespace tamsel
