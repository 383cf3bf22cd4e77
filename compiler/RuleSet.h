#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "compiler/RuleModel.h"

namespace tamsel::FilterCompiler {

/// Rules of one kind without duplicates, in the order in which they were first added.
class RuleSet {
 public:
  /// Of more than `limit` rules it keeps the first.
  explicit RuleSet(std::size_t limit);

  /// Makes room for about that many rules at once, instead of moving them as they become more.
  void reserve(std::size_t count);

  /// Brings the table's slot for a rule closer; worth it some rules ahead of `add`.
  void prefetch(std::uint64_t hash) const noexcept {
    __builtin_prefetch(&slots_[slotOf(static_cast<std::uint32_t>(hash))]);
  }

  /// Adds the rule unless an equal one (all fields of `rule`) is there. Equal rules need equal
  /// hashes.
  void add(SourcedRule&& rule, std::uint64_t hash);

  SourcedRules& rules() noexcept { return rules_; }

  /// Whether a rule was dropped for the limit.
  bool overflowed() const noexcept { return overflowed_; }

 private:
  // An open-addressing table in which a slot is found by its tag alone, so that it can grow
  // without looking at the rules. An index of 32 bits suffices: that many rules would fill 400 GB.
  struct Slot {
    std::uint32_t tag = 0;
    std::uint32_t index = empty;
  };
  static constexpr std::uint32_t empty = 0xFFFFFFFF;

  std::size_t slotOf(std::uint32_t tag) const noexcept { return tag & (slots_.size() - 1); }
  void resize(std::size_t slots);

  LargeVector<Slot> slots_;  // a power of two of them, at most two thirds in use
  SourcedRules rules_;
  std::size_t limit_;
  bool overflowed_ = false;
};

}  // namespace tamsel::FilterCompiler
