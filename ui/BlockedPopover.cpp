#include "ui/BlockedPopover.h"

#include <giomm/menu.h>
#include <giomm/simpleactiongroup.h>
#include <gtkmm/gestureclick.h>
#include <gtkmm/noselection.h>
#include <gtkmm/root.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/shortcutcontroller.h>

#include <algorithm>
#include <utility>

#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int width = 420;
constexpr int height = 240;
constexpr int padding = 12;

Gtk::Label* makeLine() {
  Gtk::Label* line = makeLabel("", TextStyle::caption);
  setStyle(*line, TextStyle::monospace);
  line->set_ellipsize(Pango::EllipsizeMode::MIDDLE);
  return line;
}

// With a comma before each group of three digits.
std::string grouped(std::size_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t rest = digits.size(); rest > 3;) digits.insert(rest -= 3, ",");
  return digits;
}

}  // namespace

BlockedPopover::BlockedPopover(BrowserModel& browser)
    : browser_(browser),
      rows_(
          makeLine,
          [this](Gtk::Label& line, guint position) {
            if (position < urls_.size()) setText(line, displayable(urls_[position]));
          },
          [](Gtk::Label& line) -> Gtk::Widget& { return line; }, Lines::canBeChosen) {
  column_.set_margin(padding);
  column_.set_size_request(width - 2 * padding, height - 2 * padding);
  column_.append(*makeLabel("Blocked requests on this page", TextStyle::heading));
  column_.append(makeContent());
  omitted_ = makeLabel("", TextStyle::captionSecondary);
  column_.append(*omitted_);
  column_.append(
      *makeLabel("Hidden elements (cosmetic rules) are not counted.", TextStyle::captionSecondary));
  set_child(column_);
  addMenu();
  addKeys();
  redraw_.follow(browser.objectWillChange);
}

Gtk::Widget& BlockedPopover::makeContent() {
  list_.set_model(Gtk::NoSelection::create(lines_));
  list_.set_factory(rows_.factory());
  list_.set_single_click_activate();
  list_.signal_activate().connect([this](guint position) { choose(position); });
  list_.add_css_class("plain-lines");
  Gtk::ScrolledWindow* scrolled = makeScrolled(list_, "Blocked requests");

  Gtk::Label* nothing = makeLabel("Nothing blocked yet.", TextStyle::body);
  nothing->add_css_class(secondary);
  nothing->set_valign(Gtk::Align::START);
  content_.add(*nothing, "nothing");
  content_.add(*scrolled, "list");
  content_.set_vexpand();
  return content_;
}

void BlockedPopover::addMenu() {
  const auto actions = Gio::SimpleActionGroup::create();
  copyLine_ = actions->add_action("copy", [this] {
    if (menuURL_) copy(*menuURL_);
  });
  actions->add_action("copy-all", [this] {
    std::string all;
    for (const std::string& url : urls_) all += (all.empty() ? "" : "\n") + url;
    copy(all);
  });
  column_.insert_action_group("blocked", actions);

  const auto items = Gio::Menu::create();
  items->append("Copy", "blocked.copy");
  items->append("Copy All", "blocked.copy-all");
  menu_ = Gtk::make_managed<Gtk::PopoverMenu>(items);
  menu_->set_parent(column_);
  menu_->set_has_arrow(false);
  menu_->set_halign(Gtk::Align::START);
  // The toolkit would give the focus to the button that opens this.
  menu_->signal_closed().connect([this] {
    if (get_mapped()) list_.grab_focus();
  });
  // What the toolkit puts the items into could have the focus.
  setAccessibleName(*menu_->get_child(), "Blocked requests");

  const auto click = Gtk::GestureClick::create();
  click->set_button(GDK_BUTTON_SECONDARY);
  click->signal_pressed().connect(
      [this](int, double x, double y) { showMenu(lineAt(x, y), x, y); });
  list_.add_controller(click);
}

void BlockedPopover::addKeys() {
  const auto keys = Gtk::ShortcutController::create();
  const auto add = [this, &keys](const char* trigger, auto action) {
    keys->add_shortcut(Gtk::Shortcut::create(
        Gtk::ShortcutTrigger::parse_string(trigger),
        Gtk::CallbackAction::create([this, action](Gtk::Widget&, const Glib::VariantBase&) {
          Gtk::Widget* line = get_root()->get_focus();
          if (!urlIn(line)) return false;
          action(*line);
          return true;
        })));
  };
  add("<Control>c", [this](Gtk::Widget& line) { copy(*urlIn(&line)); });
  add("Menu|<Shift>F10", [this](Gtk::Widget& line) {
    double x = 0;
    double y = 0;
    line.translate_coordinates(list_, 0, line.get_height(), x, y);
    showMenu(&line, x, y);
  });
  // Nothing else in here could have the focus: it goes back to the button.
  add("Tab|<Shift>Tab", [this](Gtk::Widget&) { popdown(); });
  list_.add_controller(keys);
}

void BlockedPopover::draw() {
  const std::vector<std::string>& urls = *browser_.blockedURLs;
  if (urls != urls_) {
    // They only become more, until another page begins.
    const bool haveGrown =
        urls_.size() < urls.size() && std::equal(urls_.begin(), urls_.end(), urls.begin());
    if (!haveGrown) lines_->setSize(0);
    urls_ = urls;
    lines_->setSize(static_cast<guint>(urls_.size()));
  }
  content_.set_visible_child(urls_.empty() ? "nothing" : "list");
  const std::size_t count = *browser_.blockedCount;
  omitted_->set_visible(count > urls_.size());
  setText(*omitted_,
          "The first " + grouped(urls_.size()) + " of " + grouped(count) + " are listed.");
}

void BlockedPopover::choose(guint position) {
  if (position >= urls_.size()) return;
  const std::string url = urls_[position];
  popdown();
  chosen.emit(url);
}

void BlockedPopover::copy(const std::string& text) {
  get_clipboard()->set_text(editable(text));
}

std::optional<std::string> BlockedPopover::urlIn(const Gtk::Widget* line) const {
  const auto position = line == nullptr ? std::nullopt : rows_.positionIn(*line);
  return position && *position < urls_.size() ? std::optional(urls_[*position]) : std::nullopt;
}

Gtk::Widget* BlockedPopover::lineAt(double x, double y) {
  Gtk::Widget* widget = list_.pick(x, y);
  while (widget != nullptr && widget->get_parent() != &list_) widget = widget->get_parent();
  return widget;
}

// At a place in the list.
void BlockedPopover::showMenu(Gtk::Widget* line, double x, double y) {
  // The focus comes back to it when the menu closes.
  if (line != nullptr) line->grab_focus();
  menuURL_ = urlIn(line);
  copyLine_->set_enabled(menuURL_.has_value());
  list_.translate_coordinates(column_, x, y, x, y);
  menu_->set_pointing_to({static_cast<int>(x), static_cast<int>(y), 1, 1});
  menu_->popup();
}

}  // namespace tamsel
