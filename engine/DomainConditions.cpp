#include "engine/DomainConditions.h"

#include <bit>

namespace tamsel {
namespace {

std::string_view domainOf(std::string_view entry) {
  if (entry.starts_with('*')) entry.remove_prefix(1);
  return entry;
}

}  // namespace

DomainConditions::Id DomainConditions::add(const Maybe<TextList>& list) {
  if (!list) return none;
  const bool sameAsLast = !conditions_.empty() && conditions_.back().list.sharesStorageWith(*list);
  if (!sameAsLast) {
    const std::size_t count = list->size();
    const bool hashed = count > maxUnhashed;
    const std::size_t slotCount = hashed ? std::bit_ceil(count * 2) : count;
    const std::size_t firstSlot = slots_.size();
    slots_.resize(firstSlot + slotCount);
    Slot* slots = slots_.data() + firstSlot;
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint32_t hash = SuffixHash::of(domainOf((*list)[i]));
      std::size_t slot = hashed ? hash & (slotCount - 1) : i;
      while (slots[slot].entry != vacant) slot = (slot + 1) & (slotCount - 1);
      slots[slot] = {hash, static_cast<std::uint32_t>(i)};
    }
    conditions_.push_back({*list, firstSlot, slotCount, hashed});
  }
  return static_cast<Id>(conditions_.size());
}

bool DomainConditions::cover(Id id, const PageHost& host) const {
  const Condition& condition = conditions_[id - 1];
  return host.anySuffix([&](std::string_view suffix, std::uint32_t hash) {
    return contains(condition, suffix, hash);
  });
}

bool DomainConditions::contains(const Condition& condition, std::string_view domain,
                                std::uint32_t hash) const {
  const Slot* slots = slots_.data() + condition.firstSlot;
  const auto matches = [&](const Slot& slot) {
    return slot.hash == hash && domainOf(condition.list[slot.entry]) == domain;
  };
  if (!condition.hashed) return std::any_of(slots, slots + condition.slotCount, matches);
  const std::size_t mask = condition.slotCount - 1;
  for (std::size_t i = hash & mask; slots[i].entry != vacant; i = (i + 1) & mask) {
    if (matches(slots[i])) return true;
  }
  return false;
}

}  // namespace tamsel
