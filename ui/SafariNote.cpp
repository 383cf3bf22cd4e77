#include "ui/SafariNote.h"

#include <gtkmm/image.h>

#include "ui/Symbols.h"
#include "ui/Widgets.h"

namespace tamsel {

SafariNote::SafariNote() : Gtk::Box(Gtk::Orientation::HORIZONTAL, 6) {
  auto* icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(Symbols::icon("info.circle"));
  icon->set_valign(Gtk::Align::START);
  icon->add_css_class(secondary);
  append(*icon);

  Gtk::Label* text = makeLabel(
      "Tamsel only filters its own built-in browser. Safari itself is not changed — export the "
      "JSON if you want to use it in a Safari content blocker extension.",
      TextStyle::captionSecondary);
  text->set_wrap();
  text->set_hexpand();
  append(*text);
}

}  // namespace tamsel
