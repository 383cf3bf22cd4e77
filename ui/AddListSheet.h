#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/entry.h>
#include <gtkmm/label.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/spinner.h>
#include <gtkmm/textview.h>
#include <gtkmm/togglebutton.h>
#include <gtkmm/window.h>

#include <functional>
#include <optional>
#include <string>

namespace tamsel {

/// Asks for a filter list: its address, or its text.
class AddListSheet : public Gtk::Window {
 public:
  struct Actions {
    std::function<void(const std::string& name, const std::string& text)> addText;
    /// The sheet waits until `finish` is called.
    std::function<void(const std::string& name, const std::string& address)> addAddress;
    /// The sheet was closed and may go.
    std::function<void()> closed;
  };

  explicit AddListSheet(Actions actions);

  /// Closes the sheet, or shows why the list was not added.
  void finish(const std::optional<std::string>& error);

 private:
  Gtk::Widget& makeModes();
  Gtk::Widget& makeContent();
  Gtk::Widget& makeButtons();
  void drawContent();
  void drawAdd();
  void add();

  Actions actions_;
  Gtk::ToggleButton fromAddress_{"From URL"}, pasted_{"Paste text"};
  Gtk::Entry name_, address_;
  Gtk::TextView text_;
  Gtk::ScrolledWindow* textPane_ = nullptr;
  Gtk::Label* error_ = nullptr;
  Gtk::Spinner busy_;
  Gtk::Button add_{"Add"};
  bool isBusy_ = false;
};

}  // namespace tamsel
