#include "compiler/UrlPattern.h"

#include <array>
#include <cstdint>

#include "compiler/FilterCompiler.h"

namespace tamsel::FilterCompiler {
namespace {

enum class CharacterClass : std::uint8_t { itself, wildcard, separator, escaped, nonAscii };

constexpr std::array<CharacterClass, 256> makeClasses() {
  std::array<CharacterClass, 256> classes{};
  for (std::size_t byte = 0x80; byte < classes.size(); ++byte) {
    classes[byte] = CharacterClass::nonAscii;
  }
  for (char c : UrlFilterSyntax::escaped) {
    classes[static_cast<unsigned char>(c)] = CharacterClass::escaped;
  }
  classes['*'] = CharacterClass::wildcard;
  classes['^'] = CharacterClass::separator;
  return classes;
}

constexpr std::array<CharacterClass, 256> classes = makeClasses();

}  // namespace

bool convertPatternInto(std::string& filter, std::string_view pattern) {
  filter.clear();
  if (pattern.starts_with("||")) {
    filter = UrlFilterSyntax::hostAnchor;
    pattern.remove_prefix(2);
  } else if (pattern.starts_with('|')) {
    filter = '^';
    pattern.remove_prefix(1);
  }
  const bool endAnchor = pattern.ends_with('|');
  if (endAnchor) pattern.remove_suffix(1);
  if (pattern.find_first_not_of('*') == std::string_view::npos) return false;

  for (char c : pattern) {
    switch (classes[static_cast<unsigned char>(c)]) {
      case CharacterClass::itself:
        filter += c;
        break;
      case CharacterClass::wildcard:
        filter += UrlFilterSyntax::wildcard;
        break;
      case CharacterClass::separator:
        filter += UrlFilterSyntax::separator;
        break;
      case CharacterClass::escaped:
        filter += '\\';
        filter += c;
        break;
      case CharacterClass::nonAscii:
        return false;
    }
  }
  if (endAnchor) filter += '$';
  return true;
}

std::optional<std::string> convertPattern(std::string_view pattern) {
  std::string filter;
  if (!convertPatternInto(filter, pattern)) return std::nullopt;
  return filter;
}

}  // namespace tamsel::FilterCompiler
