#pragma once

#include <string>

namespace tamsel::FilterCompiler {

/// Why a line cannot be expressed, in words for its author. Returned and not thrown, because a
/// list of nothing but such lines is as fast to read as any other.
struct Skip {
  std::string reason;
};

}  // namespace tamsel::FilterCompiler
