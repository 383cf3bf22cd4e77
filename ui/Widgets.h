#pragma once

#include <gtkmm/button.h>
#include <gtkmm/dropdown.h>
#include <gtkmm/label.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/widget.h>

#include <string>
#include <string_view>

/// What several views do with widgets.
namespace tamsel {

/// Styles of text, by the style classes of the desktop.
enum class TextStyle { body, title, heading, caption, captionSecondary, monospace };

/// A label at the leading edge.
Gtk::Label* makeLabel(const Glib::ustring& text, TextStyle style);
void setStyle(Gtk::Widget& widget, TextStyle style);

/// The style class for what is less important than the rest.
inline constexpr const char* secondary = "dim-label";

/// What a widget without text is called by those who cannot see it.
void setAccessibleName(Gtk::Widget& widget, const std::string& name);

/// Puts a symbol on a button, which its tooltip explains.
void setSymbol(Gtk::Button& button, std::string_view symbol, const std::string& name);

/// Puts a symbol and its text on a button.
void setSymbolAndText(Gtk::Button& button, std::string_view symbol, const Glib::ustring& text);

/// Says that the label names the widget.
void setLabel(Gtk::Widget& widget, Gtk::Widget& label);
void setLabel(Gtk::DropDown& picker, Gtk::Widget& label);

/// Says that the label tells of which thing this is, where several have one name.
void setDescription(Gtk::Widget& widget, Gtk::Widget& label);

/// Breaks the text into lines, within a word if it has to be.
void wrapAnywhere(Gtk::Label& label);

/// The widget, which may be taller than there is room, and its name.
Gtk::ScrolledWindow* makeScrolled(Gtk::Widget& content, const std::string& name);
Gtk::ScrolledWindow* makeFramed(Gtk::Widget& content, const std::string& name);

/// Has Tab lead out of a list of many lines, in which the arrow keys move.
void leaveByTab(Gtk::ScrolledWindow& list);

/// Adds or removes a style class.
void setClass(Gtk::Widget& widget, const char* name, bool isOn);

/// Text from elsewhere for a widget to edit: valid UTF-8 without zeros.
Glib::ustring editable(std::string_view text);

/// Text from elsewhere for a widget that shows a line of it, cut if it is so long that laying it
/// out would take time.
Glib::ustring displayable(std::string_view text);

/// Sets the text if it is another: widgets do not look.
void setText(Gtk::Label& label, const Glib::ustring& text);

}  // namespace tamsel
