#include "platform/webview/PageDialogs.h"

#include <utility>

#include "platform/mainloop/Signals.h"

namespace tamsel {
namespace {

// A question more than this, and nobody is asked: a page can ask faster than anybody answers.
constexpr std::size_t mostWaiting = 8;
// From this question on there is the choice to be asked no more.
constexpr int questionsUntilChoice = 3;
// What is shown of a text, in bytes: laying out more takes time.
constexpr std::size_t longestText = 4096;

constexpr int cardWidth = 420;
constexpr int longestTextHeight = 240;
constexpr int spacing = 12;

// What a widget takes: valid, and not too long.
std::string displayable(const std::string& text) {
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string shown(valid);
  g_free(valid);
  if (shown.size() <= longestText) return shown;
  const char* end = g_utf8_find_prev_char(shown.c_str(), shown.c_str() + longestText);
  shown.resize(static_cast<std::size_t>(end - shown.c_str()));
  return shown + "…";
}

GtkWidget* makeLabel(const std::string& text) {
  GtkWidget* label = gtk_label_new(displayable(text).c_str());
  gtk_label_set_wrap(GTK_LABEL(label), TRUE);
  gtk_label_set_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD_CHAR);
  gtk_label_set_xalign(GTK_LABEL(label), 0);
  gtk_label_set_max_width_chars(GTK_LABEL(label), 50);
  return label;
}

void nameIt(GtkWidget* widget, const char* name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, name, -1);
}

}  // namespace

PageDialogs::PageDialogs(GtkWidget* page, std::function<void()> onChange)
    : overlay_(GTK_OVERLAY(g_object_ref_sink(gtk_overlay_new()))), onChange_(std::move(onChange)) {
  gtk_overlay_set_child(overlay_, page);
}

PageDialogs::~PageDialogs() {
  onChange_ = nullptr;
  closeAll();
  g_object_unref(overlay_);
}

void PageDialogs::ask(Question question, OnAnswer onAnswer) {
  if (isSilenced_ || asked_.size() >= mostWaiting) {
    return onAnswer({.isAccepted = question.acceptsUnasked});
  }
  asked_.push_back({std::move(question), std::move(onAnswer)});
  if (asked_.size() > 1) return;
  show();
  if (onChange_) onChange_();
}

void PageDialogs::closeAll() {
  const bool wasOpen = isOpen();
  close();
  // An answer may lead to another question.
  for (const Asked& asked : std::exchange(asked_, {})) {
    asked.onAnswer({.isAccepted = asked.question.acceptsUnasked});
  }
  if (wasOpen && !isOpen() && onChange_) onChange_();
}

void PageDialogs::startAnew() {
  questions_ = 0;
  isSilenced_ = false;
}

void PageDialogs::show() {
  const Question& question = asked_.front().question;
  ++questions_;
  // The page below gets no clicks meanwhile.
  card_ = GTK_WIDGET(
      g_object_new(GTK_TYPE_BOX, "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT_DIALOG, nullptr));
  gtk_widget_add_css_class(card_, "page-veil");
  nameIt(card_, displayable(question.heading).c_str());

  GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, spacing);
  gtk_widget_add_css_class(column, "page-dialog");
  gtk_widget_set_size_request(column, cardWidth, -1);
  gtk_widget_set_halign(column, GTK_ALIGN_CENTER);
  gtk_widget_set_valign(column, GTK_ALIGN_CENTER);
  gtk_widget_set_hexpand(column, TRUE);

  GtkWidget* heading = makeLabel(question.heading);
  gtk_widget_add_css_class(heading, "heading");
  gtk_box_append(GTK_BOX(column), heading);
  if (!question.text.empty()) {
    GtkWidget* text = makeLabel(question.text);
    gtk_label_set_selectable(GTK_LABEL(text), TRUE);
    gtk_widget_set_can_focus(text, FALSE);
    GtkWidget* pane = gtk_scrolled_window_new();
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(pane), GTK_POLICY_NEVER,
                                   GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_propagate_natural_height(GTK_SCROLLED_WINDOW(pane), TRUE);
    gtk_scrolled_window_set_max_content_height(GTK_SCROLLED_WINDOW(pane), longestTextHeight);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(pane), text);
    gtk_box_append(GTK_BOX(column), pane);
  }
  const auto onActivate = [](GtkWidget*, gpointer self) {
    static_cast<PageDialogs*>(self)->answer(true);
  };
  if (question.field) {
    field_ = gtk_entry_new();
    gtk_editable_set_text(GTK_EDITABLE(field_), displayable(*question.field).c_str());
    nameIt(field_, question.asksPassword ? "User name" : displayable(question.text).c_str());
    if (question.asksPassword) gtk_entry_set_placeholder_text(GTK_ENTRY(field_), "User name");
    connect(field_, "activate", onActivate, this);
    gtk_box_append(GTK_BOX(column), field_);
  }
  if (question.asksPassword) {
    password_ = gtk_password_entry_new();
    gtk_password_entry_set_show_peek_icon(GTK_PASSWORD_ENTRY(password_), TRUE);
    g_object_set(password_, "placeholder-text", "Password", nullptr);
    nameIt(password_, "Password");
    connect(password_, "activate", onActivate, this);
    gtk_box_append(GTK_BOX(column), password_);
  }
  if (questions_ >= questionsUntilChoice) {
    noMore_ = gtk_check_button_new_with_label("Do not let this page ask any more");
    gtk_box_append(GTK_BOX(column), noMore_);
  }
  gtk_box_append(GTK_BOX(column), makeButtons(question));
  gtk_box_append(GTK_BOX(card_), column);

  // What somebody types elsewhere in the window goes on to be typed there.
  GtkRoot* root = gtk_widget_get_root(GTK_WIDGET(overlay_));
  GtkWidget* focus = root == nullptr ? nullptr : gtk_root_get_focus(root);
  const bool isInPage =
      focus == nullptr || gtk_widget_is_ancestor(focus, GTK_WIDGET(overlay_)) != FALSE;
  gtk_overlay_add_overlay(overlay_, card_);
  listenForEscape(root == nullptr ? card_ : GTK_WIDGET(root));
  // Keys do not reach it either.
  gtk_widget_set_can_focus(gtk_overlay_get_child(overlay_), FALSE);
  if (isInPage) gtk_widget_child_focus(column, GTK_DIR_TAB_FORWARD);
}

// Wherever the focus is: mostly in the address, when somebody is asked whether to leave.
void PageDialogs::listenForEscape(GtkWidget* window) {
  keys_ = gtk_event_controller_key_new();
  const auto onKey = [](GtkEventControllerKey*, guint key, guint, GdkModifierType,
                        gpointer data) -> gboolean {
    auto& self = *static_cast<PageDialogs*>(data);
    if (key != GDK_KEY_Escape || gtk_widget_get_mapped(self.card_) == FALSE) return FALSE;
    self.answer(false);
    return TRUE;
  };
  connect(keys_, "key-pressed", onKey, this);
  gtk_widget_add_controller(window, keys_);
  g_object_add_weak_pointer(G_OBJECT(keys_), reinterpret_cast<gpointer*>(&keys_));
}

GtkWidget* PageDialogs::makeButtons(const Question& question) {
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, spacing);
  gtk_widget_set_halign(row, GTK_ALIGN_END);
  const auto add = [&](const std::string& text, bool isAccepting) {
    GtkWidget* button = gtk_button_new_with_label(text.c_str());
    const auto onAccept = [](GtkButton*, gpointer self) {
      static_cast<PageDialogs*>(self)->answer(true);
    };
    const auto onDecline = [](GtkButton*, gpointer self) {
      static_cast<PageDialogs*>(self)->answer(false);
    };
    if (isAccepting) {
      connect(button, "clicked", onAccept, this);
    } else {
      connect(button, "clicked", onDecline, this);
    }
    if (isAccepting) gtk_widget_add_css_class(button, "suggested-action");
    gtk_box_append(GTK_BOX(row), button);
  };
  // The harmless one first: it is where Tab leads first.
  if (!question.decline.empty()) add(question.decline, false);
  add(question.accept, true);
  return row;
}

void PageDialogs::answer(bool isAccepted) {
  if (!isOpen()) return;
  Answer answer{.isAccepted = isAccepted};
  if (field_ != nullptr) answer.field = gtk_editable_get_text(GTK_EDITABLE(field_));
  if (password_ != nullptr) answer.password = gtk_editable_get_text(GTK_EDITABLE(password_));
  if (noMore_ != nullptr && gtk_check_button_get_active(GTK_CHECK_BUTTON(noMore_)) != FALSE) {
    silence();
  }
  const OnAnswer onAnswer = std::move(asked_.front().onAnswer);
  asked_.pop_front();
  close();
  onAnswer(answer);
  if (isSilenced_) return closeAll();
  // The answer may have brought another.
  if (!isOpen() && !asked_.empty()) show();
  if (!isOpen() && onChange_) onChange_();
}

void PageDialogs::close() {
  if (card_ == nullptr) return;
  // It may have gone with the window.
  if (GtkEventController* keys = keys_; keys != nullptr) {
    g_object_remove_weak_pointer(G_OBJECT(keys), reinterpret_cast<gpointer*>(&keys_));
    g_signal_handlers_disconnect_by_data(keys, this);
    gtk_widget_remove_controller(gtk_event_controller_get_widget(keys), keys);
    keys_ = nullptr;
  }
  GtkRoot* root = gtk_widget_get_root(GTK_WIDGET(overlay_));
  GtkWidget* focus = root == nullptr ? nullptr : gtk_root_get_focus(root);
  const bool hadFocus = focus != nullptr && gtk_widget_is_ancestor(focus, card_) != FALSE;
  gtk_overlay_remove_overlay(overlay_, card_);
  gtk_widget_set_can_focus(gtk_overlay_get_child(overlay_), TRUE);
  card_ = field_ = password_ = noMore_ = nullptr;
  if (hadFocus) gtk_widget_grab_focus(gtk_overlay_get_child(overlay_));
}

}  // namespace tamsel
