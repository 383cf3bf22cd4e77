#include "platform/files/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include "platform/files/Descriptor.h"

namespace tamsel::Files {
namespace {

[[noreturn]] void fail(std::string_view verb, std::string_view name, int error) {
  throw FileError("Cannot " + std::string(verb) + " " + std::string(name) + ": " +
                  std::strerror(error) + ".");
}

std::string inQuotes(std::string_view path) {
  return "\"" + std::string(path) + "\"";
}

std::string readAll(int descriptor, std::string_view name, std::size_t maxLength) {
  constexpr std::size_t step = std::size_t{1} << 16;
  struct stat status {};
  std::string bytes;
  if (::fstat(descriptor, &status) == 0 && status.st_size > 0) {
    // One more than the size, so that the end of the file is seen without growing.
    bytes.resize(std::min(static_cast<std::size_t>(status.st_size), maxLength) + 1);
  }
  std::size_t used = 0;
  while (true) {
    if (used > maxLength) {
      throw FileError("Cannot read " + std::string(name) + ": it is larger than " +
                      std::to_string(maxLength >> 20) + " MiB.");
    }
    if (used == bytes.size()) {
      bytes.resize(std::min(used + std::max(step, used / 2), maxLength + 1));
    }
    const ssize_t count = ::read(descriptor, bytes.data() + used, bytes.size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail("read", name, errno);
    if (count == 0) break;
    used += static_cast<std::size_t>(count);
  }
  bytes.resize(used);
  return bytes;
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The file that a path means once its links are followed, also when the last one leads to a file
// that is yet to be made.
std::string resolved(std::string path) {
  constexpr int mostLinks = 40;  // as many as the system follows
  for (int i = 0; i < mostLinks; ++i) {
    std::string target(PATH_MAX, '\0');
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return path;
    target.resize(static_cast<std::size_t>(length));
    path = target.starts_with('/') ? target : folderOf(path).append("/").append(target);
  }
  fail("write", inQuotes(path), ELOOP);
}

// A name in the folder of `path` that no file has.
std::string temporaryName(const std::string& path) {
  std::random_device device;
  return folderOf(path) + "/" + std::string(temporaryPrefix) + std::to_string(device()) +
         std::to_string(device());
}

Sink sinkTo(const Descriptor& file, const std::string& name) {
  return [&file, &name](std::string_view bytes) { writeAll(file.get(), bytes, name); };
}

void force(const Descriptor& file, const std::string& name, Durability durability) {
  if (durability == Durability::onDisk && ::fsync(file.get()) != 0) fail("write", name, errno);
}

// Writes the bytes into a file that has no name until it is whole, and gives it one. Where the
// file system has no nameless files, the name is there from the start.
std::string writeBeside(const std::string& path, const std::function<void(const Sink&)>& produce,
                        Durability durability, const mode_t* mode) {
  const std::string name = inQuotes(path);
  std::string temporary = temporaryName(path);
  constexpr mode_t allButUmask = 0666;
  const Descriptor nameless(
      ::open(folderOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, allButUmask));
  if (nameless) {
    if (mode != nullptr) (void)::fchmod(nameless.get(), *mode);
    produce(sinkTo(nameless, name));
    force(nameless, name, durability);
    const std::string link = "/proc/self/fd/" + std::to_string(nameless.get());
    if (::linkat(AT_FDCWD, link.c_str(), AT_FDCWD, temporary.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      return temporary;
    }
  }
  const Descriptor named(
      ::open(temporary.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, allButUmask));
  if (!named) fail("write", name, errno);
  if (mode != nullptr) (void)::fchmod(named.get(), *mode);
  try {
    produce(sinkTo(named, name));
    force(named, name, durability);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  return temporary;
}

}  // namespace

std::string read(const std::string& path) {
  if (path == standardInput) return readAll(STDIN_FILENO, "standard input", maxReadBytes);
  const std::string name = inQuotes(path);
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) fail("read", name, errno);
  return readAll(file.get(), name, maxReadBytes);
}

std::string readRegular(const std::string& path, std::size_t maxLength) {
  const std::string name = inQuotes(path);
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) fail("read", name, errno);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) fail("read", name, errno);
  if (!S_ISREG(status.st_mode)) throw FileError("Cannot read " + name + ": it is no file.");
  return readAll(file.get(), name, maxLength);
}

void writeAll(int descriptor, std::string_view bytes, std::string_view name) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail("write", name, errno);
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void replace(const std::string& path, std::string_view bytes, Durability durability) {
  replace(
      path, [bytes](const Sink& sink) { sink(bytes); }, durability);
}

namespace {

void replaceNamed(const std::string& path, const std::string& target,
                  const std::function<void(const Sink&)>& produce, Durability durability,
                  const mode_t* mode) {
  const std::string temporary = writeBeside(target, produce, durability, mode);
  if (::rename(temporary.c_str(), target.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    fail("write", inQuotes(path), error);
  }
  if (durability == Durability::onDisk) {
    const Descriptor folder(::open(folderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) (void)::fsync(folder.get());  // the new name; not every file system can
  }
}

}  // namespace

void replace(const std::string& path, const std::function<void(const Sink&)>& produce,
             Durability durability) {
  struct stat status {};
  const bool exists = ::stat(path.c_str(), &status) == 0;
  const std::string target = resolved(path);
  struct stat targetStatus {};
  // What a name does not lead to, such as a deleted file behind /proc, can only be opened.
  const bool hasName =
      !exists || (::stat(target.c_str(), &targetStatus) == 0 &&
                  targetStatus.st_ino == status.st_ino && targetStatus.st_dev == status.st_dev);
  if (exists && (!S_ISREG(status.st_mode) || !hasName)) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file) fail("write", inQuotes(path), errno);
    const std::string name = inQuotes(path);
    return produce(sinkTo(file, name));
  }
  const mode_t mode = status.st_mode & 07777;
  replaceNamed(path, target, produce, durability, exists ? &mode : nullptr);
}

void replacePrivate(const std::string& path, std::string_view bytes, Durability durability) {
  constexpr mode_t mode = S_IRUSR | S_IWUSR;
  struct stat status {};
  const bool leadsElsewhere = ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
  replaceNamed(
      path, leadsElsewhere ? path : resolved(path), [bytes](const Sink& sink) { sink(bytes); },
      durability, &mode);
}

std::string makePrivateFolder(const std::string& path) {
  std::string prefix;
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    prefix = path.substr(0, end);
    if (::mkdir(prefix.c_str(), S_IRWXU) != 0 && errno != EEXIST) return std::strerror(errno);
    if (end == std::string::npos) break;
  }
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISDIR(status.st_mode)) return std::strerror(ENOTDIR);
  if ((status.st_mode & 0777) != S_IRWXU) (void)::chmod(path.c_str(), S_IRWXU);
  return {};
}

void ensureRuntimeFolder() {
  constexpr const char* variable = "XDG_RUNTIME_DIR";
  if (std::getenv(variable) != nullptr) return;
  const std::string path = "/dev/shm/tamsel-" + std::to_string(::geteuid());
  (void)::mkdir(path.c_str(), S_IRWXU);
  struct stat status {};
  // Anybody can make a folder there.
  const bool isOurs = ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                      status.st_uid == ::geteuid() && (status.st_mode & 0777) == S_IRWXU;
  if (isOurs) ::setenv(variable, path.c_str(), 1);
}

std::string besideProgram(const std::string& name, const std::string& installedFolder) {
  std::error_code error;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  const auto beside = folder / name;
  if (std::filesystem::exists(beside, error)) return beside;
  return (folder / installedFolder / name).lexically_normal();
}

}  // namespace tamsel::Files
