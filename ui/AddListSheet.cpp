#include "ui/AddListSheet.h"

#include <glibmm/main.h>
#include <gtkmm/shortcutcontroller.h>

#include <utility>

#include "compiler/Unicode.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int width = 520;
constexpr int padding = 16;
constexpr int textHeight = 200;
constexpr const char* easyList = "https://easylist.to/easylist/easylist.txt";

}  // namespace

AddListSheet::AddListSheet(Actions actions) : actions_(std::move(actions)) {
  set_title("Add a filter list");
  set_modal();
  set_resizable(false);
  set_default_size(width, -1);

  auto* column = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 12);
  column->set_margin(padding);
  column->set_size_request(width - 2 * padding, -1);
  Gtk::Label* title = makeLabel("Add a filter list", TextStyle::heading);
  title->add_css_class("title-3");
  column->append(*title);
  column->append(makeModes());
  name_.set_placeholder_text("Name (optional)");
  name_.set_activates_default();
  setAccessibleName(name_, "Name");
  column->append(name_);
  column->append(makeContent());
  error_ = makeLabel("", TextStyle::caption);
  error_->add_css_class("error");
  wrapAnywhere(*error_);
  error_->set_visible(false);
  column->append(*error_);
  column->append(makeButtons());
  set_child(*column);

  auto controller = Gtk::ShortcutController::create();
  controller->add_shortcut(Gtk::Shortcut::create(
      Gtk::ShortcutTrigger::parse_string("Escape"),
      Gtk::CallbackAction::create([this](Gtk::Widget&, const Glib::VariantBase&) {
        close();
        return true;
      })));
  add_controller(controller);
  signal_close_request().connect(
      [this] {
        set_visible(false);
        // Not while something of it is still running.
        Glib::signal_idle().connect_once(actions_.closed);
        return true;
      },
      false);
  drawAdd();
}

Gtk::Widget& AddListSheet::makeModes() {
  auto* modes = Gtk::make_managed<Gtk::Box>();
  modes->add_css_class("linked");
  modes->set_homogeneous();
  pasted_.set_group(fromAddress_);
  fromAddress_.set_active();
  modes->append(fromAddress_);
  modes->append(pasted_);
  pasted_.signal_toggled().connect([this] {
    drawContent();
    drawAdd();
  });
  return *modes;
}

Gtk::Widget& AddListSheet::makeContent() {
  auto* content = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL);
  address_.set_placeholder_text("https://…/list.txt");
  address_.set_text(easyList);
  address_.set_input_purpose(Gtk::InputPurpose::URL);
  address_.set_hexpand();
  address_.set_activates_default();
  setAccessibleName(address_, "Address of the list");
  address_.signal_changed().connect([this] { drawAdd(); });
  content->append(address_);

  text_.set_monospace();
  text_.set_accepts_tab(false);
  text_.get_buffer()->signal_changed().connect([this] { drawAdd(); });
  Gtk::ScrolledWindow* scrolled = makeFramed(text_, "Text of the list");
  scrolled->set_policy(Gtk::PolicyType::AUTOMATIC, Gtk::PolicyType::AUTOMATIC);
  scrolled->set_min_content_height(textHeight);
  scrolled->set_hexpand();
  content->append(*scrolled);
  textPane_ = scrolled;
  drawContent();
  return *content;
}

Gtk::Widget& AddListSheet::makeButtons() {
  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  row->append(busy_);
  auto* cancel = Gtk::make_managed<Gtk::Button>("Cancel");
  cancel->set_hexpand();
  cancel->set_halign(Gtk::Align::END);
  cancel->signal_clicked().connect([this] { close(); });
  row->append(*cancel);
  add_.add_css_class("suggested-action");
  add_.signal_clicked().connect([this] { add(); });
  row->append(add_);
  set_default_widget(add_);
  return *row;
}

// The field that is filled in next has the focus; an address that stands there is replaced by
// typing.
void AddListSheet::drawContent() {
  const bool isPasted = pasted_.get_active();
  address_.set_visible(!isPasted);
  textPane_->set_visible(isPasted);
  set_focus(isPasted ? static_cast<Gtk::Widget&>(text_) : address_);
}

void AddListSheet::drawAdd() {
  const bool hasContent = pasted_.get_active()
                              ? !Unicode::stripped(text_.get_buffer()->get_text().raw()).empty()
                              : address_.get_text_length() > 0;
  add_.set_sensitive(!isBusy_ && hasContent);
  busy_.set_spinning(isBusy_);
  busy_.set_visible(isBusy_);
}

void AddListSheet::add() {
  if (pasted_.get_active()) {
    actions_.addText(name_.get_text(), text_.get_buffer()->get_text());
    close();
    return;
  }
  isBusy_ = true;
  error_->set_visible(false);
  drawAdd();
  actions_.addAddress(name_.get_text(), address_.get_text());
}

void AddListSheet::finish(const std::optional<std::string>& error) {
  isBusy_ = false;
  if (!error) return close();
  setText(*error_, displayable(*error));
  error_->set_visible();
  drawAdd();
}

}  // namespace tamsel
