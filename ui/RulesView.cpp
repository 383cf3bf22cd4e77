#include "ui/RulesView.h"

#include "ui/SafariNote.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 8;

}  // namespace

RulesView::RulesView() : Gtk::Box(Gtk::Orientation::VERTICAL, 10) {
  set_margin(padding);
  Gtk::Label* title = makeLabel("Rules", TextStyle::title);
  title->set_vexpand();
  title->set_valign(Gtk::Align::START);
  append(*title);
  append(*Gtk::make_managed<SafariNote>());
}

}  // namespace tamsel
