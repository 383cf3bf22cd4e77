#pragma once

#include <gtkmm/box.h>
#include <gtkmm/label.h>
#include <gtkmm/textview.h>

#include "state/AppState.h"
#include "ui/Redraw.h"

namespace tamsel {

/// The tab with the user's own filter lines.
class CustomRulesView : public Gtk::Box {
 public:
  explicit CustomRulesView(AppState& app);

 private:
  Gtk::Widget& makeHeader();
  Gtk::Widget& makeEditor();
  void draw();
  void apply();

  AppState& app_;
  Gtk::TextView editor_;
  Gtk::Label* summary_ = nullptr;
  sigc::connection onEdit_;
  // While the change of the rules comes from the editor.
  bool isEditing_ = false;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
