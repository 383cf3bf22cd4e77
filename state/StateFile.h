#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "state/Persisted.h"

namespace tamsel {

/// "state.json" in the program's folder: what is kept from one start to the next.
///
/// A file that cannot be read is never lost. It stays where it is, and before anything is written
/// in its place it has a second name beside it, "state-unreadable-" and the time.
class StateFile {
 public:
  /// The longest file that is read, in bytes, and therefore the longest that is written.
  static constexpr std::size_t maxLength = std::size_t{512} << 20;
  /// So many unreadable files are kept; of more the oldest go.
  static constexpr std::size_t maxPutAside = 5;

  /// Makes the folder if it is missing, and takes away what was left of a save in it.
  explicit StateFile(std::string folder);

  struct Loaded {
    /// Nothing on a first start, and when the file cannot be read.
    std::optional<Persisted> state;
    /// Why the file cannot be read, and where it is kept, in a sentence; empty if it can, and if
    /// that was said at an earlier start.
    std::string problem;
  };
  Loaded load();

  /// Replaces the file, on the disk, in one step. Returns why it could not, in a sentence; empty if
  /// it did.
  std::string save(const Persisted& state);

  /// Why a state is too large to be saved, in a sentence; empty if it is not.
  static std::string refusalOf(const Persisted& state);

 private:
  enum class PutAside { now, before, failed };
  PutAside putAside();

  std::string folder_;
  std::string path_;
  // The name under which an unreadable file was last kept.
  std::string aside_;
  // What stands there must not be overwritten.
  bool isInTheWay_ = false;
};

}  // namespace tamsel
