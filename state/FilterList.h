#pragma once

#include <optional>
#include <string>

#include "compiler/Text.h"
#include "compiler/Uuid.h"

namespace tamsel {

/// A moment, as the state file has it.
struct Date {
  /// Since 2001-01-01 00:00:00 UTC.
  double seconds = 0;

  static Date now();

  bool operator==(const Date&) const = default;
};

/// A filter list of the user's.
struct FilterList {
  /// Stable for the list's life and across saves.
  Uuid id = Uuid::random();
  std::string name;
  /// Where a downloaded list came from, as the user typed it.
  std::optional<std::string> url = {};
  /// The whole text. Copies share it.
  Text text = {};
  /// Whether it takes part in rebuilds.
  bool enabled = true;
  /// When the text was last downloaded.
  std::optional<Date> updated = {};
  /// True only for the starter list, which cannot be removed.
  bool isBuiltIn = false;
  /// Why the last refresh failed; nothing if it did not.
  std::optional<std::string> lastError = {};

  bool operator==(const FilterList&) const = default;
};

}  // namespace tamsel
