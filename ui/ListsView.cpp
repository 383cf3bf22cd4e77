#include "ui/ListsView.h"

#include <glib.h>
#include <gtkmm/listview.h>
#include <gtkmm/noselection.h>
#include <gtkmm/window.h>

#include <utility>

#include "ui/Dates.h"
#include "ui/SafariNote.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 8;
constexpr int rowPadding = 3;

std::string subtitle(const FilterList& list) {
  std::string text = list.isBuiltIn ? "Bundled starter list" : list.url.value_or("Pasted text");
  if (list.updated) text += " · updated " + Dates::abbreviated(*list.updated);
  return text;
}

}  // namespace

ListRow::ListRow(AppState& app)
    : Gtk::Box(Gtk::Orientation::HORIZONTAL, 10),
      app_(app),
      name_(makeLabel("", TextStyle::heading)),
      subtitle_(makeLabel("", TextStyle::captionSecondary)),
      error_(makeLabel("", TextStyle::caption)),
      count_(makeLabel("", TextStyle::captionSecondary)) {
  set_margin_top(rowPadding);
  set_margin_bottom(rowPadding);

  enabled_.set_valign(Gtk::Align::CENTER);
  setLabel(enabled_, *name_);
  onToggle_ =
      enabled_.property_active().signal_changed().connect([this] { app_.toggle(Uuid(id_)); });
  append(enabled_);

  auto* texts = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 2);
  texts->set_hexpand();
  for (Gtk::Label* line : {name_, subtitle_}) line->set_single_line_mode();
  name_->set_ellipsize(Pango::EllipsizeMode::END);
  subtitle_->set_ellipsize(Pango::EllipsizeMode::MIDDLE);
  error_->add_css_class("error");
  wrapAnywhere(*error_);
  for (Gtk::Label* label : {name_, subtitle_, error_}) texts->append(*label);
  append(*texts);

  append(*count_);
  for (Gtk::Button* button : {&refresh_, &remove_}) {
    button->set_has_frame(false);
    button->set_valign(Gtk::Align::CENTER);
    setDescription(*button, *name_);
  }
  setSymbol(refresh_, "arrow.clockwise", "Refresh this list");
  refresh_.signal_clicked().connect([this] { app_.refresh(Uuid(id_)); });
  append(refresh_);
  setSymbol(remove_, "trash", "Remove list");
  remove_.add_css_class("error");
  remove_.signal_clicked().connect([this] { app_.remove(Uuid(id_)); });
  append(remove_);
}

void ListRow::show(const FilterList& list) {
  id_ = list.id;
  onToggle_.block();
  enabled_.set_active(list.enabled);
  onToggle_.unblock();
  setText(*name_, displayable(list.name));
  setText(*subtitle_, displayable(subtitle(list)));
  error_->set_visible(list.lastError.has_value());
  setText(*error_, "Last refresh failed: " + displayable(list.lastError.value_or("")));

  std::string count;
  const auto stats = app_.stats->find(list.id);
  if (!list.enabled) {
    count = "off";
  } else if (stats != app_.stats->end()) {
    const ListStats& made = stats->second;
    count = std::to_string(made.block + made.exception + made.cosmetic) + " rules";
  }
  setText(*count_, count);
  refresh_.set_visible(list.url.has_value());
  remove_.set_visible(!list.isBuiltIn);
}

ListsView::ListsView(AppState& app)
    : Gtk::Box(Gtk::Orientation::VERTICAL, 10),
      app_(app),
      rows_([&app] { return Gtk::make_managed<ListRow>(app); },
            [&app](ListRow& row, guint position) {
              if (position < app.lists->size()) row.show(app.lists.get()[position]);
            },
            [](ListRow& row) -> Gtk::Widget& { return row.name(); }) {
  set_margin(padding);
  append(makeHeader());
  append(makeList());
  append(makeStatusRow());
  append(*Gtk::make_managed<SafariNote>());
  redraw_.follow(app.objectWillChange);
}

Gtk::Widget& ListsView::makeHeader() {
  auto* header = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  Gtk::Label* title = makeLabel("Filter lists", TextStyle::title);
  title->set_hexpand();
  header->append(*title);

  auto* add = Gtk::make_managed<Gtk::Button>();
  setSymbolAndText(*add, "plus", "Add list…");
  add->signal_clicked().connect([this] { showAddSheet(); });
  header->append(*add);
  setSymbolAndText(refreshAll_, "arrow.clockwise", "Refresh all");
  refreshAll_.signal_clicked().connect([this] { app_.refresh(std::nullopt); });
  header->append(refreshAll_);
  return *header;
}

Gtk::Widget& ListsView::makeList() {
  auto* list = Gtk::make_managed<Gtk::ListView>(Gtk::NoSelection::create(model_), rows_.factory());
  list->add_css_class("rich-list");
  list->set_show_separators();
  Gtk::ScrolledWindow* scrolled = makeFramed(*list, "Filter lists");
  scrolled->set_vexpand();
  return *scrolled;
}

Gtk::Widget& ListsView::makeStatusRow() {
  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  row->append(working_);
  status_ = makeLabel("", TextStyle::captionSecondary);
  compileError_ = makeLabel("", TextStyle::caption);
  compileError_->add_css_class("error");
  for (Gtk::Label* label : {status_, compileError_}) {
    wrapAnywhere(*label);
    row->append(*label);
  }
  return *row;
}

void ListsView::draw() {
  refreshAll_.set_sensitive(!*app_.isRefreshing);
  model_->setSize(static_cast<guint>(app_.lists->size()));
  rows_.draw();
  const bool isWorking = *app_.isRefreshing || *app_.isCompiling;
  working_.set_visible(isWorking);
  working_.set_spinning(isWorking);
  setText(*status_, displayable(*app_.statusMessage));
  compileError_->set_visible(app_.compileError->has_value());
  setText(*compileError_, displayable(app_.compileError->value_or("")));
}

void ListsView::showAddSheet() {
  sheet_ = std::make_shared<AddListSheet>(AddListSheet::Actions{
      .addText = [this](const std::string& name,
                        const std::string& text) { app_.addList(name, text); },
      .addAddress = [this](const std::string& name,
                           const std::string& address) { downloads_.add(download(name, address)); },
      .closed = [this] { sheet_.reset(); },
  });
  sheet_->set_transient_for(dynamic_cast<Gtk::Window&>(*get_root()));
  sheet_->present();
}

// Goes on when the sheet is closed meanwhile.
Task<void> ListsView::download(std::string name, std::string address) {
  const std::weak_ptr<AddListSheet> sheet = sheet_;
  auto adding = app_.addListFromAddress(std::move(name), std::move(address));
  const std::optional<std::string> error = co_await adding;
  if (const auto open = sheet.lock()) open->finish(error);
}

}  // namespace tamsel
