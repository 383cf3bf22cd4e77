#include "compiler/RuleSet.h"

#include <utility>

namespace tamsel::FilterCompiler {
namespace {
constexpr std::size_t initialSlots = 1024;
constexpr std::size_t growthFactor = 4;

// More than two thirds of the slots in use: searches get long.
constexpr bool isCrowded(std::size_t rules, std::size_t slots) {
  return rules * 3 > slots * 2;
}

}  // namespace

RuleSet::RuleSet(std::size_t limit) : slots_(initialSlots), limit_(limit) {}

void RuleSet::reserve(std::size_t count) {
  rules_.reserve(count + count / 4);  // room that is not used costs nothing
  std::size_t slots = slots_.size();
  while (isCrowded(count, slots)) slots *= 2;
  if (slots != slots_.size()) resize(slots);
}

void RuleSet::add(SourcedRule&& rule, std::uint64_t hash) {
  const auto tag = static_cast<std::uint32_t>(hash);
  std::size_t slot = slotOf(tag);
  while (slots_[slot].index != empty) {
    if (slots_[slot].tag == tag && rules_[slots_[slot].index].rule == rule.rule) return;
    slot = slotOf(static_cast<std::uint32_t>(slot) + 1);
  }
  if (rules_.size() == limit_) {
    overflowed_ = true;
    return;
  }
  slots_[slot] = {tag, static_cast<std::uint32_t>(rules_.size())};
  rules_.push_back(std::move(rule));
  if (isCrowded(rules_.size(), slots_.size())) resize(slots_.size() * growthFactor);
}

void RuleSet::resize(std::size_t slots) {
  LargeVector<Slot> old(slots);
  old.swap(slots_);
  for (const Slot& moved : old) {
    if (moved.index == empty) continue;
    std::size_t slot = slotOf(moved.tag);
    while (slots_[slot].index != empty) slot = slotOf(static_cast<std::uint32_t>(slot) + 1);
    slots_[slot] = moved;
  }
}

}  // namespace tamsel::FilterCompiler
