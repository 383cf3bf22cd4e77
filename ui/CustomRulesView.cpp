#include "ui/CustomRulesView.h"

#include <gtkmm/button.h>
#include <gtkmm/shortcutcontroller.h>

#include <string>

#include "state/StarterList.h"
#include "ui/SafariNote.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 12;
constexpr const char* examples =
    "||ads.example.com^$third-party   @@||cdn.example.com^   example.com##.popup";

std::string summary(const ListStats& stats) {
  const auto text = [](std::size_t number) { return std::to_string(number); };
  return "Custom list: " + text(stats.block + stats.exception + stats.cosmetic) + " rules (" +
         text(stats.block) + " block, " + text(stats.exception) + " exceptions, " +
         text(stats.cosmetic) + " hide), " + text(stats.skipped) +
         " skipped. Examples: " + examples;
}

}  // namespace

CustomRulesView::CustomRulesView(AppState& app)
    : Gtk::Box(Gtk::Orientation::VERTICAL, 10), app_(app) {
  set_margin(padding);
  append(makeHeader());
  append(makeEditor());
  summary_ = makeLabel("", TextStyle::captionSecondary);
  summary_->set_wrap();
  append(*summary_);
  append(*Gtk::make_managed<SafariNote>());

  auto controller = Gtk::ShortcutController::create();
  controller->set_scope(Gtk::ShortcutScope::MANAGED);
  controller->add_shortcut(Gtk::Shortcut::create(
      Gtk::ShortcutTrigger::parse_string("<Control>s"),
      Gtk::CallbackAction::create([this](Gtk::Widget&, const Glib::VariantBase&) {
        if (!get_mapped()) return false;
        apply();
        return true;
      })));
  add_controller(controller);

  const auto onChange = [this] {
    if (!isEditing_) redraw_.schedule();
  };
  app.objectWillChange.connect(sigc::track_object(onChange, *this));
}

Gtk::Widget& CustomRulesView::makeHeader() {
  auto* header = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 10);
  auto* titles = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 2);
  titles->set_hexpand();
  titles->append(*makeLabel("Custom rules", TextStyle::title));
  Gtk::Label* caption = makeLabel(
      "One filter per line, EasyList / uBlock syntax. Lines starting with ! are comments.",
      TextStyle::captionSecondary);
  caption->set_wrap();
  titles->append(*caption);
  header->append(*titles);

  auto* button = Gtk::make_managed<Gtk::Button>("Save & apply");
  button->set_tooltip_text("Ctrl+S");
  button->set_valign(Gtk::Align::CENTER);
  button->add_css_class("suggested-action");
  button->signal_clicked().connect([this] { apply(); });
  header->append(*button);
  return *header;
}

Gtk::Widget& CustomRulesView::makeEditor() {
  editor_.set_monospace();
  editor_.set_accepts_tab(false);
  for (const auto set : {&Gtk::TextView::set_left_margin, &Gtk::TextView::set_right_margin,
                         &Gtk::TextView::set_top_margin, &Gtk::TextView::set_bottom_margin}) {
    (editor_.*set)(6);
  }
  onEdit_ = editor_.get_buffer()->signal_changed().connect([this] {
    isEditing_ = true;
    app_.customRules = editor_.get_buffer()->get_text().raw();
    isEditing_ = false;
  });

  Gtk::ScrolledWindow* scrolled = makeFramed(editor_, "Custom rules");
  scrolled->set_policy(Gtk::PolicyType::AUTOMATIC, Gtk::PolicyType::AUTOMATIC);
  scrolled->set_vexpand();
  return *scrolled;
}

void CustomRulesView::draw() {
  const Glib::RefPtr<Gtk::TextBuffer> buffer = editor_.get_buffer();
  // What the editor cannot hold it shows as U+FFFD, until it is edited.
  const Glib::ustring rules = editable(*app_.customRules);
  if (buffer->get_text() != rules) {
    onEdit_.block();
    buffer->begin_irreversible_action();
    buffer->set_text(rules);
    buffer->end_irreversible_action();
    onEdit_.unblock();
  }
  const auto stats = app_.stats->find(Starter::customID);
  setText(*summary_, summary(stats == app_.stats->end() ? ListStats() : stats->second));
}

void CustomRulesView::apply() {
  app_.save();
  app_.rebuild();
}

}  // namespace tamsel
