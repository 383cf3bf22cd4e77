#include "compiler/Text.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "compiler/LargeMemory.h"

namespace tamsel {
namespace {

using detail::BlockReference;
using detail::TextBlock;
using detail::TextChunk;

// A text is its block and then its bytes; a list is its block, where each string ends, and then the
// bytes of all. Blocks stand at multiples of their alignment.
using End = std::uint32_t;

constexpr std::size_t aligned(std::size_t size) {
  return (size + alignof(TextBlock) - 1) / alignof(TextBlock) * alignof(TextBlock);
}

static_assert(sizeof(TextChunk) % alignof(TextBlock) == 0 && alignof(End) <= alignof(TextBlock));

char* bytesAfter(TextBlock* block) noexcept {
  return reinterpret_cast<char*>(block + 1);
}

const char* bytesAfter(const TextBlock* block) noexcept {
  return reinterpret_cast<const char*>(block + 1);
}

const End* endsOf(const TextBlock* block) noexcept {
  return reinterpret_cast<const End*>(block + 1);
}

void copyBytes(char* to, std::string_view from) noexcept {
  if (!from.empty()) std::memcpy(to, from.data(), from.size());
}

TextChunk* makeChunk(std::size_t size) {
  return new (LargeMemory::allocate(size)) TextChunk();
}

TextBlock* placeBlock(TextChunk* chunk, std::size_t offset) {
  auto* block = new (reinterpret_cast<char*>(chunk) + offset) TextBlock();
  block->chunkOffset = static_cast<std::uint32_t>(offset);
  return block;
}

// A block in a chunk of its own, which it holds the only reference to.
TextBlock* makeBlock(std::size_t payload) {
  TextChunk* chunk = makeChunk(sizeof(TextChunk) + sizeof(TextBlock) + payload);
  chunk->references.store(1, std::memory_order_relaxed);
  return placeBlock(chunk, sizeof(TextChunk));
}

void checkLength(std::size_t bytes) {
  if (bytes > std::numeric_limits<std::uint32_t>::max()) {
    throw std::length_error("A text of 4 GiB or more");
  }
}

void fill(TextBlock* block, std::string_view text) noexcept {
  block->count = static_cast<std::uint32_t>(text.size());
  copyBytes(bytesAfter(block), text);
}

void fill(TextBlock* block, std::string_view bytes, std::span<const std::size_t> ends) noexcept {
  block->count = static_cast<std::uint32_t>(ends.size());
  auto* stored = reinterpret_cast<End*>(block + 1);
  for (std::size_t end : ends) *stored++ = static_cast<End>(end);
  copyBytes(reinterpret_cast<char*>(stored), bytes);
}

TextBlock* makeText(std::string_view text) {
  checkLength(text.size());
  TextBlock* block = makeBlock(text.size());
  fill(block, text);
  return block;
}

TextBlock* makeList(std::span<const std::string_view> items) {
  std::string bytes;
  std::vector<std::size_t> ends;
  ends.reserve(items.size());
  for (std::string_view item : items) {
    bytes += item;
    ends.push_back(bytes.size());
  }
  checkLength(bytes.size());
  TextBlock* block = makeBlock(ends.size() * sizeof(End) + bytes.size());
  fill(block, bytes, ends);
  return block;
}

TextBlock* markImmortal(TextBlock* block) noexcept {
  auto* chunk = reinterpret_cast<TextChunk*>(reinterpret_cast<char*>(block) - block->chunkOffset);
  chunk->references.store(TextChunk::immortal, std::memory_order_relaxed);
  return block;
}

// A function's static keeps the block reachable, so leak checkers do not report it.
TextBlock* emptyText() {
  static TextBlock* const block = markImmortal(makeText({}));
  return block;
}

TextBlock* emptyList() {
  static TextBlock* const block = markImmortal(makeList({}));
  return block;
}

}  // namespace

void BlockReference::free(TextChunk& chunk) noexcept {
  LargeMemory::free(&chunk);
}

Text::Text() noexcept : block_(emptyText()) {}

Text::Text(std::string_view text) : block_(text.empty() ? emptyText() : makeText(text)) {}

Text Text::immortal(std::string_view text) {
  Text result{detail::Absent{}};
  result.block_ = BlockReference(markImmortal(makeText(text)));
  return result;
}

std::string_view Text::view() const noexcept {
  const TextBlock* block = block_.get();
  if (block == nullptr) return {};
  return {bytesAfter(block), block->count};
}

TextList::TextList() noexcept : block_(emptyList()) {}

TextList::TextList(std::span<const std::string_view> items)
    : block_(items.empty() ? emptyList() : makeList(items)) {}

TextList TextList::immortal(std::span<const std::string_view> items) {
  TextList result{detail::Absent{}};
  result.block_ = BlockReference(markImmortal(makeList(items)));
  return result;
}

std::size_t TextList::size() const noexcept {
  const TextBlock* block = block_.get();
  return block == nullptr ? 0 : block->count;
}

std::string_view TextList::operator[](std::size_t index) const noexcept {
  const TextBlock* block = block_.get();
  const End* ends = endsOf(block);
  const char* text = reinterpret_cast<const char*>(ends + block->count);
  const std::size_t begin = index == 0 ? 0 : ends[index - 1];
  return {text + begin, ends[index] - begin};
}

bool operator==(const TextList& a, const TextList& b) noexcept {
  if (a.sharesStorageWith(b)) return true;
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

Text TextPool::text(std::string_view text) {
  if (text.empty()) return {};
  checkLength(text.size());
  TextBlock* block = allocate(text.size());
  fill(block, text);
  Text result{detail::Absent{}};
  result.block_ = BlockReference(block);
  return result;
}

TextList TextPool::list(std::string_view bytes, std::span<const std::size_t> ends) {
  if (ends.empty()) return {};
  checkLength(bytes.size());
  TextBlock* block = allocate(ends.size() * sizeof(End) + bytes.size());
  fill(block, bytes, ends);
  TextList result{detail::Absent{}};
  result.block_ = BlockReference(block);
  return result;
}

TextBlock* TextPool::allocate(std::size_t payload) {
  // Chunks double from a page on: a small list takes little, a large one few chunks. One text that
  // is kept keeps its chunk, so they do not grow without end.
  constexpr std::size_t smallestChunk = std::size_t{1} << 12;
  constexpr std::size_t largestChunk = LargeMemory::largePage;
  const std::size_t size = aligned(sizeof(TextBlock) + payload);
  if (size > largestChunk / 4) return makeBlock(payload);
  if (capacity_ - used_ < size) {
    const std::size_t doubled = std::clamp(capacity_ * 2, smallestChunk, largestChunk);
    const std::size_t capacity = std::max(doubled, sizeof(TextChunk) + size);
    retireChunk();
    chunk_ = makeChunk(capacity);
    // While the pool hands out references it holds more than it can hand out.
    chunk_->references.store(TextChunk::immortal / 2, std::memory_order_relaxed);
    handedOut_ = 0;
    used_ = sizeof(TextChunk);
    capacity_ = capacity;
  }
  TextBlock* block = placeBlock(chunk_, used_);
  used_ += size;
  ++handedOut_;
  return block;
}

void TextPool::retireChunk() noexcept {
  if (chunk_ == nullptr) return;
  const std::uint64_t unused = TextChunk::immortal / 2 - handedOut_;
  if (chunk_->references.fetch_sub(unused, std::memory_order_acq_rel) == unused) {
    LargeMemory::free(chunk_);
  }
  chunk_ = nullptr;
}

}  // namespace tamsel
