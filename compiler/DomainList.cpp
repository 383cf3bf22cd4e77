#include "compiler/DomainList.h"

#include <array>

#include "compiler/Hash.h"
#include "compiler/Unicode.h"

namespace tamsel::FilterCompiler {
namespace {

using ByteSet = std::array<bool, 256>;

constexpr ByteSet byteSet(std::string_view bytes) {
  ByteSet set{};
  for (char c : bytes) set[static_cast<unsigned char>(c)] = true;
  return set;
}

constexpr bool contains(const ByteSet& set, char c) {
  return set[static_cast<unsigned char>(c)];
}

// What may stand before the first "#" of an element-hiding filter.
constexpr ByteSet domainPartAlphabet =
    byteSet("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.,~*_-");
constexpr ByteSet markerAlphabet = byteSet("@?$%");
constexpr ByteSet domainAlphabet = byteSet("abcdefghijklmnopqrstuvwxyz0123456789.-_");

}  // namespace

std::optional<CosmeticFilter> splitCosmetic(std::string_view line) noexcept {
  std::size_t first = 0;
  while (first < line.size() && contains(domainPartAlphabet, line[first])) ++first;
  if (first == line.size() || line[first] != '#') return std::nullopt;
  std::size_t second = first + 1;
  while (second < line.size() && contains(markerAlphabet, line[second])) ++second;
  if (second == line.size() || line[second] != '#') return std::nullopt;
  return CosmeticFilter{line.substr(0, first), line.substr(first + 1, second - first - 1),
                        line.substr(second + 1)};
}

std::variant<DomainLists, Skip> DomainParser::parseDomains(std::string_view list, char separator) {
  entries_.clear();
  ends_.clear();
  std::size_t excluded = 0;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(separator), list.size());
    std::string_view piece = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));

    std::string lower;
    if (!Unicode::isAscii(piece)) piece = lower = Unicode::lowercased(piece);
    const bool negated = piece.starts_with('~');
    if (negated) piece.remove_prefix(1);
    if (piece.empty()) continue;
    if (auto skip = append(piece)) return *std::move(skip);
    if (negated) ++excluded;
  }

  if (ends_.empty()) return DomainLists{};
  if (excluded != 0 && excluded != ends_.size()) {
    return Skip{"Mixing included and excluded domains is not supported"};
  }
  DomainLists lists;
  (excluded == 0 ? lists.ifDomain : lists.unlessDomain) = pool_.list(entries_, ends_);
  // No domain holds a "*", so the entries written together still tell where each begins.
  lists.hash = hashBytes(entries_, excluded == 0 ? 1 : 2);
  return lists;
}

std::optional<Skip> DomainParser::append(std::string_view domain) {
  entries_ += '*';
  const std::size_t begin = entries_.size();
  bool wildcard = false;
  bool unsupported = false;
  for (char c : domain) {
    const char lower = Unicode::asciiLower(c);
    wildcard |= c == '*';
    unsupported |= !contains(domainAlphabet, lower);
    entries_ += lower;
  }
  if (wildcard) return Skip{"Entity / wildcard domains are not supported"};
  if (unsupported) return Skip{"Unsupported domain " + entries_.substr(begin)};
  ends_.push_back(entries_.size());
  return std::nullopt;
}

}  // namespace tamsel::FilterCompiler
