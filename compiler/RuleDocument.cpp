#include "compiler/RuleDocument.h"

#include <simdjson.h>

#include <string>

#include "compiler/RuleEncoder.h"

namespace tamsel::RuleDocument {
namespace {

template <class Rules, class Projection>
ByteBuffer encodeAll(const Rules& rules, DocumentForm form, Projection wkRule) {
  try {
    if (rules.empty()) return ByteBuffer("[]");
    constexpr std::size_t bytesPerRule = 200;  // as far as can be told
    RuleEncoder encoder(form);
    encoder.reserve(rules.size() * bytesPerRule);
    for (const auto& rule : rules) {
      encoder.append(encoder.written().empty() ? "[" : ",");
      encoder.add(wkRule(rule));
    }
    encoder.addEnd();
    encoder.append("]");
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

ByteBuffer encode(std::span<const SourcedRule> rules, DocumentForm form) {
  return encodeAll(rules, form, [](const SourcedRule& rule) -> const WKRule& { return rule.rule; });
}

ByteBuffer encode(std::span<const WKRule> rules, DocumentForm form) {
  return encodeAll(rules, form, [](const WKRule& rule) -> const WKRule& { return rule; });
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
