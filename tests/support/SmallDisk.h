#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

namespace tamsel::test {

/// A file system of 4 MB at a path, seen by this process alone. It takes rights that not everybody
/// has.
class SmallDisk {
 public:
  explicit SmallDisk(std::string path) : path_(std::move(path)) {
    ::mkdir(path_.c_str(), S_IRWXU);
    const bool alone = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    isMounted_ = alone && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                 ::mount("tamsel", path_.c_str(), "tmpfs", 0, "size=4m") == 0;
  }
  ~SmallDisk() {
    if (isMounted_) ::umount2(path_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool isMounted() const noexcept { return isMounted_; }
  const std::string& path() const noexcept { return path_; }

  /// Returns whether it did.
  bool setReadOnly(bool readOnly) const {
    const unsigned long flags = MS_REMOUNT | (readOnly ? MS_RDONLY : 0);
    return ::mount("tamsel", path_.c_str(), nullptr, flags, nullptr) == 0;
  }

 private:
  std::string path_;
  bool isMounted_;
};

}  // namespace tamsel::test
