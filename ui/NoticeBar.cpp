#include "ui/NoticeBar.h"

#include <gtkmm/image.h>

#include "ui/Symbols.h"
#include "ui/Widgets.h"

namespace tamsel {

NoticeBar::NoticeBar(AppState& app) : app_(app), text_(makeLabel("", TextStyle::body)) {
  row_.add_css_class("notice");
  g_object_set(row_.gobj(), "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT, nullptr);
  auto* icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(Symbols::icon("info.circle"));
  row_.append(*icon);
  wrapAnywhere(*text_);
  text_->set_hexpand();
  text_->set_selectable();
  row_.append(*text_);
  setSymbol(dismiss_, "xmark", "Dismiss");
  dismiss_.set_has_frame(false);
  dismiss_.set_valign(Gtk::Align::CENTER);
  dismiss_.signal_clicked().connect([this] { app_.notice = ""; });
  row_.append(dismiss_);
  row_.set_hexpand();
  row_.set_visible(false);
  append(row_);
  redraw_.follow(app.objectWillChange);
}

void NoticeBar::draw() {
  row_.set_visible(!app_.notice->empty());
  setText(*text_, displayable(*app_.notice));
}

}  // namespace tamsel
