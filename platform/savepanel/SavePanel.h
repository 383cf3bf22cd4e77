#pragma once

#include <optional>
#include <string>

#include "platform/mainloop/Task.h"

namespace tamsel {

/// Asks where to save a file. For the main thread.
class SavePanel {
 public:
  struct Question {
    /// The name that the file has unless the user changes it.
    std::string fileName;
    std::string message;
    /// The only type of file to choose from, for instance "application/json".
    std::string mediaType;
  };

  SavePanel() = default;
  SavePanel(const SavePanel&) = delete;
  SavePanel& operator=(const SavePanel&) = delete;
  virtual ~SavePanel() = default;

  /// The path that the user chose; nothing if the user cancelled.
  virtual Task<std::optional<std::string>> ask(Question question) = 0;
};

}  // namespace tamsel
