#include "tests/support/AccessibleApp.h"

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tamsel::test {
namespace {

using Element = AccessibleApp::Element;

std::string take(char* text) {
  std::string taken = text == nullptr ? "" : text;
  g_free(text);
  return taken;
}

std::string nameOf(const Element& element) {
  return take(atspi_accessible_get_name(element.get(), nullptr));
}

bool has(const Element& element, AtspiStateType state) {
  const std::unique_ptr<AtspiStateSet, AccessibleApp::Unref> states(
      atspi_accessible_get_state_set(element.get()));
  return atspi_state_set_contains(states.get(), state) != FALSE;
}

// The display's, which types into whatever has the focus.
class Keyboard {
 public:
  Keyboard() : display_(XOpenDisplay(nullptr)) {
    if (display_ == nullptr) throw std::runtime_error("There is no X display.");
  }
  ~Keyboard() { XCloseDisplay(display_); }
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  void press(guint key, unsigned modifiers) {
    std::vector<KeyCode> codes;
    const KeyCode code = XKeysymToKeycode(display_, key);
    // On the upper half of a key.
    const bool isShifted = XkbKeycodeToKeysym(display_, code, 0, 0) != key;
    if ((modifiers & GDK_CONTROL_MASK) != 0) codes.push_back(codeOf(GDK_KEY_Control_L));
    if ((modifiers & GDK_ALT_MASK) != 0) codes.push_back(codeOf(GDK_KEY_Alt_L));
    if (isShifted) codes.push_back(codeOf(GDK_KEY_Shift_L));
    codes.push_back(code);
    for (const KeyCode pressed : codes) send(pressed, True);
    std::reverse(codes.begin(), codes.end());
    for (const KeyCode released : codes) send(released, False);
    XSync(display_, False);
  }

 private:
  KeyCode codeOf(guint key) { return XKeysymToKeycode(display_, key); }
  void send(KeyCode code, Bool isDown) { XTestFakeKeyEvent(display_, code, isDown, CurrentTime); }

  Display* display_;
};

bool is(const Element& element, AtspiRole role) {
  return atspi_accessible_get_role(element.get(), nullptr) == role;
}

// The toolkit gives a widget without a name that of its type.
bool isMadeUp(const std::string& name) {
  return name.starts_with("Gtk") || name.starts_with("gtkmm__") || name.starts_with("Adw");
}

// The first one that passes, depth first, which is reading order. What is in a tab's button or in
// a text is of no interest, and every question takes its time.
Element search(Element element, const std::function<bool(const Element&)>& isIt) {
  if (isIt(element)) return element;
  for (const AtspiRole role : {ATSPI_ROLE_PAGE_TAB, ATSPI_ROLE_LABEL, ATSPI_ROLE_TEXT,
                               ATSPI_ROLE_IMAGE, ATSPI_ROLE_SCROLL_BAR}) {
    if (is(element, role)) return nullptr;
  }
  const int children = atspi_accessible_get_child_count(element.get(), nullptr);
  for (int i = 0; i < children; ++i) {
    Element child(atspi_accessible_get_child_at_index(element.get(), i, nullptr));
    if (child == nullptr) continue;
    if (Element found = search(std::move(child), isIt)) return found;
  }
  return nullptr;
}

Element findApplication(unsigned process) {
  const Element desktop(atspi_get_desktop(0));
  const int children = atspi_accessible_get_child_count(desktop.get(), nullptr);
  for (int i = 0; i < children; ++i) {
    Element child(atspi_accessible_get_child_at_index(desktop.get(), i, nullptr));
    if (child == nullptr || atspi_accessible_get_process_id(child.get(), nullptr) != process) {
      continue;
    }
    if (atspi_accessible_get_child_count(child.get(), nullptr) == 0) continue;
    // What it shows changes, and nobody here listens for that.
    atspi_accessible_set_cache_mask(child.get(), ATSPI_CACHE_NONE);
    return child;
  }
  return nullptr;
}

}  // namespace

AccessibleApp::AccessibleApp(GSubprocess* process) {
  atspi_init();
  const char* id = g_subprocess_get_identifier(process);
  if (id == nullptr) throw std::runtime_error("The program has ended.");
  waitUntil("the program's window", [this, number = static_cast<unsigned>(std::stoul(id))] {
    application_ = findApplication(number);
    return application_ != nullptr;
  });
}

Element AccessibleApp::root() const {
  return Element(ATSPI_ACCESSIBLE(g_object_ref(application_.get())));
}

Element AccessibleApp::find(AtspiRole role,
                            const std::function<bool(const std::string&)>& isIt) const {
  return search(root(), [role, &isIt](const Element& element) {
    return is(element, role) && isIt(nameOf(element));
  });
}

Element AccessibleApp::find(AtspiRole role, const std::string& name) const {
  return find(role, [&name](const std::string& other) { return other == name; });
}

AccessibleApp AccessibleApp::within(AtspiRole role, const std::string& name) const {
  return AccessibleApp(await(role, name));
}

std::vector<std::string> AccessibleApp::labels() const {
  std::vector<std::string> texts;
  search(root(), [&texts](const Element& element) {
    if (is(element, ATSPI_ROLE_LABEL)) {
      const std::string text = nameOf(element);
      if (!isMadeUp(text)) texts.push_back(text);
    }
    return false;
  });
  return texts;
}

std::vector<std::string> AccessibleApp::namelessControls() const {
  std::vector<std::string> roles;
  search(root(), [&roles](const Element& element) {
    const std::string name = nameOf(element);
    // A filler is part of another control.
    if (has(element, ATSPI_STATE_FOCUSABLE) && !is(element, ATSPI_ROLE_FILLER) &&
        (name.empty() || isMadeUp(name))) {
      roles.push_back(take(atspi_accessible_get_role_name(element.get(), nullptr)) + " " + name);
    }
    return false;
  });
  return roles;
}

std::string AccessibleApp::focused() const {
  const Element focused =
      search(root(), [](const Element& element) { return has(element, ATSPI_STATE_FOCUSED); });
  return focused == nullptr ? "" : nameOf(focused);
}

std::optional<std::string> AccessibleApp::labelWithPrefix(const std::string& prefix) const {
  const Element label = find(
      ATSPI_ROLE_LABEL, [&prefix](const std::string& name) { return name.starts_with(prefix); });
  return label == nullptr ? std::nullopt : std::optional(nameOf(label));
}

std::optional<std::string> AccessibleApp::labelWithSuffix(const std::string& suffix) const {
  const Element label =
      find(ATSPI_ROLE_LABEL, [&suffix](const std::string& name) { return name.ends_with(suffix); });
  return label == nullptr ? std::nullopt : std::optional(nameOf(label));
}

Element AccessibleApp::await(AtspiRole role, const std::string& name) const {
  Element element;
  waitUntil(name, [&] { return (element = find(role, name)) != nullptr; });
  return element;
}

void AccessibleApp::act(AtspiRole role, const std::string& name, const std::string& action) const {
  const auto isDone = [&](const Element& element) {
    if (!is(element, role) || nameOf(element) != name) return false;
    const std::unique_ptr<AtspiAction, Unref> actions(
        atspi_accessible_get_action_iface(element.get()));
    const int count = actions == nullptr ? 0 : atspi_action_get_n_actions(actions.get(), nullptr);
    for (int i = 0; i < count; ++i) {
      if (!action.empty() &&
          take(atspi_action_get_action_name(actions.get(), i, nullptr)) != action) {
        continue;
      }
      if (atspi_action_do_action(actions.get(), i, nullptr) != FALSE) return true;
    }
    return false;
  };
  waitUntil(name + " to act on", [&] { return search(root(), isDone) != nullptr; });
}

bool AccessibleApp::hasState(AtspiRole role, const std::string& name, AtspiStateType state) const {
  return has(await(role, name), state);
}

bool AccessibleApp::isChecked(AtspiRole role, const std::string& name) const {
  return hasState(role, name, ATSPI_STATE_CHECKED);
}

bool AccessibleApp::isSensitive(AtspiRole role, const std::string& name) const {
  return hasState(role, name, ATSPI_STATE_SENSITIVE);
}

std::string AccessibleApp::textOf(const std::string& name) const {
  const Element element = await(ATSPI_ROLE_TEXT, name);
  const std::unique_ptr<AtspiText, Unref> text(atspi_accessible_get_text_iface(element.get()));
  const int end = atspi_text_get_character_count(text.get(), nullptr);
  return take(atspi_text_get_text(text.get(), 0, end, nullptr));
}

void AccessibleApp::setText(const std::string& name, const std::string& text) const {
  const Element element = await(ATSPI_ROLE_TEXT, name);
  const std::unique_ptr<AtspiEditableText, Unref> editable(
      atspi_accessible_get_editable_text_iface(element.get()));
  if (editable == nullptr) throw std::runtime_error(name + " cannot be edited.");
  atspi_editable_text_set_text_contents(editable.get(), text.c_str(), nullptr);
}

void AccessibleApp::tabTo(const std::string& name) const {
  // A key that comes before the window has the focus is lost.
  waitUntil(name + " to have the focus", [&] {
    if (focused() == name) return true;
    press("Tab");
    return false;
  });
}

void AccessibleApp::type(const std::string& characters) {
  Keyboard keyboard;
  for (const char c : characters) {
    keyboard.press(c == '\n' ? GDK_KEY_Return : gdk_unicode_to_keyval(static_cast<guint32>(c)), 0);
  }
}

void AccessibleApp::press(const std::string& keys) {
  guint key = 0;
  GdkModifierType modifiers{};
  if (gtk_accelerator_parse(keys.c_str(), &key, &modifiers) == FALSE) {
    throw std::runtime_error("There are no keys " + keys + ".");
  }
  Keyboard().press(key, modifiers);
}

void waitUntil(const std::string& what, const std::function<bool()>& isSo) {
  constexpr auto pause = std::chrono::milliseconds(20);
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!isSo()) {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    if (std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("Waited a minute for " + what + ".");
    }
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace tamsel::test
