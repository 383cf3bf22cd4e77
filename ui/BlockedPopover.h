#pragma once

#include <giomm/simpleaction.h>
#include <gtkmm/box.h>
#include <gtkmm/label.h>
#include <gtkmm/listview.h>
#include <gtkmm/popover.h>
#include <gtkmm/popovermenu.h>
#include <gtkmm/stack.h>

#include <optional>
#include <string>
#include <vector>

#include "browser/BrowserModel.h"
#include "ui/Redraw.h"
#include "ui/Rows.h"

namespace tamsel {

/// The requests that were blocked on the page, as they come.
class BlockedPopover : public Gtk::Popover {
 public:
  explicit BlockedPopover(BrowserModel& browser);

  /// The user wants to know more about this request.
  sigc::signal<void(const std::string& url)> chosen;

 private:
  Gtk::Widget& makeContent();
  void addMenu();
  void addKeys();
  void draw();
  void choose(guint position);
  void copy(const std::string& text);
  std::optional<std::string> urlIn(const Gtk::Widget* line) const;
  Gtk::Widget* lineAt(double x, double y);
  void showMenu(Gtk::Widget* line, double x, double y);

  BrowserModel& browser_;
  // What is listed: a line that is chosen is the one that was read, even if another page has begun.
  std::vector<std::string> urls_;
  Glib::RefPtr<RowModel> lines_ = RowModel::create();
  Rows<Gtk::Label> rows_;
  Gtk::Box column_{Gtk::Orientation::VERTICAL, 6};
  Gtk::ListView list_;
  Gtk::Stack content_;
  Gtk::Label* omitted_ = nullptr;
  Gtk::PopoverMenu* menu_ = nullptr;
  Glib::RefPtr<Gio::SimpleAction> copyLine_;
  // What the menu was opened on.
  std::optional<std::string> menuURL_;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
