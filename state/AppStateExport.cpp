// Writes AppState's compiled document to a file of the user's.

#include <filesystem>

#include "platform/files/Files.h"
#include "platform/mainloop/Awaiting.h"
#include "state/AppState.h"

namespace tamsel {

void AppState::exportJSON() {
  tasks_.add(performExport());
}

Task<void> AppState::performExport() {
  auto asking = platform_.savePanel.ask(
      {.fileName = "Tamsel-content-blocker.json",
       .message = "Saves the compiled WebKit content blocker JSON. Safari itself is not changed.",
       .mediaType = "application/json"});
  const std::optional<std::string> path = co_await asking;
  if (!path) co_return;
  const std::size_t rules = totalRules;
  auto writing = detached([path = *path, document = exportData_]() -> std::optional<std::string> {
    try {
      Files::replace(path, document->view());
      return std::nullopt;
    } catch (const Files::FileError& failure) {
      return failure.what();
    }
  });
  const std::optional<std::string> error = co_await writing;
  statusMessage = error ? "Export failed: " + *error
                        : "Exported " + std::to_string(rules) + " rules to " +
                              std::filesystem::path(*path).filename().string() + ".";
}

}  // namespace tamsel
