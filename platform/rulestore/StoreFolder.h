#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/Descriptor.h"

namespace tamsel {

/// Where one compiled rule list is kept: the filters that WebKit made of it, and a record of what
/// they were compiled from.
///
///     compiled.json            the record; replaced in one step, it decides which filters are
///     valid <digest>.rules           a filter in WebKit's format, named by its own bytes
///     work-XXXXXX/             what somebody is at work on; locked as long as that is so
///
/// Several threads and programs can use a folder at once: each works in a folder of its own and
/// only adds whole files. None of these operations waits for longer than some files take to be
/// read, or than `patience` for another program. All that is in a folder is the user's alone.
class StoreFolder {
 public:
  /// The longest wait for another program that is changing the folder.
  static constexpr std::chrono::milliseconds patience = std::chrono::seconds(10);

  /// The folder cannot be made or written to; `what` is the reason.
  struct Unusable : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  /// A private folder, removed with all that is in it when this goes.
  class WorkFolder {
   public:
    WorkFolder(WorkFolder&& other) noexcept = default;
    WorkFolder& operator=(WorkFolder&&) = delete;
    ~WorkFolder();

    /// Absolute.
    const std::string& path() const noexcept { return path_; }
    /// Makes a folder in it and returns its path. Throws Unusable.
    std::string makeFolder(const std::string& name) const;
    /// The identifier that WebKit's store at `path` has the filter of this number under.
    std::string filterName(std::size_t number) const;
    /// The file of that filter.
    std::string filterFile(std::size_t number) const;

   private:
    friend class StoreFolder;
    WorkFolder(const std::string& parent, std::string identifier, const std::stop_token& stop);

    std::string path_;
    std::string identifier_;
    Descriptor lock_;  // open until this goes, or was moved from
  };

  /// What filters were compiled from. Two that are equal give the same filters.
  struct Source {
    /// As digestOf tells it.
    std::string document;
    std::string webKitVersion;

    bool operator==(const Source&) const = default;
  };

  /// The folder named `identifier` in `parent`; an identifier is made of letters and digits. Makes
  /// it if it is missing, and removes what others left behind. Throws Unusable, also when a stop is
  /// requested while it waits; so do the other operations.
  StoreFolder(const std::string& parent, const std::string& identifier, std::stop_token stop = {});

  /// Whether one can be made, or is there, and can be written to.
  static bool isUsable(const std::string& parent, const std::string& identifier,
                       const std::stop_token& stop);

  /// Throws Unusable.
  WorkFolder makeWorkFolder() const { return {path_, identifier_, stop_}; }

  /// Puts the filters compiled from the source into the work folder and returns how many there are,
  /// or nothing if they are not here or if anything about them is in doubt: each must be, to the
  /// byte, what was kept. What happens to this folder later does not touch the work folder, which
  /// may be one of another StoreFolder.
  std::optional<std::size_t> find(const Source& source, const WorkFolder& work) const;

  /// The same for one filter, which was compiled from `source` as a part of whatever is kept here.
  /// Returns whether it is there, as the filter of this number.
  bool findPart(const Source& source, const WorkFolder& work, std::size_t number) const;

  /// A filter in a work folder and the digest of the document that it was compiled from.
  struct Part {
    std::size_t number;
    std::string document;
  };

  /// Takes the filters over from the work folder, in the place of those that were kept before.
  /// Returns whether that succeeded; if not, what was kept before still is.
  bool keep(const Source& source, const WorkFolder& work, const std::vector<Part>& parts) const;

 private:
  struct Record;

  std::optional<Record> readRecord() const;
  bool link(const std::string& file, const WorkFolder& work, std::size_t number) const;
  // Abandoned work folders, and unless `kept` is null all filters that it does not name.
  void removeLeftovers(const std::vector<std::string>* kept) const;

  std::string path_;
  std::string identifier_;
  std::stop_token stop_;
};

/// The text that the pieces make up, as 32 hexadecimal digits that tell it from others (XXH3, 128
/// bits) and its length.
std::string digestOf(std::span<const std::string_view> pieces);

}  // namespace tamsel
