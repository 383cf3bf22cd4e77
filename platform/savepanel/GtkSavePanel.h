#pragma once

#include <functional>

#include "platform/savepanel/SavePanel.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier)
using GtkWindow = struct _GtkWindow;

namespace tamsel {

/// The desktop's own dialogue.
class GtkSavePanel : public SavePanel {
 public:
  /// `parent` tells above which window it is shown; null for none.
  explicit GtkSavePanel(std::function<GtkWindow*()> parent) : parent_(std::move(parent)) {}

  Task<std::optional<std::string>> ask(Question question) override;

 private:
  std::function<GtkWindow*()> parent_;
};

}  // namespace tamsel
