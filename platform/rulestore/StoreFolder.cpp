#include "platform/rulestore/StoreFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/files/Files.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::string_view recordName = "compiled.json";
constexpr std::string_view filterSuffix = ".rules";
constexpr std::string_view workPrefix = "work-";
constexpr std::size_t digestLength = 32;
constexpr std::size_t maxRecordLength = std::size_t{1} << 16;

std::string hex(const XXH128_hash_t& hash) {
  XXH128_canonical_t bytes;
  XXH128_canonicalFromHash(&bytes, hash);
  std::string text;
  for (const unsigned char byte : bytes.digest) {
    constexpr std::string_view digits = "0123456789abcdef";
    text += digits[byte >> 4];
    text += digits[byte & 0xF];
  }
  return text;
}

class Digest {
 public:
  Digest() : state_(XXH3_createState()) {
    if (!state_) throw std::bad_alloc();
    XXH3_128bits_reset(state_.get());
  }

  void update(std::string_view bytes) {
    XXH3_128bits_update(state_.get(), bytes.data(), bytes.size());
    length_ += bytes.size();
  }

  std::string text() const {
    return hex(XXH3_128bits_digest(state_.get())) + "-" + std::to_string(length_);
  }

 private:
  struct Free {
    void operator()(XXH3_state_t* state) const noexcept { XXH3_freeState(state); }
  };
  std::unique_ptr<XXH3_state_t, Free> state_;
  std::size_t length_ = 0;
};

// The digest of a regular file, in the form of digestOf; nothing if it cannot be read.
std::optional<std::string> digestOfFile(const std::string& path) {
  constexpr std::size_t step = std::size_t{1} << 18;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  Digest digest;
  const auto buffer = std::make_unique<char[]>(step);
  while (true) {
    const ssize_t count = ::read(file.get(), buffer.get(), step);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return digest.text();
    digest.update({buffer.get(), static_cast<std::size_t>(count)});
  }
}

// Held for the few steps in which the folder is changed, by whichever thread or program. Where the
// file system knows no locks there is none.
class Lock {
 public:
  Lock(const std::string& folder, const std::stop_token& stop)
      : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr auto step = std::chrono::milliseconds(5);
    const auto deadline = std::chrono::steady_clock::now() + StoreFolder::patience;
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock waiting(mutex);
    while (folder_ && ::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0 &&
           (errno == EINTR || errno == EWOULDBLOCK)) {
      if (stop.stop_requested() || std::chrono::steady_clock::now() > deadline) {
        throw StoreFolder::Unusable("Another program is at work in it");
      }
      never.wait_for(waiting, stop, step, [] { return false; });
    }
  }

 private:
  Descriptor folder_;
};

bool isKeptName(std::string_view name) {
  if (!name.ends_with(filterSuffix)) return false;
  name.remove_suffix(filterSuffix.size());
  return name.size() > digestLength && name[digestLength] == '-' &&
         name.find_first_not_of("0123456789abcdef-") == std::string_view::npos;
}

// Whether nobody is at work in the folder any more.
bool isAbandoned(const std::string& workFolder) {
  const Descriptor folder(
      ::open(workFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  return folder && ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
}

// Nothing but files is ever put here; a folder of the same name would be in the way for ever.
void removeFolder(const std::string& path) {
  std::error_code error;
  if (fs::symlink_status(path, error).type() == fs::file_type::directory) {
    fs::remove_all(path, error);
  }
}

}  // namespace

std::string digestOf(std::span<const std::string_view> pieces) {
  Digest digest;
  for (const std::string_view piece : pieces) digest.update(piece);
  return digest.text();
}

StoreFolder::WorkFolder::WorkFolder(const std::string& parent, std::string identifier,
                                    const std::stop_token& stop)
    : identifier_(std::move(identifier)) {
  const Lock lock(parent, stop);  // an empty folder that is not locked yet looks abandoned
  std::string path = parent + "/" + std::string(workPrefix) + "XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) throw Unusable(std::strerror(errno));
  path_ = std::move(path);
  lock_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock_) throw Unusable(std::strerror(errno));
  (void)::flock(lock_.get(), LOCK_EX | LOCK_NB);
}

StoreFolder::WorkFolder::~WorkFolder() {
  std::error_code error;
  if (lock_) fs::remove_all(path_, error);
}

std::string StoreFolder::WorkFolder::makeFolder(const std::string& name) const {
  std::string path = path_ + "/" + name;
  if (::mkdir(path.c_str(), S_IRWXU) != 0) throw Unusable(std::strerror(errno));
  return path;
}

std::string StoreFolder::WorkFolder::filterName(std::size_t number) const {
  return identifier_ + "-" + std::to_string(number);
}

std::string StoreFolder::WorkFolder::filterFile(std::size_t number) const {
  return path_ + "/ContentRuleList-" + filterName(number);
}

struct StoreFolder::Record {
  struct Filter {
    std::string document, file;
  };
  Source source;
  std::vector<Filter> filters;
};

StoreFolder::StoreFolder(const std::string& parent, const std::string& identifier,
                         std::stop_token stop)
    : identifier_(identifier), stop_(std::move(stop)) {
  const auto isPlain = [](unsigned char c) { return c < 0x80 && std::isalnum(c) != 0; };
  if (identifier.empty() || !std::all_of(identifier.begin(), identifier.end(), isPlain)) {
    throw std::invalid_argument("An identifier is made of letters and digits.");
  }
  if (parent.empty()) throw Unusable("There is none");
  std::error_code error;
  path_ = fs::absolute(parent, error) / identifier;
  if (error) throw Unusable(error.message());
  if (const std::string reason = Files::makePrivateFolder(path_); !reason.empty()) {
    throw Unusable(reason);
  }
  const Lock lock(path_, stop_);
  removeLeftovers(nullptr);
}

bool StoreFolder::isUsable(const std::string& parent, const std::string& identifier,
                           const std::stop_token& stop) {
  try {
    (void)StoreFolder(parent, identifier, stop).makeWorkFolder();
    return true;
  } catch (const Unusable&) {
    return false;
  }
}

std::optional<StoreFolder::Record> StoreFolder::readRecord() const {
  try {
    const json parsed =
        json::parse(Files::readRegular(path_ + "/" + std::string(recordName), maxRecordLength));
    Record record{{parsed.at("document"), parsed.at("webKitVersion")}, {}};
    for (const json& filter : parsed.at("filters")) {
      record.filters.push_back({filter.at("document"), filter.at("file")});
      if (!isKeptName(record.filters.back().file)) return std::nullopt;
    }
    return record;
  } catch (const json::exception&) {
    return std::nullopt;
  } catch (const Files::FileError&) {
    return std::nullopt;
  }
}

bool StoreFolder::link(const std::string& file, const WorkFolder& work, std::size_t number) const {
  const std::string kept = path_ + "/" + file;
  const std::string link = work.filterFile(number);
  std::error_code error;
  const bool isThere = ::link(kept.c_str(), link.c_str()) == 0 ||
                       (errno == EXDEV && fs::copy_file(kept, link, error));
  if (!isThere) return false;
  const std::optional<std::string> digest = digestOfFile(link);
  if (digest && *digest + std::string(filterSuffix) == file) return true;
  ::unlink(link.c_str());
  return false;
}

std::optional<std::size_t> StoreFolder::find(const Source& source, const WorkFolder& work) const {
  const std::optional<Record> record = readRecord();
  if (!record || record->source != source) return std::nullopt;
  for (std::size_t number = 0; number < record->filters.size(); ++number) {
    if (link(record->filters[number].file, work, number)) continue;
    while (number > 0) ::unlink(work.filterFile(--number).c_str());
    return std::nullopt;
  }
  return record->filters.size();
}

bool StoreFolder::findPart(const Source& source, const WorkFolder& work, std::size_t number) const {
  const std::optional<Record> record = readRecord();
  if (!record || record->source.webKitVersion != source.webKitVersion) return false;
  const auto found = std::find_if(
      record->filters.begin(), record->filters.end(),
      [&source](const Record::Filter& filter) { return filter.document == source.document; });
  return found != record->filters.end() && link(found->file, work, number);
}

bool StoreFolder::keep(const Source& source, const WorkFolder& work,
                       const std::vector<Part>& parts) const try {
  json filters = json::array();
  std::vector<std::string> files;
  for (const Part& part : parts) {
    const std::optional<std::string> digest = digestOfFile(work.filterFile(part.number));
    if (!digest) return false;
    files.push_back(*digest + std::string(filterSuffix));
    filters.push_back({{"document", part.document}, {"file", files.back()}});
  }
  const json record = {
      {"document", source.document}, {"webKitVersion", source.webKitVersion}, {"filters", filters}};

  const Lock lock(path_, stop_);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::string kept = path_ + "/" + files[i];
    removeFolder(kept);
    if (::rename(work.filterFile(parts[i].number).c_str(), kept.c_str()) != 0) return false;
  }
  const std::string recordFile = path_ + "/" + std::string(recordName);
  removeFolder(recordFile);
  try {
    Files::replacePrivate(recordFile, record.dump(), Files::Durability::untilWritten);
  } catch (const Files::FileError&) {
    return false;
  }
  removeLeftovers(&files);
  return true;
} catch (const Unusable&) {
  return false;  // another program keeps it locked
}

void StoreFolder::removeLeftovers(const std::vector<std::string>* kept) const {
  const auto isUnused = [kept](const std::string& name) {
    return kept != nullptr && isKeptName(name) &&
           std::find(kept->begin(), kept->end(), name) == kept->end();
  };
  std::error_code error;
  std::vector<fs::path> leftovers;
  for (fs::directory_iterator entry(path_, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (isUnused(name) || name.starts_with(Files::temporaryPrefix) ||
        (name.starts_with(workPrefix) && isAbandoned(entry->path()))) {
      leftovers.push_back(entry->path());
    }
  }
  for (const fs::path& leftover : leftovers) fs::remove_all(leftover, error);
}

}  // namespace tamsel
