#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

/// Rules of the content-blocker format, as text.
namespace tamsel::test {

inline std::string repeated(std::size_t count, const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

/// `more` stands behind the expression in the trigger, with a comma before it.
inline std::string rule(const std::string& type, const std::string& expression,
                        const std::string& more = "") {
  return R"({"action":{"type":")" + type + R"("},"trigger":{"url-filter":")" + expression + "\"" +
         more + "}}";
}

inline std::string hide(const std::string& selector, const std::string& more = "") {
  return R"({"action":{"selector":")" + selector +
         R"(","type":"css-display-none"},"trigger":{"url-filter":".*")" + more + "}}";
}

inline std::string document(const std::vector<std::string>& rules) {
  std::string text = "[";
  for (const std::string& each : rules) {
    if (text.size() > 1) text += ',';
    text += each;
  }
  return text + "]";
}

/// Block rules that WebKit compiles in next to no time.
inline std::vector<std::string> numbered(std::size_t count, const std::string& word) {
  std::vector<std::string> rules;
  for (std::size_t i = 0; i < count; ++i) {
    rules.push_back(rule("block", "^https?://" + word + std::to_string(i) + "/"));
  }
  return rules;
}

/// Block rules that take it about a second for 20,000, as those of real lists do.
inline std::vector<std::string> words(std::size_t count) {
  std::mt19937 random(1);
  std::vector<std::string> rules;
  for (std::size_t i = 0; i < count; ++i) {
    std::string word;
    for (int length = 0; length < 12; ++length) word += static_cast<char>('a' + random() % 26);
    rules.push_back(rule("block", "^[^:]+:(//)?([^/]+\\\\.)?" + word + "\\\\.example"));
  }
  return rules;
}

}  // namespace tamsel::test
