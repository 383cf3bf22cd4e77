#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/entry.h>
#include <gtkmm/menubutton.h>
#include <gtkmm/spinner.h>
#include <gtkmm/switch.h>

#include "browser/BrowserModel.h"
#include "state/AppState.h"
#include "ui/BlockedPopover.h"
#include "ui/Redraw.h"
#include "ui/Widgets.h"

namespace tamsel {

/// The tab with the built-in browser.
class BrowserView : public Gtk::Box {
 public:
  BrowserView(AppState& app, BrowserModel& browser);

  /// The user has chosen a blocked request of the page that is shown.
  sigc::signal<void(const std::string& url, const std::string& pageURL)> blockedChosen;

 private:
  Gtk::Widget& makeToolbar();
  Gtk::Widget& makeStatusRow();
  void addShortcuts();
  void draw();
  void drawAddress();
  void go();
  void reloadOrStop();
  void editAddress();

  AppState& app_;
  BrowserModel& browser_;

  Gtk::Button back_, forward_, reload_;
  Gtk::Entry address_;
  // The model's address that the field was last set to.
  std::string shownAddress_;
  Gtk::MenuButton blocked_;
  BlockedPopover popover_;
  Gtk::Label* blockedText_ = nullptr;
  Gtk::Label* rulesText_ = nullptr;
  Gtk::Spinner compiling_;
  Gtk::Label* pauseText_ = nullptr;
  Gtk::Switch pause_;
  sigc::connection onPause_;
  Gtk::Label* status_ = nullptr;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
