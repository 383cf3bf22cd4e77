#include "ui/Widgets.h"

#include <gtk/gtk.h>
#include <gtkmm/box.h>
#include <gtkmm/image.h>
#include <gtkmm/shortcutcontroller.h>

#include <utility>

#include "compiler/Unicode.h"
#include "ui/Symbols.h"

namespace tamsel {
namespace {

constexpr std::size_t longestLine = 2000;  // bytes

}  // namespace

Gtk::Label* makeLabel(const Glib::ustring& text, TextStyle style) {
  auto* label = Gtk::make_managed<Gtk::Label>(text, Gtk::Align::START);
  label->set_xalign(0);
  setStyle(*label, style);
  return label;
}

void setStyle(Gtk::Widget& widget, TextStyle style) {
  switch (style) {
    case TextStyle::body:
      break;
    case TextStyle::title:
      widget.add_css_class("title-2");
      break;
    case TextStyle::heading:
      widget.add_css_class("heading");
      break;
    case TextStyle::captionSecondary:
      widget.add_css_class(secondary);
      [[fallthrough]];
    case TextStyle::caption:
      widget.add_css_class("caption");
      break;
    case TextStyle::monospace:
      widget.add_css_class("monospace");
      break;
  }
}

void setAccessibleName(Gtk::Widget& widget, const std::string& name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget.gobj()), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                 name.c_str(), -1);
}

void setSymbol(Gtk::Button& button, std::string_view symbol, const std::string& name) {
  const std::string icon = Symbols::icon(symbol);
  // A tooltip is a question to the display server, so it is not set again without need.
  if (button.get_icon_name().raw() == icon) return;
  button.set_icon_name(icon);
  button.set_tooltip_text(name);
  setAccessibleName(button, name);
}

void setSymbolAndText(Gtk::Button& button, std::string_view symbol, const Glib::ustring& text) {
  auto* content = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  auto* icon = Gtk::make_managed<Gtk::Image>();
  icon->set_from_icon_name(Symbols::icon(symbol));
  content->append(*icon);
  Gtk::Label* label = makeLabel(text, TextStyle::body);
  content->append(*label);
  button.set_child(*content);
  setLabel(button, *label);
}

void setLabel(Gtk::Widget& widget, Gtk::Widget& label) {
  gtk_accessible_update_relation(GTK_ACCESSIBLE(widget.gobj()), GTK_ACCESSIBLE_RELATION_LABELLED_BY,
                                 GTK_ACCESSIBLE(label.gobj()), nullptr, -1);
}

void setLabel(Gtk::DropDown& picker, Gtk::Widget& label) {
  setLabel(static_cast<Gtk::Widget&>(picker), label);
  // It is this that has the focus.
  if (Gtk::Widget* button = picker.get_first_child()) setLabel(*button, label);
}

void setDescription(Gtk::Widget& widget, Gtk::Widget& label) {
  gtk_accessible_update_relation(GTK_ACCESSIBLE(widget.gobj()),
                                 GTK_ACCESSIBLE_RELATION_DESCRIBED_BY, GTK_ACCESSIBLE(label.gobj()),
                                 nullptr, -1);
}

void wrapAnywhere(Gtk::Label& label) {
  label.set_wrap();
  label.set_wrap_mode(Pango::WrapMode::WORD_CHAR);
}

Gtk::ScrolledWindow* makeScrolled(Gtk::Widget& content, const std::string& name) {
  auto* scrolled = Gtk::make_managed<Gtk::ScrolledWindow>();
  scrolled->set_policy(Gtk::PolicyType::NEVER, Gtk::PolicyType::AUTOMATIC);
  scrolled->set_child(content);
  setAccessibleName(content, name);
  // It has the focus if nothing in it can.
  setAccessibleName(*scrolled, name);
  return scrolled;
}

Gtk::ScrolledWindow* makeFramed(Gtk::Widget& content, const std::string& name) {
  Gtk::ScrolledWindow* scrolled = makeScrolled(content, name);
  scrolled->add_css_class("framed");
  return scrolled;
}

void leaveByTab(Gtk::ScrolledWindow& list) {
  const auto keys = Gtk::ShortcutController::create();
  keys->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  for (const auto& [key, direction] :
       {std::pair{"Tab", GTK_DIR_TAB_FORWARD}, {"<Shift>Tab", GTK_DIR_TAB_BACKWARD}}) {
    keys->add_shortcut(Gtk::Shortcut::create(
        Gtk::ShortcutTrigger::parse_string(key),
        Gtk::CallbackAction::create(
            [direction = direction](Gtk::Widget& widget, const Glib::VariantBase&) {
              g_signal_emit_by_name(widget.gobj(), "move-focus-out", direction);
              return true;
            })));
  }
  list.add_controller(keys);
}

void setClass(Gtk::Widget& widget, const char* name, bool isOn) {
  if (isOn) {
    widget.add_css_class(name);
  } else {
    widget.remove_css_class(name);
  }
}

Glib::ustring editable(std::string_view text) {
  std::string repaired = Unicode::repaired(std::string(text));
  for (std::size_t zero = repaired.find('\0'); zero != std::string::npos;
       zero = repaired.find('\0', zero)) {
    repaired.replace(zero, 1, Unicode::replacement);
  }
  return repaired;
}

Glib::ustring displayable(std::string_view text) {
  const Glib::ustring shown = editable(Unicode::beginning(text, longestLine));
  return text.size() > longestLine ? shown + "…" : shown;
}

void setText(Gtk::Label& label, const Glib::ustring& text) {
  if (label.get_text() != text) label.set_text(text);
}

}  // namespace tamsel
