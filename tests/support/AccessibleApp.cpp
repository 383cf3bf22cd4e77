#include "tests/support/AccessibleApp.h"

#include <chrono>
#include <stdexcept>
#include <thread>

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

// Depth first, so that it is in reading order.
Element search(Element element, AtspiRole role,
               const std::function<bool(const std::string&)>& isIt) {
  if (atspi_accessible_get_role(element.get(), nullptr) == role && isIt(nameOf(element))) {
    return element;
  }
  const int children = atspi_accessible_get_child_count(element.get(), nullptr);
  for (int i = 0; i < children; ++i) {
    Element child(atspi_accessible_get_child_at_index(element.get(), i, nullptr));
    if (child == nullptr) continue;
    if (Element found = search(std::move(child), role, isIt)) return found;
  }
  return nullptr;
}

Element findApplication(const std::string& name) {
  const Element desktop(atspi_get_desktop(0));
  const int children = atspi_accessible_get_child_count(desktop.get(), nullptr);
  for (int i = 0; i < children; ++i) {
    Element child(atspi_accessible_get_child_at_index(desktop.get(), i, nullptr));
    if (child == nullptr || nameOf(child) != name) continue;
    if (atspi_accessible_get_child_count(child.get(), nullptr) == 0) continue;
    // What it shows changes, and nobody here listens for that.
    atspi_accessible_set_cache_mask(child.get(), ATSPI_CACHE_NONE);
    return child;
  }
  return nullptr;
}

}  // namespace

AccessibleApp::AccessibleApp(const std::string& name) {
  atspi_init();
  waitUntil("a window of " + name, [this, &name] {
    application_ = findApplication(name);
    return application_ != nullptr;
  });
}

Element AccessibleApp::find(AtspiRole role,
                            const std::function<bool(const std::string&)>& isIt) const {
  return search(Element(ATSPI_ACCESSIBLE(g_object_ref(application_.get()))), role, isIt);
}

Element AccessibleApp::find(AtspiRole role, const std::string& name) const {
  return find(role, [&name](const std::string& other) { return other == name; });
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

void AccessibleApp::act(AtspiRole role, const std::string& name, const std::string& action) const {
  const Element element = find(role, name);
  if (element == nullptr) throw std::runtime_error("The window has no " + name + ".");
  const std::unique_ptr<AtspiAction, Unref> actions(
      atspi_accessible_get_action_iface(element.get()));
  const int count = actions == nullptr ? 0 : atspi_action_get_n_actions(actions.get(), nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string actionName = take(atspi_action_get_action_name(actions.get(), i, nullptr));
    if (action.empty() || action == actionName) {
      atspi_action_do_action(actions.get(), i, nullptr);
      return;
    }
  }
  throw std::runtime_error("Nothing can be done with " + name + ".");
}

void waitUntil(const std::string& what, const std::function<bool()>& isSo) {
  constexpr auto pause = std::chrono::milliseconds(50);
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!isSo()) {
    if (std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("Waited a minute for " + what + ".");
    }
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace tamsel::test
