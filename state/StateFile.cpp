#include "state/StateFile.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/files/Files.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view asidePrefix = "state-unreadable-";
constexpr std::string_view suffix = ".json";

// All in the folder whose names begin so, in the order of their names.
std::vector<fs::path> entries(const std::string& folder, std::string_view prefix) {
  std::error_code error;
  std::vector<fs::path> found;
  for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    if (entry->path().filename().string().starts_with(prefix)) found.push_back(entry->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool isSameFile(const std::string& one, const std::string& other) {
  struct stat first {
  }, second{};
  return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// A name that nothing has.
std::string nameAside(const std::string& folder) {
  const std::unique_ptr<GDateTime, void (*)(GDateTime*)> now(g_date_time_new_now_local(),
                                                             g_date_time_unref);
  const std::unique_ptr<char, void (*)(gpointer)> time(
      g_date_time_format(now.get(), "%Y-%m-%d-%H%M%S"), g_free);
  const std::string name = folder + "/" + std::string(asidePrefix) + time.get();
  std::string path = name + std::string(suffix);
  std::error_code error;
  for (int number = 2; fs::exists(fs::symlink_status(path, error)); ++number) {
    path = name + "-" + std::to_string(number) + std::string(suffix);
  }
  return path;
}

std::string inWords(std::size_t bytes) {
  const std::unique_ptr<char, void (*)(gpointer)> text(
      g_format_size_full(bytes, G_FORMAT_SIZE_IEC_UNITS), g_free);
  return text.get();
}

}  // namespace

StateFile::StateFile(std::string folder)
    : folder_(std::move(folder)), path_(folder_ + "/state.json") {
  (void)Files::makePrivateFolder(folder_);
  // A save that was killed in its last moment.
  std::error_code ignored;
  for (const fs::path& left : entries(folder_, Files::temporaryPrefix)) fs::remove(left, ignored);
}

StateFile::Loaded StateFile::load() {
  struct stat status {};
  if (::lstat(path_.c_str(), &status) != 0) return {};
  std::string reason = "The file is damaged, or none of Tamsel's.";
  try {
    Loaded loaded{Persisted::decode(Files::readRegular(path_, maxLength)), {}};
    if (loaded.state) return loaded;
  } catch (const Files::FileError& error) {
    reason = error.what();
  } catch (const std::bad_alloc&) {
    reason = "There is not enough memory for it.";
  }
  const std::string begin = "The saved lists and rules cannot be read. " + reason;
  switch (putAside()) {
    case PutAside::now:
      return {
          {},
          begin + " What was there is kept as \"" + fs::path(aside_).filename().string() + "\"."};
    case PutAside::before:
      return {};
    case PutAside::failed:
      break;
  }
  return {{}, begin + " Nothing is saved before \"" + path_ + "\" is out of the way."};
}

StateFile::PutAside StateFile::putAside() {
  for (const fs::path& kept : entries(folder_, asidePrefix)) {
    if (isSameFile(kept, path_)) return PutAside::before;
  }
  aside_ = nameAside(folder_);
  // A second name, so that the file is also where it was until a new one takes its place. What can
  // have no second name, such as a folder, loses the first.
  const bool isAside =
      ::linkat(AT_FDCWD, path_.c_str(), AT_FDCWD, aside_.c_str(), AT_SYMLINK_FOLLOW) == 0 ||
      ::rename(path_.c_str(), aside_.c_str()) == 0;
  isInTheWay_ = !isAside;
  if (!isAside) return PutAside::failed;
  std::vector<fs::path> kept = entries(folder_, asidePrefix);
  std::error_code ignored;
  for (std::size_t i = 0; i + maxPutAside < kept.size(); ++i) fs::remove_all(kept[i], ignored);
  return PutAside::now;
}

std::string StateFile::save(const Persisted& state) {
  if (isInTheWay_ && putAside() == PutAside::failed) {
    return "The file \"" + path_ + "\", which cannot be read, is in the way.";
  }
  if (std::string refusal = refusalOf(state); !refusal.empty()) return refusal;
  (void)Files::makePrivateFolder(folder_);  // it may have gone, or could not be made before
  try {
    Files::replacePrivate(path_, state.encode(), Files::Durability::onDisk);
    return {};
  } catch (const Files::FileError& error) {
    return error.what();
  } catch (const std::bad_alloc&) {
    return "There is not enough memory for it.";
  }
}

std::string StateFile::refusalOf(const Persisted& state) {
  if (state.mostEncodedLength() <= maxLength) return {};
  const std::size_t length = state.encodedLength();
  if (length <= maxLength) return {};
  return "All lists and rules would take " + inWords(length) + " on the disk, and no more than " +
         inWords(maxLength) + " can be saved.";
}

}  // namespace tamsel
