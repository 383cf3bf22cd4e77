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

std::size_t& countOf(ListStats& stats, RuleKind kind) noexcept {
  switch (kind) {
    case RuleKind::block:
      return stats.block;
    case RuleKind::exception:
      return stats.exception;
    case RuleKind::cosmetic:
      break;
  }
  return stats.cosmetic;
}

}  // namespace tamsel
