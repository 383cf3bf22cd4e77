#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "compiler/ByteBuffer.h"
#include "compiler/DocumentForm.h"
#include "compiler/RuleModel.h"

namespace tamsel::RuleDocument {

/// Writes rules as JSON objects, members sorted. Neighbours often share a url-filter (both rules of
/// a line) and nearly all share their type lists: what was written once is copied, not escaped
/// again.
class RuleEncoder {
 public:
  explicit RuleEncoder(DocumentForm form = DocumentForm::plain) : form_(form) {}

  /// Makes room for so many bytes more.
  void reserve(std::size_t bytes) { (void)buffer_.reserve(bytes); }

  /// The rule must stay where it is until the next is added, or all is cleared.
  void add(const WKRule& rule);

  /// Writes what stands behind the last rule of a document of this form, if it has rules.
  void addEnd();

  void append(std::string_view text) { buffer_.append(text); }

  /// What has been written since the last `clear`.
  std::string_view written() const { return buffer_; }
  ByteBuffer take() && { return std::move(buffer_); }

  void clear() {
    buffer_.clear();
    lastFilter_ = nullptr;
  }

 private:
  // The last list that a member was written with, and what was written.
  struct Written {
    TextList list;
    std::string json;
  };

  void appendEscaped(std::string_view text);
  void appendUrlFilter(const Text& filter, bool isException);
  void appendConditions(std::string_view plainName, std::string_view hardenedName,
                        const TextList& domains);
  void appendList(const TextList& list);
  void appendShared(std::vector<Written>& written, std::string_view name, const TextList& list);

  // Real lists use a handful of the combinations; a search through more would cost more than
  // writing them.
  static constexpr std::size_t maxWritten = 16;

  DocumentForm form_;
  ByteBuffer buffer_;
  std::vector<Written> loadTypes_;
  std::vector<Written> resourceTypes_;
  const Text* lastFilter_ = nullptr;
  std::size_t lastFilterBegin_ = 0;
  std::size_t lastFilterLength_ = 0;
};

}  // namespace tamsel::RuleDocument
