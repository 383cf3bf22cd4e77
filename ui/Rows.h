#pragma once

#include <gtkmm/listitem.h>
#include <gtkmm/signallistitemfactory.h>
#include <gtkmm/widget.h>

#include <functional>
#include <map>
#include <optional>

#include "ui/RowModel.h"
#include "ui/Widgets.h"

namespace tamsel {

/// Whether the lines of a list are only read, or can be chosen as well.
enum class Lines { areRead, canBeChosen };

/// The rows of a list or a column over a RowModel: widgets of one kind, of which only those on
/// screen exist. They are drawn when they come on screen, and by `draw`.
template <typename Row>
class Rows {
 public:
  using Make = std::function<Row*()>;
  using Draw = std::function<void(Row&, guint position)>;

  using Label = std::function<Gtk::Widget&(Row&)>;

  /// `make` makes a managed widget; `drawRow` has it show what belongs to a position; `label`, if
  /// there is one, tells what names the row for those who cannot see it.
  Rows(Make make, Draw drawRow, Label label = {}, Lines lines = Lines::areRead)
      : draw_(std::move(drawRow)) {
    factory_->signal_setup().connect([make, lines](const Glib::RefPtr<Gtk::ListItem>& item) {
      item->set_activatable(lines == Lines::canBeChosen);
      item->set_child(*make());
    });
    factory_->signal_bind().connect([this, label](const Glib::RefPtr<Gtk::ListItem>& item) {
      auto* row = dynamic_cast<Row*>(item->get_child());
      if (label) nameLine(*row, label(*row));
      shown_[row] = item->get_position();
      draw_(*row, item->get_position());
    });
    factory_->signal_unbind().connect([this](const Glib::RefPtr<Gtk::ListItem>& item) {
      shown_.erase(dynamic_cast<Row*>(item->get_child()));
    });
  }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  const Glib::RefPtr<Gtk::SignalListItemFactory>& factory() const { return factory_; }

  /// The position of the row in this widget of the toolkit's; nothing if there is none in it.
  std::optional<guint> positionIn(const Gtk::Widget& line) const {
    for (const auto& [row, position] : shown_) {
      if (row->get_parent() == &line) return position;
    }
    return std::nullopt;
  }

  /// Draws the rows that are shown.
  void draw() {
    for (const auto& [row, position] : shown_) draw_(*row, position);
  }

 private:
  // The toolkit's widget around a row, or around all cells of one, has the focus.
  static void nameLine(Gtk::Widget& row, Gtk::Widget& label) {
    Gtk::Widget* line = row.get_parent();
    const auto isLine = [](const Glib::ustring& node) { return node == "row" || node == "child"; };
    while (line != nullptr && !isLine(line->get_css_name())) line = line->get_parent();
    if (line != nullptr) setLabel(*line, label);
  }

  Draw draw_;
  std::map<Row*, guint> shown_;
  Glib::RefPtr<Gtk::SignalListItemFactory> factory_ = Gtk::SignalListItemFactory::create();
};

}  // namespace tamsel
