#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/files/Files.h"
#include "state/StateFile.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class StateFileTest : public testing::Test {
 protected:
  void write(const std::string& text) const { std::ofstream(path) << text; }

  std::vector<fs::path> putAside() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().filename().string().starts_with("state-unreadable-")) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  const test::TemporaryFolder base;
  const std::string folder = base.path() + "/Tamsel", path = folder + "/state.json";
  const Persisted state{.lists = {}, .customRules = "##.a", .pausedSites = {}};
};

TEST_F(StateFileTest, NeverOverwritesWhatItCannotRead) {
  const std::string elsewhere = base.path() + "/elsewhere";
  // What stands in the file's place, and what is said of it.
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[this] { write("{\"lists\":[]"); }, "damaged"},
      {[this] { write(""); }, "damaged"},
      {[this] {
         write("");
         fs::resize_file(path, StateFile::maxLength + 1);
       },
       "larger than 512 MiB"},
      {[this] { ::mkfifo(path.c_str(), 0600); }, "no file"},
      {[this] {
         fs::create_directory(path);
         write(path + "/in it");
       },
       "no file"},
      {[&] {
         std::ofstream(elsewhere) << "[]";
         fs::create_symlink(elsewhere, path);
       },
       "damaged"},
      {[this] { fs::create_symlink("/dev/zero", path); }, "no file"},
      {[this] { fs::create_symlink(path, path); }, "symbolic links"},
      {[this] { fs::create_symlink("/missing/state.json", path); }, "No such file"},
  };
  for (const auto& [stand, words] : cases) {
    SCOPED_TRACE(words);
    fs::remove_all(folder);
    fs::create_directory(folder);
    stand();
    const fs::file_status was = fs::symlink_status(path);
    {
      StateFile file(folder);
      const StateFile::Loaded loaded = file.load();
      EXPECT_FALSE(loaded.state);
      EXPECT_THAT(loaded.problem, HasSubstr(words));
      ASSERT_EQ(putAside().size(), 1);
      EXPECT_THAT(loaded.problem, HasSubstr(putAside()[0].filename().string()));
    }
    // Said once, whether or not something is saved.
    StateFile again(folder);
    EXPECT_EQ(again.load().problem, "");
    EXPECT_EQ(again.save(state), "");
    EXPECT_EQ(again.load().state, state);
    ASSERT_EQ(putAside().size(), 1);
    const fs::file_type kept = fs::symlink_status(putAside()[0]).type();
    EXPECT_TRUE(kept == was.type() || kept == fs::file_type::regular);
  }

  // One more each time, but not for ever.
  for (std::size_t i = 0; i < StateFile::maxPutAside + 3; ++i) {
    fs::remove(path);
    write("damaged " + std::to_string(i));
    EXPECT_NE(StateFile(folder).load().problem, "");
  }
  EXPECT_EQ(putAside().size(), StateFile::maxPutAside);
}

TEST_F(StateFileTest, IsTheUsersAlone) {
  fs::create_directories(folder);
  fs::permissions(folder, fs::perms::all);
  write("{}");
  EXPECT_EQ(StateFile(folder).save(state), "");
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(StateFileTest, WritesNothingThatItWouldNotRead) {
  Persisted large = state;
  large.customRules = std::string(StateFile::maxLength / 6 + 1, '\x01');
  StateFile file(folder);
  EXPECT_EQ(file.save(state), "");
  EXPECT_THAT(file.save(large), HasSubstr("no more than 512.0"));
  EXPECT_EQ(file.load().state, state);
}

}  // namespace
}  // namespace tamsel
