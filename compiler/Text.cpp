#include "compiler/Text.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace tamsel {
namespace {

using detail::BlockReference;
using detail::SharedBlock;

// A text: the counter, the length, then the bytes.
struct TextBlock : SharedBlock {
  std::size_t size = 0;
};

// A list: the counter, the number of strings, where each string ends, then the bytes of all.
struct TextListBlock : SharedBlock {
  std::size_t count = 0;
};

static_assert(alignof(std::size_t) <= alignof(TextListBlock));

template <class Block>
char* bytesAfter(Block* block) noexcept {
  return reinterpret_cast<char*>(block + 1);
}

template <class Block>
const char* bytesAfter(const Block* block) noexcept {
  return reinterpret_cast<const char*>(block + 1);
}

const std::size_t* endsOf(const TextListBlock* block) noexcept {
  return reinterpret_cast<const std::size_t*>(block + 1);
}

template <class Block>
Block* allocate(std::size_t payload) {
  void* memory = std::malloc(sizeof(Block) + payload);
  if (memory == nullptr) throw std::bad_alloc();
  return new (memory) Block();
}

void copyBytes(char* to, std::string_view from) noexcept {
  if (!from.empty()) std::memcpy(to, from.data(), from.size());
}

TextBlock* makeText(std::string_view text) {
  auto* block = allocate<TextBlock>(text.size());
  block->size = text.size();
  copyBytes(bytesAfter(block), text);
  return block;
}

TextListBlock* makeList(std::string_view bytes, std::span<const std::size_t> ends) {
  auto* block = allocate<TextListBlock>(ends.size_bytes() + bytes.size());
  block->count = ends.size();
  char* storedEnds = bytesAfter(block);
  if (!ends.empty()) std::memcpy(storedEnds, ends.data(), ends.size_bytes());
  copyBytes(storedEnds + ends.size_bytes(), bytes);
  return block;
}

TextListBlock* makeList(std::span<const std::string_view> items) {
  std::string bytes;
  std::vector<std::size_t> ends;
  ends.reserve(items.size());
  for (std::string_view item : items) {
    bytes += item;
    ends.push_back(bytes.size());
  }
  return makeList(bytes, ends);
}

template <class Block>
Block* markImmortal(Block* block) noexcept {
  block->references.store(SharedBlock::immortal, std::memory_order_relaxed);
  return block;
}

// A function's static keeps the block reachable, so leak checkers do not report it.
SharedBlock* emptyText() {
  static SharedBlock* const block = markImmortal(makeText({}));
  return block;
}

SharedBlock* emptyList() {
  static SharedBlock* const block = markImmortal(makeList({}, {}));
  return block;
}

}  // namespace

void BlockReference::free(SharedBlock* block) noexcept {
  std::free(block);
}

Text::Text() noexcept : block_(emptyText()) {}

Text::Text(std::string_view text) : block_(text.empty() ? emptyText() : makeText(text)) {}

Text Text::immortal(std::string_view text) {
  Text result{detail::Absent{}};
  result.block_ = BlockReference(markImmortal(makeText(text)));
  return result;
}

std::string_view Text::view() const noexcept {
  const auto* block = static_cast<const TextBlock*>(block_.get());
  if (block == nullptr) return {};
  return {bytesAfter(block), block->size};
}

TextList::TextList() noexcept : block_(emptyList()) {}

TextList::TextList(std::span<const std::string_view> items)
    : block_(items.empty() ? emptyList() : makeList(items)) {}

TextList::TextList(std::string_view bytes, std::span<const std::size_t> ends)
    : block_(ends.empty() ? emptyList() : makeList(bytes, ends)) {}

TextList TextList::immortal(std::span<const std::string_view> items) {
  TextList result{detail::Absent{}};
  result.block_ = BlockReference(markImmortal(makeList(items)));
  return result;
}

std::size_t TextList::size() const noexcept {
  const auto* block = static_cast<const TextListBlock*>(block_.get());
  return block == nullptr ? 0 : block->count;
}

std::string_view TextList::operator[](std::size_t index) const noexcept {
  const auto* block = static_cast<const TextListBlock*>(block_.get());
  const std::size_t* ends = endsOf(block);
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

}  // namespace tamsel
