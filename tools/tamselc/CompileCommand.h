#pragma once

#include <string>
#include <vector>

#include "compiler/DocumentForm.h"

namespace tamsel::tamselc {

/// `tamselc compile`: lists in, content-blocker document out.
struct CompileCommand {
  std::vector<std::string> lists;
  DocumentForm form = DocumentForm::plain;
  /// Where the document goes; standard output when empty or "-".
  std::string output;
  /// Where the report goes, "-" for standard output; none when empty.
  std::string report;

  /// Returns the exit code. Throws Files::FileError.
  int run() const;
};

}  // namespace tamsel::tamselc
