#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "compiler/LargeMemory.h"
#include "compiler/Text.h"
#include "engine/UrlText.h"

namespace tamsel {

/// The domain lists of rules, for asking whether one covers a page's host. An entry covers a host
/// when the host is the entry, without a "*" in front, or a subdomain of it.
class DomainConditions {
 public:
  using Id = std::uint32_t;
  /// Stands for the absence of a list.
  static constexpr Id none = 0;

  /// Adds a list; a list that shares its storage with the one added just before is the same.
  Id add(const Maybe<TextList>& list);

  /// Needs an id that `add` returned and that is not `none`.
  bool cover(Id id, const PageHost& host) const;

 private:
  // Where an entry stands; in a list of more than a few at a slot that its hash tells.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t entry = vacant;
  };
  static constexpr std::uint32_t vacant = 0xFFFFFFFF;
  static constexpr std::size_t maxUnhashed = 4;

  struct Condition {
    TextList list;
    std::size_t firstSlot = 0;
    std::size_t slotCount = 0;
    bool hashed = false;  // the slots are a hash table and not just the entries in order
  };

  bool contains(const Condition& condition, std::string_view domain, std::uint32_t hash) const;

  std::vector<Condition> conditions_;
  LargeVector<Slot> slots_;
};

}  // namespace tamsel
