#pragma once

#include <gtkmm/popover.h>
#include <gtkmm/stack.h>
#include <gtkmm/stringlist.h>

#include "browser/BrowserModel.h"
#include "ui/Redraw.h"

namespace tamsel {

/// The requests that were blocked on the page, as they come.
class BlockedPopover : public Gtk::Popover {
 public:
  explicit BlockedPopover(BrowserModel& browser);

 private:
  void draw();

  BrowserModel& browser_;
  Glib::RefPtr<Gtk::StringList> lines_ = Gtk::StringList::create({});
  Gtk::Stack content_;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
