#include "ui/BrowserView.h"

#include <gtkmm/image.h>
#include <gtkmm/shortcutcontroller.h>

#include <utility>

#include "ui/SafariNote.h"
#include "ui/Symbols.h"
#include "ui/WebViewHost.h"

namespace tamsel {
namespace {

constexpr int padding = 8;
constexpr int longestSite = 40;  // characters

}  // namespace

BrowserView::BrowserView(AppState& app, BrowserModel& browser)
    : Gtk::Box(Gtk::Orientation::VERTICAL, 8), app_(app), browser_(browser), popover_(browser) {
  set_margin(padding);
  append(makeToolbar());
  append(makeStatusRow());

  status_ = makeLabel("", TextStyle::caption);
  status_->add_css_class("warning");
  wrapAnywhere(*status_);
  append(*status_);

  auto* host = Gtk::make_managed<WebViewHost>(*browser.webView);
  append(*host);
  append(*Gtk::make_managed<SafariNote>());

  addShortcuts();
  // It shows the page's address whenever it comes to be shown.
  signal_map().connect([this] {
    shownAddress_.clear();
    drawAddress();
  });
  redraw_.follow(app.objectWillChange);
  redraw_.follow(browser.objectWillChange);
}

Gtk::Widget& BrowserView::makeToolbar() {
  WebView& webView = *browser_.webView;
  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);

  setSymbol(back_, "chevron.left", "Back");
  back_.signal_clicked().connect([&webView] { webView.goBack(); });
  row->append(back_);
  setSymbol(forward_, "chevron.right", "Forward");
  forward_.signal_clicked().connect([&webView] { webView.goForward(); });
  row->append(forward_);
  setSymbol(reload_, "arrow.clockwise", "Reload");
  reload_.signal_clicked().connect([this] { reloadOrStop(); });
  row->append(reload_);

  address_.set_placeholder_text("Enter a URL or search");
  setAccessibleName(address_, "Address");
  address_.set_input_purpose(Gtk::InputPurpose::URL);
  address_.set_hexpand();
  address_.signal_activate().connect([this] { go(); });
  row->append(address_);

  auto* demo = Gtk::make_managed<Gtk::Button>("Demo page");
  demo->signal_clicked().connect([this] { browser_.loadDemo(); });
  row->append(*demo);
  return *row;
}

Gtk::Widget& BrowserView::makeStatusRow() {
  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 12);

  auto* content = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  auto* icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(Symbols::icon("hand.raised.fill"));
  content->append(*icon);
  blockedText_ = makeLabel("", TextStyle::body);
  content->append(*blockedText_);
  blocked_.set_child(*content);
  blocked_.set_popover(popover_);
  popover_.chosen.connect(
      [this](const std::string& url) { blockedChosen.emit(url, browser_.webView->url()); });
  // The button within is what has the focus.
  setLabel(blocked_, *blockedText_);
  setLabel(*blocked_.get_first_child(), *blockedText_);
  row->append(blocked_);

  rulesText_ = makeLabel("", TextStyle::captionSecondary);
  row->append(*rulesText_);
  row->append(compiling_);

  pauseText_ = makeLabel("", TextStyle::body);
  pauseText_->set_hexpand();
  pauseText_->set_halign(Gtk::Align::END);
  pauseText_->set_ellipsize(Pango::EllipsizeMode::MIDDLE);
  pauseText_->set_max_width_chars(longestSite);
  row->append(*pauseText_);
  pause_.set_valign(Gtk::Align::CENTER);
  setLabel(pause_, *pauseText_);
  onPause_ = pause_.property_active().signal_changed().connect(
      [this] { browser_.setPausedHere(pause_.get_active()); });
  row->append(pause_);
  return *row;
}

void BrowserView::addShortcuts() {
  auto controller = Gtk::ShortcutController::create();
  controller->set_scope(Gtk::ShortcutScope::MANAGED);
  // Before the page gets them.
  controller->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  const auto add = [&](const char* keys, auto action) {
    controller->add_shortcut(Gtk::Shortcut::create(
        Gtk::ShortcutTrigger::parse_string(keys),
        Gtk::CallbackAction::create([this, action](Gtk::Widget&, const Glib::VariantBase&) {
          if (!get_mapped()) return false;
          action();
          return true;
        })));
  };
  add("<Control>l", [this] { editAddress(); });
  add("<Alt>Left", [this] { browser_.webView->goBack(); });
  add("<Alt>Right", [this] { browser_.webView->goForward(); });
  add("<Control>r|F5", [this] { browser_.webView->reload(); });
  add_controller(controller);
}

void BrowserView::draw() {
  back_.set_sensitive(*browser_.canGoBack);
  forward_.set_sensitive(*browser_.canGoForward);
  if (*browser_.isLoading) {
    setSymbol(reload_, "xmark", "Stop");
  } else {
    setSymbol(reload_, "arrow.clockwise", "Reload");
  }
  drawAddress();

  const std::size_t count = *browser_.blockedCount;
  setText(*blockedText_, std::to_string(count) + " blocked on this page");
  setClass(blocked_, "blocked-some", count > 0);
  setClass(blocked_, "blocked-none", count == 0);
  setText(*rulesText_, std::to_string(*app_.totalRules) + " rules active");
  compiling_.set_visible(*app_.isCompiling);
  compiling_.set_spinning(*app_.isCompiling);

  const std::string site = AppState::siteName(*browser_.currentHost);
  setText(*pauseText_, "Pause on " + (site.empty() ? "this site" : displayable(site)));
  pauseText_->set_sensitive(!site.empty());
  pause_.set_sensitive(!site.empty());
  onPause_.block();
  pause_.set_active(browser_.app != nullptr && browser_.app->isPaused(*browser_.currentHost));
  onPause_.unblock();

  setText(*status_, displayable(*browser_.status));
  status_->set_visible(!browser_.status->empty());
}

void BrowserView::drawAddress() {
  if (shownAddress_ == *browser_.addressText) return;
  shownAddress_ = *browser_.addressText;
  address_.set_text(displayable(shownAddress_));
}

void BrowserView::go() {
  const std::string typed = address_.get_text();
  // The field may show only the beginning of the address.
  browser_.go(typed == displayable(shownAddress_).raw() ? shownAddress_ : typed);
  // What comes of it is shown in place of what was typed, even if it is the address of before.
  if (browser_.webView->isLoading()) shownAddress_.clear();
}

void BrowserView::reloadOrStop() {
  if (*browser_.isLoading) {
    browser_.webView->stopLoading();
  } else {
    browser_.webView->reload();
  }
}

void BrowserView::editAddress() {
  address_.grab_focus();
  address_.select_region(0, -1);
}

}  // namespace tamsel
