#include "ui/BlockedPopover.h"

#include <gtkmm/box.h>
#include <gtkmm/listview.h>
#include <gtkmm/noselection.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/signallistitemfactory.h>

#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int width = 420;
constexpr int height = 240;
constexpr int padding = 12;

Glib::RefPtr<Gtk::ListItemFactory> makeLineFactory(const Glib::RefPtr<Gtk::StringList>& lines) {
  auto factory = Gtk::SignalListItemFactory::create();
  factory->signal_setup().connect([](const Glib::RefPtr<Gtk::ListItem>& item) {
    Gtk::Label* line = makeLabel("", TextStyle::caption);
    setStyle(*line, TextStyle::monospace);
    line->set_ellipsize(Pango::EllipsizeMode::MIDDLE);
    item->set_child(*line);
    item->set_activatable(false);
  });
  factory->signal_bind().connect([lines](const Glib::RefPtr<Gtk::ListItem>& item) {
    auto& line = dynamic_cast<Gtk::Label&>(*item->get_child());
    line.set_text(lines->get_string(item->get_position()));
  });
  return factory;
}

}  // namespace

BlockedPopover::BlockedPopover(BrowserModel& browser) : browser_(browser) {
  auto* column = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 6);
  column->set_margin(padding);
  column->set_size_request(width - 2 * padding, height - 2 * padding);
  column->append(*makeLabel("Blocked requests on this page", TextStyle::heading));

  auto* list =
      Gtk::make_managed<Gtk::ListView>(Gtk::NoSelection::create(lines_), makeLineFactory(lines_));
  list->add_css_class("plain-lines");
  setAccessibleName(*list, "Blocked requests");
  auto* scrolled = Gtk::make_managed<Gtk::ScrolledWindow>();
  scrolled->set_policy(Gtk::PolicyType::NEVER, Gtk::PolicyType::AUTOMATIC);
  scrolled->set_child(*list);

  Gtk::Label* nothing = makeLabel("Nothing blocked yet.", TextStyle::body);
  nothing->add_css_class(secondary);
  nothing->set_valign(Gtk::Align::START);
  content_.add(*nothing, "nothing");
  content_.add(*scrolled, "list");
  content_.set_vexpand();
  column->append(content_);

  column->append(
      *makeLabel("Hidden elements (cosmetic rules) are not counted.", TextStyle::captionSecondary));
  set_child(*column);
  redraw_.follow(browser.objectWillChange);
}

void BlockedPopover::draw() {
  const std::vector<std::string>& urls = *browser_.blockedURLs;
  // They only grow, until another page begins.
  const guint shown = lines_->get_n_items();
  const bool hasGrown =
      shown <= urls.size() && (shown == 0 || lines_->get_string(0) == displayable(urls.front()));
  const guint kept = hasGrown ? shown : 0;
  std::vector<Glib::ustring> added;
  for (std::size_t i = kept; i < urls.size(); ++i) added.push_back(displayable(urls[i]));
  if (kept < shown || !added.empty()) lines_->splice(kept, shown - kept, added);
  content_.set_visible_child(urls.empty() ? "nothing" : "list");
}

}  // namespace tamsel
