#include "compiler/RuleEncoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

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

}  // namespace

void RuleEncoder::add(const WKRule& rule) {
  append(R"({"action":{)");
  if (rule.action.selector) {
    append(R"("selector":")");
    appendEscaped(*rule.action.selector);
    append(R"(",)");
  }
  append(R"("type":")");
  appendEscaped(rule.action.type);
  append(R"("},"trigger":{)");
  if (rule.trigger.ifDomain) appendConditions("if-domain", "if-top-url", *rule.trigger.ifDomain);
  if (rule.trigger.loadType) appendShared(loadTypes_, R"("load-type":)", *rule.trigger.loadType);
  if (rule.trigger.resourceType) {
    appendShared(resourceTypes_, R"("resource-type":)", *rule.trigger.resourceType);
  }
  if (rule.trigger.unlessDomain) {
    appendConditions("unless-domain", "unless-top-url", *rule.trigger.unlessDomain);
  }
  append(R"("url-filter":")");
  appendUrlFilter(rule.trigger.urlFilter, rule.action.type == "ignore-previous-rules");
  append("\"");
  if (rule.trigger.caseSensitive) {
    append(*rule.trigger.caseSensitive ? R"(,"url-filter-is-case-sensitive":true)"
                                       : R"(,"url-filter-is-case-sensitive":false)");
  }
  append("}}");
}

void RuleEncoder::appendEscaped(std::string_view text) {
  char* begin = buffer_.reserve(text.size() * maxEscapedLength + 8);
  buffer_.commit(static_cast<std::size_t>(writeEscaped(begin, text) - begin));
}

void RuleEncoder::addEnd() {
  if (form_ == DocumentForm::plain) return;
  for (const Hardening::GuardRule& rule : Hardening::guard) {
    append(R"(,{"action":{"type":"block"},"trigger":{"load-type":["third-party"],"url-filter":")");
    appendEscaped(rule.urlFilter);
    append("\"}}");
  }
}

void RuleEncoder::appendConditions(std::string_view plainName, std::string_view hardenedName,
                                   const TextList& domains) {
  append("\"");
  append(form_ == DocumentForm::plain ? plainName : hardenedName);
  append("\":");
  if (form_ == DocumentForm::plain) {
    appendList(domains);
  } else {
    std::string_view separator = "[\"";
    for (const std::string_view domain : domains) {
      append(separator);
      appendEscaped(Hardening::pageCondition(domain));
      separator = "\",\"";
    }
    append(domains.empty() ? "[]" : "\"]");
  }
  append(",");
}

void RuleEncoder::appendUrlFilter(const Text& filter, bool isException) {
  const std::size_t begin = buffer_.size();
  if (lastFilter_ != nullptr && lastFilter_->sharesStorageWith(filter)) {
    char* to = buffer_.reserve(lastFilterLength_);
    std::memcpy(to, buffer_.view().data() + lastFilterBegin_, lastFilterLength_);
    buffer_.commit(lastFilterLength_);
  } else if (form_ == DocumentForm::plain) {
    appendEscaped(filter);
  } else {
    appendEscaped(Hardening::urlFilter(filter, isException));
  }
  lastFilter_ = &filter;
  lastFilterBegin_ = begin;
  lastFilterLength_ = buffer_.size() - begin;
}

void RuleEncoder::appendList(const TextList& list) {
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

void RuleEncoder::appendShared(std::vector<Written>& written, std::string_view name,
                               const TextList& list) {
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

}  // namespace tamsel::RuleDocument
