#include "platform/rulestore/RuleParts.h"

#include <simdjson.h>
#include <xxhash.h>

#include <algorithm>
#include <array>

#include "platform/dialect/ContentBlockerDialect.h"

namespace tamsel {
namespace {

namespace ondemand = simdjson::ondemand;

// Documents of fewer rules compile in less than half a second and stay whole.
constexpr std::size_t divisible = 20000;
// A division has at least so many rules, and on average nearly twice as many.
constexpr std::size_t leastInDivision = 15000;
constexpr std::uint64_t usualExcess = 8192;
constexpr std::size_t mostInDivision = 30000;
// Exceptions are repeated in each division, which must stay worth it.
constexpr std::size_t rulesForAnException = 4;

constexpr std::string_view notJSON = "Failed to parse the JSON String.";
constexpr std::array<std::string_view, 4> pageConditions = {"if-top-url", "unless-top-url",
                                                            "if-frame-url", "unless-frame-url"};

bool isOneOf(std::string_view name, const auto& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

[[noreturn]] void fail(std::string_view reason) {
  throw RuleParts::Malformed(std::string(reason));
}

// Broken JSON fails; a value of another type than expected is WebKit's to judge.
bool is(simdjson::error_code error) {
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  if (error != simdjson::SUCCESS && error != simdjson::INCORRECT_TYPE) fail(notJSON);
  return error == simdjson::SUCCESS;
}

}  // namespace

// Reads one rule after the other.
class RuleParts::Reader {
 public:
  // What a rule says of the things that are looked at here.
  struct Content {
    std::string_view expression, type, selector;
    bool hasExpression = false;
    // Why a condition is refused; empty if none is.
    std::string_view refusal;
    bool conditioned = false;
    // Whether a condition is `wanted`.
    bool hasWanted = false;
  };

  // `wanted` is an expression to look for.
  explicit Reader(std::string_view wanted = {}) : wanted_(wanted) {}

  Content read(ondemand::value value) {
    Content content;
    forEachMember(value, [&](std::string_view name, ondemand::value member) {
      if (name == "trigger") readTrigger(member, content);
      if (name == "action") readAction(member, content);
    });
    return content;
  }

 private:
  // Calls `visit` with name and value of each member, if the value is an object.
  static void forEachMember(ondemand::value value, const auto& visit) {
    ondemand::object members;
    if (!is(value.get_object().get(members))) return;
    for (auto member : members) {
      ondemand::value memberValue;
      std::string_view name;
      if (!is(member.unescaped_key().get(name)) || !is(member.value().get(memberValue))) continue;
      visit(name, memberValue);
    }
  }

  void readTrigger(ondemand::value value, Content& content) {
    content.hasExpression = false;
    content.refusal = {};
    content.conditioned = false;
    forEachMember(value, [&](std::string_view name, ondemand::value member) {
      if (name == "url-filter") {
        content.hasExpression = is(member.get_string().get(content.expression));
      } else if (name == "if-domain" || name == "unless-domain") {
        readConditions(member, content, ContentBlockerDialect::refusalOfDomain);
      } else if (isOneOf(name, pageConditions)) {
        readConditions(member, content, ContentBlockerDialect::refusalOfExpression);
      }
    });
  }

  void readConditions(ondemand::value value, Content& content,
                      std::optional<std::string_view> (*refusalOf)(std::string_view) noexcept) {
    ondemand::array conditions;
    if (!is(value.get_array().get(conditions))) return;
    for (auto element : conditions) {
      ondemand::value condition;
      std::string_view text;
      if (!is(element.get(condition)) || !is(condition.get_string().get(text))) continue;
      if (content.refusal.empty()) content.refusal = refusalOf(text).value_or(std::string_view());
      content.conditioned = true;
      content.hasWanted = content.hasWanted || text == wanted_;
    }
  }

  static void readAction(ondemand::value value, Content& content) {
    content.type = content.selector = {};
    forEachMember(value, [&content](std::string_view name, ondemand::value member) {
      if (name == "type") (void)is(member.get_string().get(content.type));
      if (name == "selector") (void)is(member.get_string().get(content.selector));
    });
  }

  std::string_view wanted_;
};

RuleParts::RuleParts(std::string_view document) {
  const simdjson::padded_string padded(document);
  ondemand::parser parser;
  ondemand::document parsed;
  ondemand::array array;
  if (!is(parser.iterate(padded).get(parsed)) || !is(parsed.get_array().get(array))) {
    fail("Invalid input, the top level structure is not an array.");
  }

  Reader reader;
  std::vector<std::size_t> starts;
  for (auto element : array) {
    ondemand::value value;
    if (!is(element.get(value))) fail(notJSON);
    starts.push_back(static_cast<std::size_t>(value.raw_json_token().data() - padded.data()));
    const Reader::Content content = reader.read(value);

    Kind kind = Kind::other;
    if (content.type == "block") kind = Kind::block;
    if (content.type == "ignore-previous-rules") kind = Kind::exception;
    if (content.type == "css-display-none") kind = Kind::hide;

    std::optional<std::string_view> refusal;
    if (content.hasExpression) {
      refusal = ContentBlockerDialect::refusalOfExpression(content.expression);
    }
    if (!refusal && !content.refusal.empty()) refusal = content.refusal;
    if (!refusal && kind == Kind::hide) {
      refusal = ContentBlockerDialect::refusalOfSelector(content.selector);
    }
    if (refusal) refused_.push_back({rules_.size(), std::string(*refusal)});
    rules_.push_back({{}, kind, content.conditioned});
  }
  const char* rest = nullptr;
  if (parsed.current_location().get(rest) == simdjson::SUCCESS) fail(notJSON);

  // A rule's text goes up to the comma before the next one, or the bracket behind the last.
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    const bool last = i + 1 == rules_.size();
    std::string_view text =
        document.substr(starts[i], (last ? document.size() : starts[i + 1]) - starts[i]);
    text = text.substr(0, text.rfind(last ? ']' : ','));
    rules_[i].text = text.substr(0, text.find_last_not_of(" \t\n\r") + 1);
  }
  divide();
  refuseSurplus();
}

void RuleParts::divide() {
  if (count() < divisible) {
    parts_ = {{{0, count()}}};
    return;
  }

  const auto endOf = [this](std::size_t first, Kind kind) {
    while (first < count() && rules_[first].kind == kind) ++first;
    return first;
  };
  const std::size_t blocksEnd = endOf(0, Kind::block);
  std::size_t tail = count();
  while (tail > blocksEnd && rules_[tail - 1].kind == Kind::block) --tail;
  std::size_t bodyEnd = tail;
  while (bodyEnd > blocksEnd && rules_[bodyEnd - 1].kind == Kind::hide) --bodyEnd;
  const Range exceptions{blocksEnd, bodyEnd};
  const std::size_t exceptionCount = bodyEnd - blocksEnd;

  const auto divideRange = [this](Range range, std::size_t least, std::size_t most,
                                  const std::optional<Range>& repeated) {
    while (range.first < range.last) {
      const std::size_t limit = std::min(range.last, range.first + most);
      std::size_t end = std::min(limit, range.first + least);
      while (end < limit) {
        const std::string_view text = rules_[end].text;
        if (XXH3_64bits(text.data(), text.size()) % usualExcess == 0) break;
        ++end;
      }
      // A small rest goes with the last division.
      if (range.last - end < least / 2 && range.last - range.first <= most) end = range.last;
      parts_.push_back({{range.first, end}});
      if (repeated) parts_.back().push_back(*repeated);
      range.first = end;
    }
  };
  const bool ordered = endOf(blocksEnd, Kind::exception) == bodyEnd;
  if (ordered && blocksEnd > 0 && exceptionCount + leastInDivision <= maxConditioned) {
    const std::size_t room = maxConditioned - exceptionCount;
    const std::size_t least = std::max(leastInDivision, exceptionCount * rulesForAnException);
    divideRange({0, blocksEnd}, std::min(least, room),
                std::min(least / leastInDivision * mostInDivision, room), exceptions);
  } else if (bodyEnd > 0) {
    parts_.push_back({{0, bodyEnd}});
  }
  divideRange({bodyEnd, tail}, leastInDivision, mostInDivision, std::nullopt);
  if (tail < count()) parts_.back().push_back({tail, count()});
}

void RuleParts::refuseSurplus() {
  const std::size_t refusedBefore = refused_.size();
  for (const Part& part : parts_) {
    std::size_t conditioned = 0;
    for (const Range& range : part) {
      for (std::size_t i = range.first; i < range.last; ++i) {
        if (rules_[i].conditioned && ++conditioned > maxConditioned) {
          refused_.push_back({i, "WebKit bears no more rules with domains together."});
        }
      }
    }
  }
  if (refused_.size() == refusedBefore) return;
  const auto byIndex = [](const auto& a, const auto& b) { return a.index < b.index; };
  std::stable_sort(refused_.begin(), refused_.end(), byIndex);
  const auto same = [](const auto& a, const auto& b) { return a.index == b.index; };
  refused_.erase(std::unique(refused_.begin(), refused_.end(), same), refused_.end());
}

std::vector<std::string_view> RuleParts::document(const Part& part) const {
  std::vector<std::string_view> pieces = {"["};
  for (const Range& range : part) {
    if (range.first == range.last) continue;
    const std::string_view& last = rules_[range.last - 1].text;
    const char* begin = rules_[range.first].text.data();
    if (pieces.size() > 1) pieces.emplace_back(",");
    pieces.emplace_back(begin, static_cast<std::size_t>(last.data() + last.size() - begin));
  }
  pieces.emplace_back("]");
  return pieces;
}

std::optional<std::size_t> RuleParts::find(std::string_view expression, const Range& range) const {
  ondemand::parser parser;
  Reader reader(expression);
  for (std::size_t i = range.first; i < range.last; ++i) {
    const simdjson::padded_string padded(rules_[i].text);
    ondemand::document parsed;
    ondemand::value value;
    if (parser.iterate(padded).get(parsed) != simdjson::SUCCESS ||
        parsed.get_value().get(value) != simdjson::SUCCESS) {
      continue;
    }
    const Reader::Content content = reader.read(value);
    if ((content.hasExpression && content.expression == expression) || content.hasWanted) return i;
  }
  return std::nullopt;
}

}  // namespace tamsel
