#include "platform/http/HtmlPage.h"

#include <algorithm>
#include <array>

namespace tamsel {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view whiteSpace = " \t\r\n\f\v";
constexpr std::array<std::string_view, 8> beginnings = {
    "<!doctype html", "<html", "<head", "<?xml", "<script", "<body", "<title", "<meta"};

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalInAnyCase(char left, char right) {
  return lower(left) == lower(right);
}

// "<head" is no beginning of "<header".
bool beginsWithTag(std::string_view text, std::string_view tag) {
  if (text.size() < tag.size() ||
      !std::equal(tag.begin(), tag.end(), text.begin(), equalInAnyCase)) {
    return false;
  }
  constexpr std::string_view ends = " \t\r\n\f\v/>";
  return text.size() == tag.size() || ends.find(text[tag.size()]) != std::string_view::npos;
}

bool holds(std::string_view text, std::string_view searched) {
  return std::search(text.begin(), text.end(), searched.begin(), searched.end(), equalInAnyCase) !=
         text.end();
}

}  // namespace

bool beginsLikeHtml(std::string_view text) {
  if (text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());
  text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
  // Comments come before a page now and then, and pages for old browsers stand in one.
  if (text.starts_with("<!--")) return holds(text, "<html") || holds(text, "<!doctype html");
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [text](std::string_view tag) { return beginsWithTag(text, tag); });
}

}  // namespace tamsel
