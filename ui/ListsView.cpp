#include "ui/ListsView.h"

#include "ui/SafariNote.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 8;

}  // namespace

ListsView::ListsView(AppState& app) : Gtk::Box(Gtk::Orientation::VERTICAL, 10), app_(app) {
  set_margin(padding);
  append(*makeLabel("Filter lists", TextStyle::title));

  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  row->set_vexpand();
  row->set_valign(Gtk::Align::END);
  row->append(working_);
  status_ = makeLabel("", TextStyle::captionSecondary);
  status_->set_wrap();
  row->append(*status_);
  append(*row);
  append(*Gtk::make_managed<SafariNote>());
  redraw_.follow(app.objectWillChange);
}

void ListsView::draw() {
  const bool isWorking = *app_.isRefreshing || *app_.isCompiling;
  working_.set_visible(isWorking);
  working_.set_spinning(isWorking);
  setText(*status_, displayable(*app_.statusMessage));
}

}  // namespace tamsel
