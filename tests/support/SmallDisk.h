#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <string>

namespace tamsel::test {

/// A file system at a path, seen by this process and its children alone. It takes rights that not
/// everybody has.
class SmallDisk {
 public:
  explicit SmallDisk(std::string path) : path_(std::move(path)) {
    ::mkdir(path_.c_str(), S_IRWXU);
    const bool alone = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    isMounted_ = alone && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                 ::mount("tamsel", path_.c_str(), "tmpfs", 0, "") == 0;
  }
  ~SmallDisk() {
    if (isMounted_) ::umount2(path_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool isMounted() const noexcept { return isMounted_; }
  const std::string& path() const noexcept { return path_; }

  /// Leaves room for so many more files and bytes. Returns whether it did.
  bool leave(std::uint64_t files, std::uint64_t bytes) const {
    struct statvfs now {};
    if (::statvfs(path_.c_str(), &now) != 0) return false;
    const std::uint64_t usedBytes = (now.f_blocks - now.f_bfree) * now.f_frsize;
    const std::uint64_t usedFiles = now.f_files - now.f_ffree;
    // A size of 0 would be no limit.
    return remount(0, "size=" + std::to_string(usedBytes + bytes + (usedBytes + bytes == 0)) +
                          ",nr_inodes=" + std::to_string(usedFiles + files));
  }

  /// Returns whether it did.
  bool setReadOnly(bool readOnly) const { return remount(readOnly ? MS_RDONLY : 0, ""); }

 private:
  bool remount(unsigned long flags, const std::string& options) const {
    return ::mount("tamsel", path_.c_str(), nullptr, MS_REMOUNT | flags, options.c_str()) == 0;
  }

  std::string path_;
  bool isMounted_;
};

}  // namespace tamsel::test
