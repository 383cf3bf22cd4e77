#include "compiler/DocumentCollector.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>

namespace tamsel::FilterCompiler {
namespace {

constexpr std::size_t pieceSize = std::size_t{1} << 18;  // stays in the processor's cache
constexpr std::size_t laterPieceSize = std::size_t{4} << 20;
constexpr std::size_t initialSlots = 1024;

}  // namespace

DocumentCollector::KeySet::KeySet() : slots_(initialSlots) {}

DocumentCollector::Key& DocumentCollector::KeySet::find(const Key& key) noexcept {
  std::size_t slot = slotOf(key);
  while (slots_[slot] != Key() && slots_[slot] != key) slot = (slot + 1) & (slots_.size() - 1);
  return slots_[slot];
}

bool DocumentCollector::KeySet::add(const Key& key) {
  Key& slot = find(key);
  if (slot == key) return false;
  slot = key;
  if (++count_ * 3 > slots_.size() * 2) grow();
  return true;
}

void DocumentCollector::KeySet::grow() {
  LargeVector<Key> old(slots_.size() * 2);
  old.swap(slots_);
  for (const Key& key : old) {
    if (key != Key()) find(key) = key;
  }
}

DocumentCollector::DocumentCollector(std::function<void(std::string_view)> write, DocumentForm form)
    : write_(std::move(write)), encoder_(form) {}

void DocumentCollector::flush() {
  for (const HashedRule& made : batch_) {
    encoder_.append(",");
    const std::size_t begin = encoder_.written().size();
    encoder_.add(made.rule.rule);
    const std::string_view json = encoder_.written().substr(begin);
    const XXH128_hash_t hash = XXH3_128bits(json.data(), json.size());
    // What is no UTF-8 is the same in JSON and not in the rule.
    encoded_.push_back({begin + json.size(), {hash.low64, hash.high64 ^ made.hash}});
    known_.prefetch(encoded_.back().key);
  }
  std::size_t begin = 0;
  for (std::size_t i = 0; i < batch_.size(); ++i) {
    const std::string_view json = encoder_.written().substr(begin, encoded_[i].end - begin);
    begin = encoded_[i].end;
    if (!known_.add(encoded_[i].key)) continue;
    ++ruleCount_;
    ++countOf(batch_[i].rule);
    keep(batch_[i].rule.kind, json);
  }
  lastList_ = nullptr;  // it stands in the batch
  batch_.clear();
  encoded_.clear();
  encoder_.clear();
}

std::size_t& DocumentCollector::countOf(const SourcedRule& rule) {
  if (lastList_ == nullptr || *lastList_ != rule.listID) lastStats_ = &stats_[rule.listID];
  lastList_ = &rule.listID;
  return tamsel::countOf(*lastStats_, rule.kind);
}

void DocumentCollector::keep(RuleKind kind, std::string_view json) {
  if (kind == RuleKind::block) return emit(json);
  std::vector<ByteBuffer>& pieces = later_[static_cast<std::size_t>(kind)];
  if (pieces.empty() || pieces.back().size() + json.size() > laterPieceSize) {
    pieces.emplace_back();
    (void)pieces.back().reserve(std::max(laterPieceSize, json.size()));
  }
  pieces.back().append(json);
}

// The comma in front of the first rule of all is the bracket that opens the document.
void DocumentCollector::emit(std::string_view json) {
  if (!isOpen_) {
    out_.append("[");
    json.remove_prefix(1);
    isOpen_ = true;
  }
  out_.append(json);
  if (out_.size() < pieceSize) return;
  write_(out_);
  out_.clear();
}

void DocumentCollector::finish() {
  flush();
  for (std::vector<ByteBuffer>& pieces : later_) {
    for (ByteBuffer& piece : pieces) {
      emit(piece);
      piece = ByteBuffer();
    }
  }
  if (isOpen_) {
    encoder_.addEnd();
    out_.append(encoder_.written());
  }
  out_.append(isOpen_ ? "]" : "[]");
  write_(out_);
}

}  // namespace tamsel::FilterCompiler
