#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

#include "compiler/LargeMemory.h"
#include "engine/Budget.h"
#include "engine/UrlProgram.h"
#include "engine/UrlText.h"

namespace tamsel {

/// Finds the few patterns that a URL could match.
///
/// Every pattern is filed under one thing that any URL it matches must have:
///   - the run of characters at a host start: "||ads.example^" under "ads.example". A URL is looked
///     up by the runs at its own host starts, so that "x.ads.example" and "ads.example" find it and
///     "myads.example" does not;
///   - else four neighbouring characters of its text, the rarest among all patterns:
///     "/banner-ad." perhaps under "r-ad". A URL is looked up at each of its positions;
///   - else nothing: it is a candidate for every URL.
class PatternIndex {
 public:
  /// What patterns are filed under. A URL that is not printable ASCII is looked up by its case
  /// folding, in which runs are not what they were: there only texts are keys.
  enum class Keys : std::uint8_t { hostRunsAndTexts, textsOnly };

  /// The position of a candidate that only a search can tell.
  static constexpr std::size_t anywhere = static_cast<std::size_t>(-1);

  /// Files the patterns numbered from 0; `program` returns each one's program.
  PatternIndex(std::size_t count, const std::function<UrlProgram(std::size_t)>& program, Keys keys);

  /// Calls `visit(pattern, position)` for every pattern that the URL could match, `position` being
  /// where the pattern's code would begin or `anywhere`. Patterns under one key come in ascending
  /// order; when `visit` returns false the rest of them are passed over. A pattern can come more
  /// than once. `prefetch(pattern)` is called some time before some of the visits.
  template <class Prefetch, class Visitor>
  void forEachCandidate(const UrlText& url, Prefetch prefetch, Visitor visit) const {
    // What the index has of a URL is spread over memory. So the keys that it may have are gathered
    // first, and at each step what the next one needs is on its way for all of them.
    KeysFound found;
    const std::string_view text = url.lower();
    const auto flush = [&] {
      lookUp(found, prefetch);
      visitFound(found, text, visit);
      found.count = 0;
    };
    if (keys_ == Keys::hostRunsAndTexts) {
      url.forEachHostRun([&](std::size_t position, std::uint32_t run) {
        if (!hostRuns_.filter()(run)) return;
        hostRuns_.prefetch(run);
        found.add(position, run, true);
        if (found.isFull()) flush();
      });
    }
    const Table::Filter mayHave = texts_.filter();
    for (std::size_t i = 0; i + gramLength <= text.size(); ++i) {
      const Gram gram = gramAt(text.data() + i);
      if (!mayHave(gram)) continue;
      texts_.prefetch(gram);
      found.add(i, gram, false);
      if (found.isFull()) flush();
    }
    flush();
    for (Pattern p : unfiled_) {
      if (!visit(p, anywhere)) break;
    }
  }

 private:
  using Pattern = std::uint32_t;
  using Gram = std::uint32_t;  // four characters as they stand in memory

  static constexpr Pattern none = 0xFFFFFFFF;
  static constexpr std::uint32_t anyOffset = 0xFFFFFFFF;
  static constexpr std::size_t gramLength = sizeof(Gram);

  // A pattern filed under a gram. Those under one gram stand in a row.
  struct TextEntry {
    Pattern pattern = 0;
    std::uint32_t offset = anyOffset;  // of the gram in the pattern's code
    // Four more characters of the same text, as many away from the gram: most candidates that are
    // none are seen here already.
    Gram check = 0;
    std::int16_t checkDistance = 0;
    bool isLast = false;
  };

  // From keys to values. Two bits for each key, in an array small enough to stay in the processor's
  // cache, turn nearly all other keys away.
  class Table {
   public:
    explicit Table(std::size_t keyCount);
    // The value of a key, to be set; `none` when the key is new.
    std::uint32_t& valueOf(std::uint32_t key);
    // Tells keys that certainly have no value; a copy to be kept in registers.
    class Filter {
     public:
      Filter(const std::uint64_t* words, unsigned shift) noexcept : words_(words), shift_(shift) {}
      // False when the key has no value.
      bool operator()(std::uint32_t key) const noexcept {
        const std::uint32_t hash = hashOf(key);
        const std::uint64_t word = words_[hash >> shift_];
        return (word >> (hash % 64) & word >> (hash / 64 % 64) & 1) != 0;
      }

     private:
      const std::uint64_t* words_;
      unsigned shift_;
    };
    Filter filter() const noexcept { return {filter_.data(), filterShift_}; }
    // Brings what `find` looks at closer.
    void prefetch(std::uint32_t key) const noexcept {
      __builtin_prefetch(&slots_[hashOf(key) >> slotShift_]);
    }
    // `none` for a key without a value.
    std::uint32_t find(std::uint32_t key) const noexcept {
      const std::uint32_t hash = hashOf(key);
      for (std::size_t i = hash >> slotShift_; slots_[i].value != none; i = next(i)) {
        if (slots_[i].key == key) return slots_[i].value;
      }
      return none;
    }

   private:
    struct Slot {
      std::uint32_t key = 0;
      std::uint32_t value = none;
    };
    static std::uint32_t hashOf(std::uint32_t key) noexcept { return key * 0x9E3779B1U; }
    static std::uint64_t bitsOf(std::uint32_t hash) noexcept {
      return std::uint64_t{1} << (hash % 64) | std::uint64_t{1} << (hash / 64 % 64);
    }
    std::size_t next(std::size_t slot) const noexcept { return (slot + 1) & (slots_.size() - 1); }

    LargeVector<std::uint64_t> filter_;
    LargeVector<Slot> slots_;
    unsigned filterShift_;
    unsigned slotShift_;
  };

  struct Filing;
  class GramChooser;

  // Keys of a URL that the index may have.
  struct KeysFound {
    struct Key {
      std::size_t position;
      std::uint32_t key;  // and once it has been looked up, the table's value for it
      bool isHostRun;
    };
    void add(std::size_t position, std::uint32_t key, bool isHostRun) noexcept {
      keys[count++] = {position, key, isHostRun};
    }
    bool isFull() const noexcept { return count == keys.size(); }

    std::array<Key, 32> keys;
    std::size_t count = 0;
  };

  // Replaces the keys by their values and drops those without one.
  template <class Prefetch>
  void lookUp(KeysFound& found, Prefetch prefetch) const {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < found.count; ++i) {
      const auto& [position, key, isHostRun] = found.keys[i];
      const std::uint32_t value = isHostRun ? hostRuns_.find(key) : texts_.find(key);
      if (value == none) continue;
      if (isHostRun) {
        prefetch(value);
      } else {
        __builtin_prefetch(&entries_[value]);
      }
      found.keys[kept++] = {position, value, isHostRun};
    }
    found.count = kept;
  }

  template <class Visitor>
  void visitFound(const KeysFound& found, std::string_view text, Visitor visit) const {
    for (std::size_t i = 0; i < found.count; ++i) {
      const auto& [position, value, isHostRun] = found.keys[i];
      if (isHostRun) {
        for (Pattern p = value; p != none; p = nextInRun_[p]) {
          if (!visit(p, position)) break;
        }
        continue;
      }
      for (const TextEntry* entry = &entries_[value];; ++entry) {
        if (stands(*entry, text, position)) {
          const bool fixed = entry->offset != anyOffset;
          if (!visit(entry->pattern, fixed ? position - entry->offset : anywhere)) break;
        }
        if (entry->isLast) break;
      }
    }
  }

  static Gram gramAt(const char* text) noexcept {
    Gram gram = 0;
    std::memcpy(&gram, text, sizeof gram);
    return gram;
  }
  static bool stands(const TextEntry& entry, std::string_view text, std::size_t position) noexcept {
    const std::size_t checked = position + static_cast<std::size_t>(entry.checkDistance);
    return checked < text.size() && gramAt(text.data() + checked) == entry.check &&
           (entry.offset <= position || entry.offset == anyOffset);
  }
  static LargeVector<Filing> fileAll(std::size_t count,
                                     const std::function<UrlProgram(std::size_t)>& program,
                                     Keys keys);
  explicit PatternIndex(const LargeVector<Filing>& filings, Keys keys);
  void fileHostRuns(const LargeVector<Filing>& filings);
  void fileTexts(const LargeVector<Filing>& filings);

  Keys keys_;
  Table hostRuns_;                  // from a run's hash to the first pattern under it
  LargeVector<Pattern> nextInRun_;  // by pattern: the next one under the same run
  Table texts_;                     // from a gram to the first of its entries
  LargeVector<TextEntry> entries_;
  std::vector<Pattern> unfiled_;
};

}  // namespace tamsel
