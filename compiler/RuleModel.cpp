#include "compiler/RuleModel.h"

namespace tamsel {

std::string_view rawValue(RuleKind kind) noexcept {
  switch (kind) {
    case RuleKind::block:
      return "block";
    case RuleKind::exception:
      return "exception";
    case RuleKind::cosmetic:
      return "cosmetic";
  }
  return "block";
}

}  // namespace tamsel
