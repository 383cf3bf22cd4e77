#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tamsel::bench {

/// What the made-up lists and requests are made of.
inline constexpr unsigned madeUpSeed = 7;

/// Where the lists are: the files that TAMSEL_LISTS names (paths with ":" between them), or a
/// made-up one in a folder that is removed at the end.
class ListFiles {
 public:
  static const ListFiles& get();

  const std::vector<std::string>& paths() const { return paths_; }
  const std::filesystem::path& scratch() const { return scratch_; }

  ListFiles(const ListFiles&) = delete;
  ListFiles& operator=(const ListFiles&) = delete;

 private:
  ListFiles();
  ~ListFiles();

  std::filesystem::path scratch_;
  std::vector<std::string> paths_;
};

std::vector<std::string> split(const std::string& text, char separator);

}  // namespace tamsel::bench
