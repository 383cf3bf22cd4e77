#pragma once

#include <memory>

#include "platform/rulestore/RuleListStore.h"

namespace tamsel {

class AppState;

/// What the application asks of its built-in browser, which stands above it.
class Browser {
 public:
  Browser() = default;
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  virtual ~Browser() = default;

  /// The application that the browser is part of, not owned; null when it goes.
  virtual void setApp(AppState* app) = 0;

  /// Filters with this list from now on, or with none when it is null.
  virtual void setRuleList(std::shared_ptr<const RuleList> list) = 0;

  /// Shows the demo page.
  virtual void loadDemo() = 0;
};

}  // namespace tamsel
