#pragma once

#include <cstddef>
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
  /// Combine rules without loss, so that they fit into one document.
  bool combine = false;
  /// The same, into as many documents as it takes: "rules-1.json" and so on for "rules.json".
  bool split = false;
  /// The most rules in a document.
  std::size_t limit = webKitRuleLimit;

  /// The most that WebKit takes in one.
  static constexpr std::size_t webKitRuleLimit = 150000;
  /// Where the report goes, "-" for standard output; none when empty.
  std::string report;

  /// Returns the exit code: 1 when there are more rules than a document may have. Throws
  /// Files::FileError.
  int run() const;

 private:
  int runCombined() const;
};

}  // namespace tamsel::tamselc
