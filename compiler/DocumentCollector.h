#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "compiler/ByteBuffer.h"
#include "compiler/LargeMemory.h"
#include "compiler/NetworkRule.h"
#include "compiler/RuleEncoder.h"

namespace tamsel::FilterCompiler {

/// Writes rules into their document as they come, and keeps none. Blocks come first in a document
/// and are written at once; exceptions and element hiding wait as the text that they will be. Of
/// every rule only a key of 128 bits is kept, by which the same rule is known when it comes again.
class DocumentCollector {
 public:
  /// `write` takes the document piece by piece.
  DocumentCollector(std::function<void(std::string_view)> write, DocumentForm form);

  /// New rules go here; after each line `afterLine`, and at the end `finish`.
  std::vector<HashedRule>& batch() { return batch_; }
  void afterLine() {
    if (batch_.size() >= batchSize) flush();
  }
  void finish();

  std::size_t ruleCount() const noexcept { return ruleCount_; }
  std::map<Uuid, ListStats>& stats() noexcept { return stats_; }

 private:
  static constexpr std::size_t batchSize = 128;

  struct Key {
    std::uint64_t low = 0, high = 0;
    bool operator==(const Key&) const = default;
  };

  // An open-addressing table.
  class KeySet {
   public:
    KeySet();
    void prefetch(const Key& key) const noexcept { __builtin_prefetch(&slots_[slotOf(key)]); }
    // Returns whether it is new.
    bool add(const Key& key);

   private:
    std::size_t slotOf(const Key& key) const noexcept { return key.low & (slots_.size() - 1); }
    Key& find(const Key& key) noexcept;
    void grow();

    LargeVector<Key> slots_;  // a power of two of them, at most two thirds in use; 0 is none
    std::size_t count_ = 0;
  };

  // A rule of the batch: where its text ends, and its key.
  struct Encoded {
    std::size_t end;
    Key key;
  };

  void flush();
  void keep(RuleKind kind, std::string_view json);
  void emit(std::string_view json);
  std::size_t& countOf(const SourcedRule& rule);

  std::function<void(std::string_view)> write_;
  std::vector<HashedRule> batch_;
  std::vector<Encoded> encoded_;
  RuleDocument::RuleEncoder encoder_;
  KeySet known_;
  ByteBuffer out_;
  bool isOpen_ = false;  // something has been put out
  // By kind, in pieces, which need not be moved as they become more. Those of blocks stay empty.
  std::array<std::vector<ByteBuffer>, 3> later_;
  std::size_t ruleCount_ = 0;
  std::map<Uuid, ListStats> stats_;
  // Neighbours mostly are of one list.
  const Uuid* lastList_ = nullptr;
  ListStats* lastStats_ = nullptr;
};

}  // namespace tamsel::FilterCompiler
