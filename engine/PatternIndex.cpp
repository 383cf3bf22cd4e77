#include "engine/PatternIndex.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string>
#include <utility>

#include "compiler/Unicode.h"

namespace tamsel {
namespace {

// Text that most URLs have some of; a gram of it says little about a URL, however rare it is among
// patterns.
constexpr std::string_view everydayText =
    "https://www.com/ .net/ .org/ .co.uk/ .com. .html .php? .aspx .js? .css? .png .jpg .gif .webp "
    ".json .min.js /index. /images/ /assets/ /static/ /script /content/ /public/ /media/ /files/ "
    "/upload /api/v1/ /v2/ cdn. ?id= &id= 2026 2025 2024 /en/ /page news blog home site data "
    "wp-content/plugins/ themes jquery";

// The number of bits that number `perKey` places for each key; at least as many as make two words
// of a filter, at most 31.
unsigned bitsFor(std::size_t keys, std::size_t perKey) {
  return static_cast<unsigned>(std::clamp<std::size_t>(std::bit_width(keys * perKey), 7, 31));
}

}  // namespace

// What a pattern is filed under.
struct PatternIndex::Filing {
  enum class Place : std::uint8_t { unfiled, hostRun, text };
  Place place = Place::unfiled;
  std::uint32_t key = 0;
  TextEntry entry;  // for a text
};

PatternIndex::Table::Table(std::size_t keyCount)
    : filter_(std::size_t{1} << (bitsFor(keyCount, 8) - 6)),
      slots_(std::size_t{1} << bitsFor(keyCount, 2)),
      filterShift_(32 - (bitsFor(keyCount, 8) - 6)),
      slotShift_(32 - bitsFor(keyCount, 2)) {}

std::uint32_t& PatternIndex::Table::valueOf(std::uint32_t key) {
  const std::uint32_t hash = hashOf(key);
  filter_[hash >> filterShift_] |= bitsOf(hash);
  std::size_t i = hash >> slotShift_;
  while (slots_[i].value != none && slots_[i].key != key) i = next(i);
  slots_[i].key = key;
  return slots_[i].value;
}

// Counts the grams of patterns and then chooses the rarest of each.
class PatternIndex::GramChooser {
 public:
  GramChooser() : counts_(std::size_t{1} << countBits) {
    constexpr std::uint32_t muchMoreThanPatterns = 1 << 20;
    count(everydayText, muchMoreThanPatterns);
  }

  void count(std::string_view code) { count(code, 1); }

  // The offset of the rarest gram; nothing when the code has no four characters in a row.
  std::optional<std::size_t> rarest(std::string_view code) const {
    std::optional<std::size_t> best;
    std::uint32_t bestCount = 0;
    forEachGram(code, [&](std::size_t offset, Gram gram) {
      const std::uint32_t count = counts_[slotOf(gram)];
      if (best && count >= bestCount) return;
      best = offset;
      bestCount = count;
    });
    return best;
  }

  // Where four characters stand that are as far from the gram at `offset` as can be within the
  // same text and four places of it.
  static std::size_t farthestNear(std::string_view code, std::size_t offset) {
    std::size_t after = offset;
    while (after < offset + gramLength && after + gramLength < code.size() &&
           code[after + gramLength] >= 0x20) {
      ++after;
    }
    std::size_t before = offset;
    while (before > 0 && offset - before < gramLength && code[before - 1] >= 0x20) --before;
    return after - offset >= offset - before ? after : before;
  }

 private:
  // Different grams may share a count; that only makes some choices a little worse.
  static constexpr unsigned countBits = 17;
  static std::size_t slotOf(Gram gram) { return gram * 0x9E3779B1U >> (32 - countBits); }

  void count(std::string_view code, std::uint32_t weight) {
    forEachGram(code, [&](std::size_t, Gram gram) { counts_[slotOf(gram)] += weight; });
  }

  // Calls `visit` with the grams that consist of characters only.
  template <class Visitor>
  static void forEachGram(std::string_view code, Visitor visit) {
    std::size_t characters = 0;  // in a row, up to and including the one at `i`
    for (std::size_t i = 0; i < code.size(); ++i) {
      characters = code[i] >= 0x20 ? characters + 1 : 0;
      if (characters >= gramLength) visit(i + 1 - gramLength, gramAt(&code[i + 1 - gramLength]));
    }
  }

  std::vector<std::uint32_t> counts_;
};

namespace {

// The run at the host start that a pattern's code begins with; nothing when it begins with none or
// when a URL's run could go on where the code's ends.
std::optional<std::string_view> boundedHostRun(const UrlProgram& program) {
  if (!program.exact || program.anchor != UrlProgram::Anchor::host) return std::nullopt;
  const std::string_view code = program.code();
  std::size_t end = 0;
  while (end < code.size() && runCharacters[static_cast<unsigned char>(code[end])]) ++end;
  if (end == 0) return std::nullopt;
  const bool bounded = end == code.size() ? program.endAnchor : code[end] != UrlProgram::wildcard;
  if (!bounded) return std::nullopt;
  return code.substr(0, end);
}

}  // namespace

LargeVector<PatternIndex::Filing> PatternIndex::fileAll(
    std::size_t count, const std::function<UrlProgram(std::size_t)>& program, Keys keys) {
  LargeVector<Filing> filings(count);
  GramChooser grams;
  std::string lower;
  const auto lowerCode = [&lower](const UrlProgram& of) -> std::string_view {
    if (!of.caseSensitive) return of.code();
    return lower = Unicode::lowercased(of.code());
  };
  for (std::size_t i = 0; i < count; ++i) {
    const UrlProgram pattern = program(i);
    const auto run = keys == Keys::hostRunsAndTexts ? boundedHostRun(pattern) : std::nullopt;
    if (!run) {
      grams.count(lowerCode(pattern));
      continue;
    }
    filings[i].place = Filing::Place::hostRun;
    filings[i].key = SuffixHash::of(lowerCode(pattern).substr(0, run->size()));
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (filings[i].place == Filing::Place::hostRun) continue;
    const UrlProgram pattern = program(i);
    const std::string_view code = lowerCode(pattern);
    const auto offset = grams.rarest(code);
    if (!offset) continue;
    filings[i].place = Filing::Place::text;
    filings[i].key = gramAt(code.data() + *offset);
    TextEntry& entry = filings[i].entry;
    entry.pattern = static_cast<Pattern>(i);
    if (pattern.exact && pattern.singlePiece) {
      entry.offset = static_cast<std::uint32_t>(*offset);
    }
    const std::size_t check = GramChooser::farthestNear(code, *offset);
    entry.check = gramAt(code.data() + check);
    entry.checkDistance = static_cast<std::int16_t>(static_cast<std::ptrdiff_t>(check) -
                                                    static_cast<std::ptrdiff_t>(*offset));
  }
  return filings;
}

PatternIndex::PatternIndex(std::size_t count, const std::function<UrlProgram(std::size_t)>& program,
                           Keys keys)
    : PatternIndex(fileAll(count, program, keys), keys) {}

PatternIndex::PatternIndex(const LargeVector<Filing>& filings, Keys keys)
    : keys_(keys),
      hostRuns_(static_cast<std::size_t>(
          std::count_if(filings.begin(), filings.end(),
                        [](const Filing& f) { return f.place == Filing::Place::hostRun; }))),
      texts_(static_cast<std::size_t>(
          std::count_if(filings.begin(), filings.end(),
                        [](const Filing& f) { return f.place == Filing::Place::text; }))) {
  fileHostRuns(filings);
  fileTexts(filings);
  for (std::size_t i = 0; i < filings.size(); ++i) {
    if (filings[i].place == Filing::Place::unfiled) unfiled_.push_back(static_cast<Pattern>(i));
  }
}

void PatternIndex::fileHostRuns(const LargeVector<Filing>& filings) {
  nextInRun_.resize(filings.size(), none);
  // From the last to the first, because each is put in front of those under its run.
  constexpr std::size_t ahead = 16;  // far enough for memory to answer meanwhile
  for (std::size_t i = filings.size(); i-- > 0;) {
    if (i >= ahead) hostRuns_.prefetch(filings[i - ahead].key);
    if (filings[i].place != Filing::Place::hostRun) continue;
    std::uint32_t& first = hostRuns_.valueOf(filings[i].key);
    nextInRun_[i] = std::exchange(first, static_cast<Pattern>(i));
  }
}

void PatternIndex::fileTexts(const LargeVector<Filing>& filings) {
  LargeVector<std::uint64_t> order;  // the gram, then the pattern
  for (std::size_t i = 0; i < filings.size(); ++i) {
    if (filings[i].place != Filing::Place::text) continue;
    order.push_back(std::uint64_t{filings[i].key} << 32 | i);
  }
  std::sort(order.begin(), order.end());
  entries_.reserve(order.size());
  for (std::uint64_t keyAndPattern : order) {
    const auto key = static_cast<std::uint32_t>(keyAndPattern >> 32);
    const auto pattern = static_cast<Pattern>(keyAndPattern);
    std::uint32_t& first = texts_.valueOf(key);
    if (first == none) {
      first = static_cast<std::uint32_t>(entries_.size());
      if (!entries_.empty()) entries_.back().isLast = true;
    }
    entries_.push_back(filings[pattern].entry);
  }
  if (!entries_.empty()) entries_.back().isLast = true;
}

}  // namespace tamsel
