#include "tools/tamselc/Output.h"

#include <unistd.h>

#include <algorithm>

#include "compiler/Unicode.h"
#include "platform/files/Files.h"

namespace tamsel::tamselc {

void writeOutput(std::string_view bytes) {
  Files::writeAll(STDOUT_FILENO, bytes, "standard output");
}

void writeMessage(std::string_view text) noexcept {
  try {
    Files::writeAll(STDERR_FILENO, text, "standard error");
  } catch (const std::exception&) {
    return;
  }
}

std::string printable(std::string_view text) {
  std::string shown = Unicode::repaired(std::string(text));
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const auto byte = static_cast<unsigned char>(shown[i]);
    // U+0080 to U+009F are control characters too; in UTF-8 they are 0xC2 and the same byte.
    const bool wideControl = byte >= 0x80 && byte <= 0x9F && i > 0 && shown[i - 1] == '\xC2';
    if (wideControl) shown.replace(--i, 2, "?");
    if (byte < 0x20 || byte == 0x7F) shown[i] = '?';
  }
  return shown;
}

}  // namespace tamsel::tamselc
