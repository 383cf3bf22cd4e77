#pragma once

#include <string>
#include <vector>

#include "compiler/DocumentForm.h"

namespace tamsel::tamselc {

/// `tamselc check`: does the real WebKit take every rule of the lists?
struct CheckCommand {
  std::vector<std::string> lists;
  DocumentForm form = DocumentForm::plain;
  /// Combine rules without loss, as `compile` does.
  bool combine = false;
  /// Whether to answer in JSON.
  bool json = false;

  /// Returns the exit code: 0 when WebKit takes all rules, 1 when it refuses some or when there are
  /// more than it takes. Throws
  /// Files::FileError and RuleListCompiler::Failure.
  int run() const;
};

}  // namespace tamsel::tamselc
