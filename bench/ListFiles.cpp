#include "bench/ListFiles.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "bench/MadeUpLists.h"
#include "platform/files/Files.h"

namespace tamsel::bench {

const ListFiles& ListFiles::get() {
  static const ListFiles files;
  return files;
}

ListFiles::ListFiles()
    : scratch_(std::filesystem::temp_directory_path() /
               ("tamsel-bench-" + std::to_string(::getpid()))) {
  constexpr std::size_t madeUpLines = 130000;
  std::filesystem::create_directory(scratch_);
  if (const char* paths = std::getenv("TAMSEL_LISTS")) {
    paths_ = split(paths, ':');
  } else {
    paths_ = {scratch_ / "made-up.txt"};
    Files::replace(paths_[0], madeUpList(madeUpLines, madeUpSeed));
  }
}

ListFiles::~ListFiles() {
  std::error_code ignored;
  std::filesystem::remove_all(scratch_, ignored);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(separator, begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

}  // namespace tamsel::bench
