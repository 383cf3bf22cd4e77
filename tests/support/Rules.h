#pragma once

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "compiler/RuleModel.h"
#include "engine/Engine.h"

namespace tamsel::test {

/// The rules of one filter list, as a rebuild would hand them to the engine.
SourcedRules compile(std::string_view filters);

/// A rule with a trigger that no filter line yields; its source is its url-filter.
SourcedRule handMade(RuleKind kind, WKRule::Trigger trigger);

/// "-" without a block rule; otherwise its source, then " but " and the exception's source; then
/// " (third-party)".
std::string verdictText(const Engine::Verdict& verdict);

/// A number below `count`; the same everywhere, which the standard distributions are not.
inline std::size_t pickBelow(std::mt19937& random, std::size_t count) {
  return random() % count;
}
inline bool oneIn(std::mt19937& random, std::size_t count) {
  return pickBelow(random, count) == 0;
}
template <class Items>
std::string pick(std::mt19937& random, const Items& items) {
  return std::string(items[pickBelow(random, std::size(items))]);
}

}  // namespace tamsel::test
