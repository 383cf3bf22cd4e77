#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace tamsel::test {

/// A folder of a test's own, removed with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(testing::TempDir() + "tamsel-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder " + path_);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace tamsel::test
