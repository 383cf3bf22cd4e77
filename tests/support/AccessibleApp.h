#pragma once

#include <atspi/atspi.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tamsel::test {

/// A running program as assistive technology sees it: what its window shows, and ways to act on it.
class AccessibleApp {
 public:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  using Element = std::unique_ptr<AtspiAccessible, Unref>;

  /// Waits until the program has a window.
  explicit AccessibleApp(const std::string& name);

  /// The first element with this role and a name that passes; null if there is none.
  Element find(AtspiRole role, const std::function<bool(const std::string&)>& isIt) const;
  Element find(AtspiRole role, const std::string& name) const;

  /// The text of the first label that begins, or ends, like this.
  std::optional<std::string> labelWithPrefix(const std::string& prefix) const;
  std::optional<std::string> labelWithSuffix(const std::string& suffix) const;

  /// Performs an action of the first element with this role and name; the only one if it is not
  /// named. Throws std::runtime_error if there is none.
  void act(AtspiRole role, const std::string& name, const std::string& action = {}) const;

 private:
  Element application_;
};

/// Asks again and again, a few times a second, until it is so. Throws std::runtime_error, naming
/// what it waited for, when it takes a minute.
void waitUntil(const std::string& what, const std::function<bool()>& isSo);

}  // namespace tamsel::test
