#include "tools/tamselc/FilterLists.h"

#include <algorithm>

#include "compiler/Unicode.h"
#include "platform/files/Files.h"
#include "state/StarterList.h"

namespace tamsel::tamselc {
namespace {

// A file as text: without the byte order mark that editors leave, with U+FFFD for what is no UTF-8.
std::string readText(const std::string& path) {
  std::string text = Unicode::repaired(Files::read(path));
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) text.erase(0, byteOrderMark.size());
  return text;
}

}  // namespace

FilterLists::FilterLists(const std::vector<std::string>& paths) {
  if (paths.empty()) {
    inputs_.push_back({Starter::id, Text(Starter::name), Starter::text});
    return;
  }
  if (std::count(paths.begin(), paths.end(), Files::standardInput) > 1) {
    throw Files::FileError("Standard input (-) can be read only once.");
  }
  texts_.reserve(paths.size());
  for (const std::string& path : paths) {
    texts_.push_back(readText(path));
    inputs_.push_back({Uuid::random(), Text(path), texts_.back()});
  }
}

}  // namespace tamsel::tamselc
