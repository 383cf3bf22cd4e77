#include "compiler/RuleDocument.h"

#include <simdjson.h>

#include <array>
#include <bit>
#include <cstdint>
#include <string>

#include "compiler/Unicode.h"

namespace tamsel::RuleDocument {
namespace {

// How each byte stands in a JSON string: itself, a letter behind a backslash, as \u00XX, or as
// part of a longer UTF-8 sequence.
enum : char { plain = 0, control = 1, nonAscii = 2 };

constexpr std::array<char, 256> makeEscapes() {
  std::array<char, 256> escapes{};
  for (std::size_t byte = 0; byte < 0x20; ++byte) escapes[byte] = control;
  for (std::size_t byte = 0x80; byte < escapes.size(); ++byte) escapes[byte] = nonAscii;
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}
constexpr std::array<char, 256> escapes = makeEscapes();

// No byte takes more than the six of \u00XX.
constexpr std::size_t maxEscapedLength = 6;

char* copy(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

// Writes the inside of a JSON string; needs room for maxEscapedLength bytes for each of `text`,
// and for 8 more.
char* writeEscaped(char* out, std::string_view text) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highBits = 0x80 * ones;
  const auto zeroBytes = [](std::uint64_t word) { return (word - ones) & ~word & highBits; };
  while (!text.empty()) {
    // Eight bytes at once as long as none is a quote, a backslash, a control or non-ASCII.
    if (std::endian::native == std::endian::little && text.size() >= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, text.data(), sizeof word);
      const std::uint64_t special = zeroBytes(word ^ '"' * ones) | zeroBytes(word ^ '\\' * ones) |
                                    ((word - 0x20 * ones) & highBits) | (word & highBits);
      std::memcpy(out, &word, sizeof word);
      if (special == 0) {
        out += 8;
        text.remove_prefix(8);
        continue;
      }
      const auto clean = static_cast<std::size_t>(std::countr_zero(special)) / 8;
      out += clean;
      text.remove_prefix(clean);
    }
    const char c = text.front();
    const char escape = escapes[static_cast<unsigned char>(c)];
    if (escape == nonAscii) {
      const std::size_t length = Unicode::sequenceLength(text);
      out = copy(out, length == 0 ? Unicode::replacement : text.substr(0, length));
      text.remove_prefix(std::max<std::size_t>(length, 1));
      continue;
    }
    if (escape == plain) {
      *out++ = c;
    } else if (escape == control) {
      constexpr std::string_view digits = "0123456789abcdef";
      out = copy(out, "\\u00");
      *out++ = digits[static_cast<std::size_t>(c) >> 4];
      *out++ = digits[static_cast<std::size_t>(c) & 0xF];
    } else {
      *out++ = '\\';
      *out++ = escape;
    }
    text.remove_prefix(1);
  }
  return out;
}

// Writes rules one behind the other. Neighbours often share a url-filter (both rules of a line)
// and nearly all share their type lists: what was written once is copied, not escaped again.
class Encoder {
 public:
  // Makes room for the document of that many rules, as far as can be told.
  void expect(std::size_t rules) {
    constexpr std::size_t bytesPerRule = 200;
    buffer_.reserve(rules * bytesPerRule);
  }

  ByteBuffer take() && {
    finish();
    return std::move(buffer_);
  }

  void finish() { append(count_ == 0 ? "[]" : "]"); }

  // What has been written since the last `clear`.
  std::string_view written() const { return buffer_; }

  void clear() {
    buffer_.clear();
    lastFilter_ = nullptr;
  }

  void add(const WKRule& rule) {
    append(count_++ == 0 ? "[" : ",");
    append(R"({"action":{)");
    if (rule.action.selector) {
      append(R"("selector":")");
      appendEscaped(*rule.action.selector);
      append(R"(",)");
    }
    append(R"("type":")");
    appendEscaped(rule.action.type);
    append(R"("},"trigger":{)");
    if (rule.trigger.ifDomain) {
      append(R"("if-domain":)");
      appendList(*rule.trigger.ifDomain);
      append(",");
    }
    if (rule.trigger.loadType) appendShared(loadTypes_, R"("load-type":)", *rule.trigger.loadType);
    if (rule.trigger.resourceType) {
      appendShared(resourceTypes_, R"("resource-type":)", *rule.trigger.resourceType);
    }
    if (rule.trigger.unlessDomain) {
      append(R"("unless-domain":)");
      appendList(*rule.trigger.unlessDomain);
      append(",");
    }
    append(R"("url-filter":")");
    appendUrlFilter(rule.trigger.urlFilter);
    append("\"");
    if (rule.trigger.caseSensitive) {
      append(*rule.trigger.caseSensitive ? R"(,"url-filter-is-case-sensitive":true)"
                                         : R"(,"url-filter-is-case-sensitive":false)");
    }
    append("}}");
  }

 private:
  // The last list that a member was written with, and what was written.
  struct Written {
    TextList list;
    std::string json;
  };

  void append(std::string_view text) { buffer_.append(text); }

  void appendEscaped(std::string_view text) {
    char* begin = buffer_.reserve(text.size() * maxEscapedLength + 8);
    buffer_.commit(static_cast<std::size_t>(writeEscaped(begin, text) - begin));
  }

  void appendUrlFilter(const Text& filter) {
    const std::size_t begin = buffer_.size();
    if (lastFilter_ != nullptr && lastFilter_->sharesStorageWith(filter)) {
      char* to = buffer_.reserve(lastFilterLength_);
      std::memcpy(to, buffer_.view().data() + lastFilterBegin_, lastFilterLength_);
      buffer_.commit(lastFilterLength_);
    } else {
      appendEscaped(filter);
    }
    lastFilter_ = &filter;
    lastFilterBegin_ = begin;
    lastFilterLength_ = buffer_.size() - begin;
  }

  void appendList(const TextList& list) {
    append("[");
    bool first = true;
    for (std::string_view item : list) {
      append(first ? "\"" : ",\"");
      appendEscaped(item);
      append("\"");
      first = false;
    }
    append("]");
  }

  void appendShared(std::vector<Written>& written, std::string_view name, const TextList& list) {
    for (const Written& entry : written) {
      if (entry.list.sharesStorageWith(list)) return append(entry.json);
    }
    const std::size_t begin = buffer_.size();
    append(name);
    appendList(list);
    append(",");
    if (written.size() < maxWritten) {
      written.push_back({list, std::string(buffer_.view().substr(begin))});
    }
  }

  // Real lists use a handful of the combinations; a search through more would cost more than
  // writing them.
  static constexpr std::size_t maxWritten = 16;

  ByteBuffer buffer_;
  std::size_t count_ = 0;
  std::vector<Written> loadTypes_;
  std::vector<Written> resourceTypes_;
  const Text* lastFilter_ = nullptr;
  std::size_t lastFilterBegin_ = 0;
  std::size_t lastFilterLength_ = 0;
};

template <class Rules, class Projection>
ByteBuffer encodeAll(const Rules& rules, Projection wkRule) {
  try {
    Encoder encoder;
    encoder.expect(rules.size());
    for (const auto& rule : rules) encoder.add(wkRule(rule));
    return std::move(encoder).take();
  } catch (const std::bad_alloc&) {
    return ByteBuffer("[]");
  }
}

// Reads one rule; every failure names it.
class RuleReader {
 public:
  explicit RuleReader(std::size_t index) : index_(index) {}

  WKRule read(simdjson::dom::element element) const {
    const simdjson::dom::object rule = object(element, "the rule");
    WKRule result;
    bool hasTrigger = false;
    bool hasAction = false;
    for (const auto& [key, value] : rule) {
      if (key == "trigger") {
        result.trigger = readTrigger(object(value, "its trigger"));
        hasTrigger = true;
      } else if (key == "action") {
        result.action = readAction(object(value, "its action"));
        hasAction = true;
      }
    }
    if (!hasTrigger) fail("it has no trigger");
    if (!hasAction) fail("it has no action");
    return result;
  }

 private:
  WKRule::Trigger readTrigger(simdjson::dom::object object) const {
    WKRule::Trigger trigger;
    bool hasFilter = false;
    for (const auto& [key, value] : object) {
      if (key == "url-filter") {
        trigger.urlFilter = string(value, key);
        hasFilter = true;
      } else if (key == "url-filter-is-case-sensitive") {
        trigger.caseSensitive = boolean(value, key);
      } else if (key == "resource-type") {
        trigger.resourceType = list(value, key);
      } else if (key == "load-type") {
        trigger.loadType = list(value, key);
      } else if (key == "if-domain") {
        trigger.ifDomain = list(value, key);
      } else if (key == "unless-domain") {
        trigger.unlessDomain = list(value, key);
      }
    }
    if (!hasFilter) fail("its trigger has no url-filter");
    return trigger;
  }

  WKRule::Action readAction(simdjson::dom::object object) const {
    WKRule::Action action;
    bool hasType = false;
    for (const auto& [key, value] : object) {
      if (key == "type") {
        action.type = string(value, key);
        hasType = true;
      } else if (key == "selector") {
        action.selector = value.is_null() ? Maybe<Text>() : Maybe<Text>(Text(string(value, key)));
      }
    }
    if (!hasType) fail("its action has no type");
    return action;
  }

  simdjson::dom::object object(simdjson::dom::element element, std::string_view what) const {
    simdjson::dom::object result;
    if (element.get(result) != simdjson::SUCCESS) fail(std::string(what) + " is not an object");
    return result;
  }

  std::string_view string(simdjson::dom::element element, std::string_view key) const {
    std::string_view result;
    if (element.get(result) != simdjson::SUCCESS) fail(std::string(key) + " is not a string");
    return result;
  }

  std::optional<bool> boolean(simdjson::dom::element element, std::string_view key) const {
    if (element.is_null()) return std::nullopt;
    bool result = false;
    if (element.get(result) != simdjson::SUCCESS) fail(std::string(key) + " is not true or false");
    return result;
  }

  Maybe<TextList> list(simdjson::dom::element element, std::string_view key) const {
    if (element.is_null()) return std::nullopt;
    simdjson::dom::array array;
    if (element.get(array) != simdjson::SUCCESS) fail(std::string(key) + " is not a list");
    std::vector<std::string_view> items;
    for (simdjson::dom::element item : array) items.push_back(string(item, key));
    return TextList(items);
  }

  [[noreturn]] void fail(const std::string& why) const {
    throw DecodeError("Rule " + std::to_string(index_) + ": " + why + ".");
  }

  std::size_t index_;
};

}  // namespace

ByteBuffer encode(std::span<const SourcedRule> rules) {
  return encodeAll(rules, [](const SourcedRule& rule) -> const WKRule& { return rule.rule; });
}

ByteBuffer encode(std::span<const WKRule> rules) {
  return encodeAll(rules, [](const WKRule& rule) -> const WKRule& { return rule; });
}

void encode(std::span<const SourcedRule> rules,
            const std::function<void(std::string_view)>& write) {
  constexpr std::size_t pieceSize = std::size_t{1} << 18;  // stays in the processor's cache
  Encoder encoder;
  for (const SourcedRule& rule : rules) {
    encoder.add(rule.rule);
    if (encoder.written().size() < pieceSize) continue;
    write(encoder.written());
    encoder.clear();
  }
  encoder.finish();
  write(encoder.written());
}

std::vector<WKRule> decode(std::string_view document) {
  if (document.empty()) throw DecodeError("The document is empty.");
  simdjson::dom::parser parser;
  simdjson::dom::element root;
  if (const auto error = parser.parse(document.data(), document.size()).get(root)) {
    throw DecodeError("The document is not valid JSON: " +
                      std::string(simdjson::error_message(error)));
  }
  simdjson::dom::array array;
  if (root.get(array) != simdjson::SUCCESS) {
    throw DecodeError("The document is not a JSON array of rules.");
  }
  std::vector<WKRule> rules;
  for (simdjson::dom::element element : array) {
    rules.push_back(RuleReader(rules.size()).read(element));
  }
  return rules;
}

}  // namespace tamsel::RuleDocument
