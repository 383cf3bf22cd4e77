#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>
#include <gtkmm/spinner.h>
#include <gtkmm/switch.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/mainloop/Task.h"
#include "state/AppState.h"
#include "ui/AddListSheet.h"
#include "ui/Redraw.h"
#include "ui/Rows.h"

namespace tamsel {

/// One filter list in the tab with the lists.
class ListRow : public Gtk::Box {
 public:
  explicit ListRow(AppState& app);

  void show(const FilterList& list);

  Gtk::Label& name() { return *name_; }

 private:
  AppState& app_;
  Uuid id_;
  Gtk::Switch enabled_;
  sigc::connection onToggle_;
  Gtk::Label* name_;
  Gtk::Label* subtitle_;
  Gtk::Label* error_;
  Gtk::Label* count_;
  Gtk::Button refresh_, remove_;
};

/// The tab with the filter lists.
class ListsView : public Gtk::Box {
 public:
  explicit ListsView(AppState& app);

 private:
  Gtk::Widget& makeHeader();
  Gtk::Widget& makeList();
  Gtk::Widget& makeStatusRow();
  void draw();
  void showAddSheet();
  Task<void> download(std::string name, std::string address);

  AppState& app_;
  Gtk::Button refreshAll_;
  Glib::RefPtr<RowModel> model_ = RowModel::create();
  Rows<ListRow> rows_;
  Gtk::Spinner working_;
  Gtk::Label* status_ = nullptr;
  Gtk::Label* compileError_ = nullptr;
  // Whether it is still open when a download ends, nobody knows.
  std::shared_ptr<AddListSheet> sheet_;
  TaskScope downloads_;
  Redraw redraw_{*this, [this] { draw(); }};
};

}  // namespace tamsel
