#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "compiler/DocumentForm.h"

namespace tamsel {

/// Characters that the separator class of converted patterns does not match: those that a run, a
/// word or a host name, is made of.
constexpr bool isRunCharacter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '.' || c == '%' || c == '-';
}

inline constexpr std::array<bool, 256> runCharacters = [] {
  std::array<bool, 256> table{};
  for (std::size_t byte = 0; byte < table.size(); ++byte) {
    table[byte] = byte < 0x80 && isRunCharacter(static_cast<char>(byte));
  }
  return table;
}();

/// A hash of text that is built from the last character to the first, so that one pass over a host
/// yields the hash of every suffix of it.
class SuffixHash {
 public:
  void prepend(char c) noexcept { state_ = state_ * factor + static_cast<unsigned char>(c) + 1; }
  void reset() noexcept { state_ = 0; }
  std::uint32_t value() const noexcept {
    const std::uint64_t mixed = (state_ ^ (state_ >> 32)) * 0xD6E8FEB86659FD93;
    return static_cast<std::uint32_t>(mixed >> 32);
  }

  static std::uint32_t of(std::string_view text) noexcept {
    SuffixHash hash;
    for (std::size_t i = text.size(); i-- > 0;) hash.prepend(text[i]);
    return hash.value();
  }

 private:
  static constexpr std::uint64_t factor = 0x9E3779B97F4A7C15;
  std::uint64_t state_ = 0;
};

/// A request URL, prepared once for all the expressions that it is held against.
class UrlText {
 public:
  /// Hardened expressions have more host starts.
  explicit UrlText(std::string_view url, DocumentForm form = DocumentForm::plain);
  UrlText(const UrlText&) = delete;
  UrlText& operator=(const UrlText&) = delete;

  std::string_view original() const noexcept { return original_; }
  /// ASCII letters in lower case; at least `padding` zero bytes follow it in memory.
  std::string_view lower() const noexcept { return {lower_, original_.size()}; }
  static constexpr std::size_t padding = 8;

  /// Every byte is printable ASCII, so that each is one character and no character folds to others.
  bool isPrintableAscii() const noexcept { return printable_; }

  /// Where the text behind a host anchor ("||") may begin: behind the scheme's colon, behind "//",
  /// and behind each dot up to the next slash; when hardened, behind each "@" there as well.
  ///
  ///     https://a.b.example/c.d     at "//a", "a.b", "b.example" and "example"; not at "d"
  bool isHostStart(std::size_t position) const noexcept {
    if (position == afterColon_ || position == hostBegin_) return true;
    return position > hostBegin_ + 1 && position <= hostEnd_ &&
           startsAfter(original_[position - 1]);
  }

  /// Calls `visit` with every host start in ascending order until it returns true. Returns whether
  /// it did.
  template <class Visitor>
  bool anyHostStart(Visitor visit) const {
    if (hostBegin_ == nowhere) return false;
    if (afterColon_ != hostBegin_ && visit(afterColon_)) return true;
    if (visit(hostBegin_)) return true;
    for (std::size_t i = hostBegin_ + 1; i < hostEnd_; ++i) {
      if (startsAfter(original_[i]) && visit(i + 1)) return true;
    }
    return false;
  }

  /// Calls `visit` with every host start at which a run of characters begins, and the SuffixHash
  /// of that run in lower case.
  template <class Visitor>
  void forEachHostRun(Visitor visit) const {
    if (hostBegin_ == nowhere) return;
    SuffixHash hash;
    for (std::size_t i = hostEnd_; i-- > hostBegin_;) {
      const char c = lower_[i];
      if (!runCharacters[static_cast<unsigned char>(c)]) {
        hash.reset();
        continue;
      }
      hash.prepend(c);
      if (i == hostBegin_ || (i > hostBegin_ + 1 && startsAfter(lower_[i - 1]))) {
        visit(i, hash.value());
      }
    }
  }

 private:
  static constexpr std::size_t nowhere = static_cast<std::size_t>(-2);

  void findHost() noexcept;
  bool startsAfter(char c) const noexcept { return c == '.' || (c == '@' && isHardened_); }

  std::string_view original_;
  bool isHardened_;
  std::array<char, 1024> buffer_;  // holds the lower case of all but extreme URLs
  std::unique_ptr<char[]> longBuffer_;
  char* lower_ = buffer_.data();
  bool printable_ = true;
  std::size_t afterColon_ = nowhere;  // behind the scheme's colon
  std::size_t hostBegin_ = nowhere;   // behind the "//", or afterColon_ without one
  std::size_t hostEnd_ = nowhere;     // the next slash, or the end
};

/// The host of the page that makes a request, in lower case.
class PageHost {
 public:
  explicit PageHost(std::string_view lowerCaseHost) noexcept : host_(lowerCaseHost) {}

  std::string_view text() const noexcept { return host_; }

  /// Calls `visit` with the host and each suffix of it that follows a dot, and the SuffixHash of
  /// it, until it returns true. Returns whether it did.
  template <class Visitor>
  bool anySuffix(Visitor visit) const {
    SuffixHash hash;
    if (host_.ends_with('.') && visit(std::string_view(), hash.value())) return true;
    for (std::size_t i = host_.size(); i-- > 0;) {
      hash.prepend(host_[i]);
      if ((i == 0 || host_[i - 1] == '.') && visit(host_.substr(i), hash.value())) return true;
    }
    return false;
  }

 private:
  std::string_view host_;
};

}  // namespace tamsel
