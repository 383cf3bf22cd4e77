#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace tamsel {

// Immutable text in shared storage. A list of 100,000 filters yields 200,000 rules that share most
// of their text, so a copy of a rule must cost a counter and not a string, and a text must not cost
// an allocation.
namespace detail {

/// Memory that texts stand in, one behind the other, freed when the last reference to any of them
/// goes. Chunks marked immortal are never counted nor freed, which keeps the few texts that every
/// rule shares from being a point of contention.
struct TextChunk {
  static constexpr std::uint64_t immortal = std::uint64_t{1} << 63;
  std::atomic<std::uint64_t> references{0};
};

/// What stands in front of a text or a list.
struct TextBlock {
  std::uint32_t chunkOffset = 0;  // back to the chunk
  std::uint32_t count = 0;        // of bytes, or of strings
};

/// One owning reference to a block; null owns nothing.
class BlockReference {
 public:
  constexpr BlockReference() noexcept = default;
  /// Takes over the reference to the chunk that the caller holds.
  explicit BlockReference(TextBlock* adopted) noexcept : block_(adopted) {}
  BlockReference(const BlockReference& other) noexcept : block_(other.block_) { retain(); }
  BlockReference(BlockReference&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  BlockReference& operator=(BlockReference other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~BlockReference() { release(); }

  TextBlock* get() const noexcept { return block_; }

 private:
  TextChunk& chunk() const noexcept {
    return *reinterpret_cast<TextChunk*>(reinterpret_cast<char*>(block_) - block_->chunkOffset);
  }
  void retain() const noexcept {
    if (block_ == nullptr) return;
    std::atomic<std::uint64_t>& references = chunk().references;
    if (references.load(std::memory_order_relaxed) >= TextChunk::immortal) return;
    references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (block_ == nullptr) return;
    std::atomic<std::uint64_t>& references = chunk().references;
    if (references.load(std::memory_order_relaxed) >= TextChunk::immortal) return;
    if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) free(chunk());
  }
  static void free(TextChunk& chunk) noexcept;

  TextBlock* block_ = nullptr;
};

struct Absent {};

}  // namespace detail

template <class T>
class Maybe;

class TextPool;

/// An immutable string of bytes (UTF-8 wherever it came from text), of less than 4 GiB: making a
/// longer one throws std::length_error. Copies share storage.
class Text {
 public:
  Text() noexcept;
  Text(std::string_view text);
  Text(const char* text) : Text(std::string_view(text)) {}
  Text(const std::string& text) : Text(std::string_view(text)) {}

  /// A text that lives as long as the program; copying it touches no counter.
  static Text immortal(std::string_view text);

  std::string_view view() const noexcept;
  operator std::string_view() const noexcept { return view(); }
  std::string string() const { return std::string(view()); }
  bool empty() const noexcept { return view().empty(); }
  std::size_t size() const noexcept { return view().size(); }

  /// True when both are the same copy; equal texts may still be stored twice.
  bool sharesStorageWith(const Text& other) const noexcept {
    return block_.get() == other.block_.get();
  }

  friend bool operator==(const Text& a, const Text& b) noexcept {
    return a.sharesStorageWith(b) || a.view() == b.view();
  }
  friend bool operator==(const Text& a, std::string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const Text& a, const char* b) noexcept { return a.view() == b; }

 private:
  friend class Maybe<Text>;
  friend class TextPool;
  explicit Text(detail::Absent) noexcept {}
  detail::BlockReference block_;  // null only in an empty Maybe and after a move
};

/// An immutable list of strings in one shared block.
class TextList {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::string_view;

    Iterator() = default;
    Iterator(const TextList* list, std::size_t index) : list_(list), index_(index) {}
    std::string_view operator*() const noexcept { return (*list_)[index_]; }
    Iterator& operator++() noexcept {
      ++index_;
      return *this;
    }
    Iterator operator++(int) noexcept {
      Iterator before = *this;
      ++index_;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
      return a.index_ == b.index_;
    }

   private:
    const TextList* list_ = nullptr;
    std::size_t index_ = 0;
  };

  TextList() noexcept;
  TextList(std::span<const std::string_view> items);
  TextList(std::initializer_list<std::string_view> items)
      : TextList(std::span<const std::string_view>(items.begin(), items.size())) {}

  /// A list that lives as long as the program; copying it touches no counter.
  static TextList immortal(std::span<const std::string_view> items);

  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  /// Needs index < size().
  std::string_view operator[](std::size_t index) const noexcept;
  Iterator begin() const noexcept { return {this, 0}; }
  Iterator end() const noexcept { return {this, size()}; }

  /// True when both are the same copy; equal lists may still be stored twice.
  bool sharesStorageWith(const TextList& other) const noexcept {
    return block_.get() == other.block_.get();
  }
  /// What identifies the storage while any copy of this list lives.
  const void* storage() const noexcept { return block_.get(); }

  friend bool operator==(const TextList& a, const TextList& b) noexcept;

 private:
  friend class Maybe<TextList>;
  friend class TextPool;
  explicit TextList(detail::Absent) noexcept {}
  detail::BlockReference block_;  // null only in an empty Maybe and after a move
};

/// Makes many texts at little cost: they share chunks of memory, each of which is freed with the
/// last of its texts. For one thread; the texts are for any.
class TextPool {
 public:
  TextPool() = default;
  ~TextPool() { retireChunk(); }
  TextPool(const TextPool&) = delete;
  TextPool& operator=(const TextPool&) = delete;

  Text text(std::string_view text);
  /// The strings that stand one behind the other in `bytes`, the i-th up to `ends[i]`.
  TextList list(std::string_view bytes, std::span<const std::size_t> ends);

 private:
  detail::TextBlock* allocate(std::size_t payload);
  void retireChunk() noexcept;

  detail::TextChunk* chunk_ = nullptr;
  std::size_t used_ = 0;
  std::size_t capacity_ = 0;
  std::uint64_t handedOut_ = 0;  // references to the chunk, counted when it is retired
};

/// Optional shared storage in the size of one pointer; used like std::optional.
template <class T>
class Maybe {
 public:
  Maybe() noexcept : value_(detail::Absent{}) {}
  Maybe(std::nullopt_t) noexcept : Maybe() {}
  Maybe(T value) noexcept : value_(std::move(value)) {}

  bool has_value() const noexcept { return value_.block_.get() != nullptr; }
  explicit operator bool() const noexcept { return has_value(); }
  const T& operator*() const noexcept { return value_; }
  const T* operator->() const noexcept { return &value_; }

  friend bool operator==(const Maybe& a, const Maybe& b) noexcept {
    return a.has_value() == b.has_value() && (!a.has_value() || a.value_ == b.value_);
  }

 private:
  T value_;
};

}  // namespace tamsel
