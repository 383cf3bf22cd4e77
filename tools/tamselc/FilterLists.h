#pragma once

#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"

namespace tamsel::tamselc {

/// The filter lists that a command works on, in the order given.
class FilterLists {
 public:
  /// Reads the files ("-" is standard input); without any, takes the starter list. Throws
  /// Files::FileError when one cannot be read.
  explicit FilterLists(const std::vector<std::string>& paths);

  const std::vector<FilterCompiler::Input>& inputs() const noexcept { return inputs_; }

 private:
  std::vector<std::string> texts_;  // what the inputs look at
  std::vector<FilterCompiler::Input> inputs_;
};

}  // namespace tamsel::tamselc
