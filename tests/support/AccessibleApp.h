#pragma once

#include <atspi/atspi.h>
#include <gio/gio.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tamsel::test {

/// A running program as assistive technology sees it: what its window shows, and ways to act on it.
/// What is asked about one element waits until there is one, and throws std::runtime_error when
/// that takes a minute.
class AccessibleApp {
 public:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  using Element = std::unique_ptr<AtspiAccessible, Unref>;

  /// Waits until the process has a window.
  explicit AccessibleApp(GSubprocess* process);

  /// The first element with this role and name as an application of its own: what is in it.
  AccessibleApp within(AtspiRole role, const std::string& name) const;

  /// The first element with this role and a name that passes; null if there is none.
  Element find(AtspiRole role, const std::function<bool(const std::string&)>& isIt) const;
  Element find(AtspiRole role, const std::string& name) const;

  /// The text of the first label that begins, or ends, like this.
  std::optional<std::string> labelWithPrefix(const std::string& prefix) const;
  std::optional<std::string> labelWithSuffix(const std::string& suffix) const;

  /// The text of all labels, in reading order.
  std::vector<std::string> labels() const;

  /// The roles of what can have the focus and has no name of its own; what the toolkit makes up
  /// from the type of a widget is none.
  std::vector<std::string> namelessControls() const;

  /// The name of what has the focus; empty if nothing has it.
  std::string focused() const;

  /// Performs an action of the first element with this role and name that has it; any if it is not
  /// named.
  void act(AtspiRole role, const std::string& name, const std::string& action = {}) const;

  bool isChecked(AtspiRole role, const std::string& name) const;
  bool isSensitive(AtspiRole role, const std::string& name) const;

  /// Of the text field with this name.
  std::string textOf(const std::string& name) const;
  void setText(const std::string& name, const std::string& text) const;
  /// Goes from control to control with the keyboard, until it is this one.
  void tabTo(const std::string& name) const;

  /// Types these characters, or presses this combination of keys as GTK names it, into whatever
  /// has the focus.
  static void type(const std::string& characters);
  static void press(const std::string& keys);

 private:
  explicit AccessibleApp(Element part) : application_(std::move(part)) {}
  bool hasState(AtspiRole role, const std::string& name, AtspiStateType state) const;
  Element root() const;
  Element await(AtspiRole role, const std::string& name) const;

  Element application_;
};

/// Runs the main loop and asks again and again, until it is so. Throws std::runtime_error, naming
/// what it waited for, when it takes a minute.
void waitUntil(const std::string& what, const std::function<bool()>& isSo);

}  // namespace tamsel::test
