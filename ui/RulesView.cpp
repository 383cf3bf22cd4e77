#include "ui/RulesView.h"

#include <gtkmm/frame.h>
#include <gtkmm/gridview.h>
#include <gtkmm/noselection.h>

#include <algorithm>

#include "compiler/Unicode.h"
#include "state/StarterList.h"
#include "ui/SafariNote.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 8;
constexpr int pickerWidth = 220;
constexpr int searchWidth = 160;
constexpr int countsHeight = 190;
constexpr std::size_t shownLimit = 2000;

std::size_t total(const ListStats& stats) {
  return stats.block + stats.exception + stats.cosmetic;
}

// What the toolkit makes of a table itself: a row of titles, which has the focus as if it could be
// sorted, and in which every title begins where its column does; and a list without a name.
void arrange(Gtk::ColumnView& table, const char* name) {
  Gtk::Widget* titles = table.get_first_child();
  titles->set_focusable(false);
  setAccessibleName(*titles->get_next_sibling(), name);
  Gtk::Widget* title = titles->get_first_child();
  while ((title = title->get_next_sibling()) != nullptr) {
    Gtk::Widget* text = title->get_first_child()->get_first_child();
    text->set_hexpand();
    text->set_halign(Gtk::Align::END);
  }
}

}  // namespace

SkippedRow::SkippedRow()
    : Gtk::Box(Gtk::Orientation::VERTICAL, 2), line_(makeLabel("", TextStyle::caption)) {
  setStyle(*line_, TextStyle::monospace);
  line_->set_wrap();
  line_->set_wrap_mode(Pango::WrapMode::CHAR);
  line_->set_lines(2);
  line_->set_ellipsize(Pango::EllipsizeMode::END);
  line_->set_selectable();
  // Never measured, which saves half of the time that a row takes.
  setStyle(reason_, TextStyle::captionSecondary);
  reason_.set_text_overflow(Gtk::Inscription::Overflow::ELLIPSIZE_END);
  reason_.set_xalign(0);
  append(*line_);
  append(reason_);
}

void SkippedRow::show(const SkippedRule& skipped) {
  setText(*line_, displayable(skipped.line.view()));
  const Glib::ustring reason =
      displayable(skipped.reason.view()) + " — " + displayable(skipped.listName.view());
  if (reason_.get_text() != reason) reason_.set_text(reason);
}

RulesView::RulesView(AppState& app)
    : Gtk::Box(Gtk::Orientation::VERTICAL, 10),
      app_(app),
      skippedRows_([] { return Gtk::make_managed<SkippedRow>(); },
                   [this](SkippedRow& row, guint position) {
                     if (position < shown_.size() && shown_[position] < app_.skipped->size()) {
                       row.show(app_.skipped.get()[shown_[position]]);
                     }
                   },
                   [](SkippedRow& row) -> Gtk::Widget& { return row.line(); }) {
  set_margin(padding);
  append(makeHeader());
  compileError_ = makeLabel("", TextStyle::caption);
  compileError_->add_css_class("error");
  truncated_ = makeLabel("Over WebKit's " + std::to_string(AppState::ruleLimit) +
                             " rule limit — extra rules were dropped.",
                         TextStyle::caption);
  truncated_->add_css_class("warning");
  for (Gtk::Label* label : {compileError_, truncated_}) {
    wrapAnywhere(*label);
    append(*label);
  }
  append(makeCounts());
  append(makeSkippedHeader());
  append(makeSkipped());
  append(*Gtk::make_managed<SafariNote>());
  redraw_.follow(app.objectWillChange);
}

Gtk::Widget& RulesView::makeHeader() {
  auto* header = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 10);
  auto* titles = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 2);
  titles->set_hexpand();
  titles->append(*makeLabel("Rules", TextStyle::title));
  total_ = makeLabel("", TextStyle::captionSecondary);
  wrapAnywhere(*total_);
  titles->append(*total_);
  header->append(*titles);
  setSymbolAndText(export_, "square.and.arrow.up", "Export JSON…");
  export_.set_valign(Gtk::Align::CENTER);
  export_.signal_clicked().connect([this] { app_.exportJSON(); });
  header->append(export_);
  return *header;
}

void RulesView::addColumn(Gtk::ColumnView& table, const char* title,
                          const std::function<std::string(const Source&)>& text) {
  const bool isFirst = columns_.empty();
  auto rows = std::make_unique<Rows<Gtk::Label>>(
      [isFirst] {
        Gtk::Label* cell = makeLabel("", TextStyle::body);
        cell->set_xalign(isFirst ? 0 : 1);
        cell->set_halign(Gtk::Align::FILL);
        if (isFirst) cell->set_ellipsize(Pango::EllipsizeMode::END);
        return cell;
      },
      [this, text](Gtk::Label& cell, guint position) {
        if (position >= sourceCount()) return;
        const Source of = source(position);
        setText(cell, displayable(text(of)));
        setClass(cell, secondary, !of.isEnabled);
      },
      isFirst ? [](Gtk::Label& cell) -> Gtk::Widget& { return cell; } : Rows<Gtk::Label>::Label());
  const auto column = Gtk::ColumnViewColumn::create(title, rows->factory());
  column->set_expand(isFirst);
  table.append_column(column);
  columns_.push_back(std::move(rows));
}

Gtk::Widget& RulesView::makeCounts() {
  auto* group = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 4);
  const char* const name = "Rules produced per list";
  group->append(*makeLabel(name, TextStyle::heading));
  auto* table = Gtk::make_managed<Gtk::ColumnView>(Gtk::NoSelection::create(counts_));
  table->add_css_class("data-table");
  const auto number = [this](std::size_t (*of)(const ListStats&)) {
    return [this, of](const Source& list) { return std::to_string(of(statsOf(list))); };
  };
  addColumn(*table, "List",
            [](const Source& of) { return of.name + (of.isEnabled ? "" : " (off)"); });
  addColumn(*table, "Block", number([](const ListStats& stats) { return stats.block; }));
  addColumn(*table, "Exceptions", number([](const ListStats& stats) { return stats.exception; }));
  addColumn(*table, "Hide", number([](const ListStats& stats) { return stats.cosmetic; }));
  addColumn(*table, "Total", number(total));
  addColumn(*table, "Skipped", number([](const ListStats& stats) { return stats.skipped; }));

  arrange(*table, name);

  Gtk::ScrolledWindow* scrolled = makeFramed(*table, name);
  scrolled->set_propagate_natural_height();
  scrolled->set_max_content_height(countsHeight);
  leaveByTab(*scrolled);
  group->append(*scrolled);
  return *group;
}

Gtk::Widget& RulesView::makeSkippedHeader() {
  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  skippedTitle_ = makeLabel("", TextStyle::heading);
  skippedTitle_->set_hexpand();
  row->append(*skippedTitle_);

  Gtk::Label* label = makeLabel("List", TextStyle::body);
  row->append(*label);
  picker_.set_model(choices_);
  picker_.set_size_request(pickerWidth, -1);
  setLabel(picker_, *label);
  onPick_ = picker_.property_selected().signal_changed().connect([this] {
    const guint selected = picker_.get_selected();
    listFilter_ = selected > 0 && selected <= choiceIds_.size()
                      ? std::optional(choiceIds_[selected - 1])
                      : std::nullopt;
    drawSkipped();
  });
  row->append(picker_);

  search_.set_placeholder_text("Filter");
  search_.set_size_request(searchWidth, -1);
  setAccessibleName(search_, "Filter");
  // A text that is replaced changes twice.
  search_.signal_changed().connect([this] { redrawSkipped_.schedule(); });
  row->append(search_);
  return *row;
}

Gtk::Widget& RulesView::makeSkipped() {
  // A list keeps two hundred rows ready, a grid thirty, and with each key all of them change.
  auto* list =
      Gtk::make_managed<Gtk::GridView>(Gtk::NoSelection::create(skipped_), skippedRows_.factory());
  list->set_min_columns(1);
  list->set_max_columns(1);
  list->add_css_class("skipped");
  Gtk::ScrolledWindow* scrolled = makeFramed(*list, "Skipped lines");
  scrolled->set_vexpand();
  leaveByTab(*scrolled);
  return *scrolled;
}

std::size_t RulesView::sourceCount() const {
  return app_.lists->size() + 1;
}

RulesView::Source RulesView::source(std::size_t index) const {
  if (index >= app_.lists->size()) return {Starter::customID, "Custom rules", true};
  const FilterList& list = app_.lists.get()[index];
  return {list.id, list.name, list.enabled};
}

ListStats RulesView::statsOf(const Source& list) const {
  const auto found = app_.stats->find(list.id);
  return found == app_.stats->end() ? ListStats() : found->second;
}

void RulesView::draw() {
  setText(*total_, std::to_string(*app_.totalRules) +
                       " WebKit content-blocker rules compiled from enabled lists");
  export_.set_sensitive(*app_.totalRules > 0);
  compileError_->set_visible(app_.compileError->has_value());
  setText(*compileError_, "WebKit compile error: " + displayable(app_.compileError->value_or("")));
  truncated_->set_visible(*app_.truncated);

  counts_->setSize(static_cast<guint>(sourceCount()));
  for (const auto& column : columns_) column->draw();
  drawPicker();
  drawSkipped();
}

void RulesView::drawPicker() {
  std::vector<Glib::ustring> names{"All lists"};
  std::vector<Uuid> ids;
  for (std::size_t i = 0; i < sourceCount(); ++i) {
    const Source of = source(i);
    names.push_back(displayable(of.name));
    ids.push_back(of.id);
  }
  bool isSame = choices_->get_n_items() == names.size() && ids == choiceIds_;
  for (guint i = 0; isSame && i < names.size(); ++i) isSame = choices_->get_string(i) == names[i];
  if (isSame) return;

  onPick_.block();
  choices_->splice(0, choices_->get_n_items(), names);
  choiceIds_ = ids;
  // A list that is gone stays chosen, so that nothing else is shown in its place.
  guint selected = 0;
  if (listFilter_) {
    const auto found = std::find(ids.begin(), ids.end(), *listFilter_);
    selected = found == ids.end() ? GTK_INVALID_LIST_POSITION
                                  : static_cast<guint>(found - ids.begin()) + 1;
  }
  picker_.set_selected(selected);
  onPick_.unblock();
}

void RulesView::drawSkipped() {
  const std::string search = Unicode::lowercased(search_.get_text().raw());
  const auto holds = [&search](std::string_view text) {
    return Unicode::lowercased(text).find(search) != std::string::npos;
  };
  std::size_t count = 0;
  shown_.clear();
  const std::vector<SkippedRule>& all = *app_.skipped;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (listFilter_ && *listFilter_ != all[i].listID) continue;
    if (!search.empty() && !holds(all[i].line.view()) && !holds(all[i].reason.view())) continue;
    if (++count <= shownLimit) shown_.push_back(i);
  }
  setText(*skippedTitle_, "Skipped as unsupported (" + std::to_string(count) + ")");
  skipped_->setSize(static_cast<guint>(shown_.size()));
  skippedRows_.draw();
}

}  // namespace tamsel
