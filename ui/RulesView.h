#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/columnview.h>
#include <gtkmm/dropdown.h>
#include <gtkmm/entry.h>
#include <gtkmm/inscription.h>
#include <gtkmm/label.h>
#include <gtkmm/stringlist.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "state/AppState.h"
#include "ui/Redraw.h"
#include "ui/Rows.h"

namespace tamsel {

/// A skipped line and why it was.
class SkippedRow : public Gtk::Box {
 public:
  SkippedRow();

  void show(const SkippedRule& skipped);

  Gtk::Label& line() { return *line_; }

 private:
  Gtk::Label* line_;
  Gtk::Inscription reason_;
};

/// The tab with what the last rebuild produced.
class RulesView : public Gtk::Box {
 public:
  explicit RulesView(AppState& app);

 private:
  // A list, or the custom rules.
  struct Source {
    Uuid id;
    std::string name;
    bool isEnabled;
  };

  Gtk::Widget& makeHeader();
  Gtk::Widget& makeCounts();
  void addColumn(Gtk::ColumnView& table, const char* title,
                 const std::function<std::string(const Source&)>& text);
  Gtk::Widget& makeSkippedHeader();
  Gtk::Widget& makeSkipped();
  void draw();
  void drawPicker();
  void drawSkipped();
  // Of the lists and, after them, the custom rules.
  std::size_t sourceCount() const;
  Source source(std::size_t index) const;
  ListStats statsOf(const Source& list) const;

  AppState& app_;
  Gtk::Label* total_ = nullptr;
  Gtk::Button export_;
  Gtk::Label* compileError_ = nullptr;
  Gtk::Label* truncated_ = nullptr;

  Glib::RefPtr<RowModel> counts_ = RowModel::create();
  std::vector<std::unique_ptr<Rows<Gtk::Label>>> columns_;

  Gtk::Label* skippedTitle_ = nullptr;
  Glib::RefPtr<Gtk::StringList> choices_ = Gtk::StringList::create({});
  // Which list each choice after the first is.
  std::vector<Uuid> choiceIds_;
  Gtk::DropDown picker_;
  sigc::connection onPick_;
  std::optional<Uuid> listFilter_;
  Gtk::Entry search_;
  // Where the entries that are listed stand among all that were skipped.
  std::vector<std::size_t> shown_;
  Glib::RefPtr<RowModel> skipped_ = RowModel::create();
  Rows<SkippedRow> skippedRows_;
  Redraw redraw_{*this, [this] { draw(); }};
  Redraw redrawSkipped_{*this, [this] { drawSkipped(); }};
};

}  // namespace tamsel
